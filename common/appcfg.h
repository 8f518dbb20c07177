// appcfg.h - names of syslog facilities and of time-stamp formats, as settings spell them.
#pragma once

#include <cstdint>

// Facility code of "user" (in any case) or "local0" to "local7" (lower case), else -1.
int str2fac(const char* name);

// Name of a facility code that str2fac knows, else "#unknown#". The text is static.
const char* fac2str(int code);

// TMF_ flags of "raw", "raw_mono", "no_time", "gmt" or "local", in any case, else TMF_BAD.
std::uint32_t str_to_timefmt(const char* name);

// Name of a flag word, "#error#" for TMF_BAD. The text is static.
const char* timefmt_str(std::uint32_t flags);
