// meta.h - what the program calls itself: names, application information line, build block.
#pragma once

#include <cstdio>

inline constexpr char g_app_name[] = "quarn";
inline constexpr char g_app_descr[] = "MPEG-TS file analyzer";

// One line without a line feed that says which program this is: name, version, description, build
// date and platform. `checksum` (may be null) is appended for hosts that identify their binary.
// Returns a static buffer that the next call overwrites; a longer text is cut to 255 bytes.
[[nodiscard]] const char* get_custom_app_info(const char* name, const char* descr,
                                              const char* checksum);

// Writes the block of build tags, framed by dashes: one tag per deviation from the usual build.
void dump_build_info(FILE* out);
