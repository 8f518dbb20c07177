// config.h - single values out of a group of a libconfig file.
//
//     char name[32];
//     int64_t limit;
//     if (load_config_setting_str(group, "name", name, sizeof(name), "none") != 0 ||
//         load_config_setting_size(group, "limit", &limit, 0) != 0) // 1048576 or "1M"
//         return -1;
//
// An absent setting is not an error; it gives the default.
#pragma once

#include <cstddef>
#include <cstdint>

#include <libconfig.h>

// Copies the string setting `name` of `setting` into `buf` of `buflen` bytes. If it is absent or no
// string: `dflt` cut to fit, or nothing if `dflt` is null.
// Returns 0; -1 with a line in g_log and `buf` untouched if the value has `buflen` characters or
// more.
[[nodiscard]] int load_config_setting_str(config_setting_t* setting, const char* name, char* buf,
                                          std::size_t buflen, const char* dflt);

// Reads an integer setting, or a string setting of at most 31 characters such as "64M". If it is
// absent, of another type or an empty string: `dflt`.
// Returns 0; -1 if the string is too long; else the error of a2int64. `out` is then untouched.
[[nodiscard]] int load_config_setting_size(config_setting_t* setting, const char* name,
                                           std::int64_t* out, std::int64_t dflt);
