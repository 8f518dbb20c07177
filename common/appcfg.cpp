// Names of syslog facilities and of time-stamp formats, both ways. Called where options and
// settings are read or shown. Owns nothing.
#include "appcfg.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>

#include "log.h"

namespace {
struct facility_name {
    int code;
    const char* name;
};

constexpr facility_name facilities[] = {
    {LOG_USER, "user"},     {LOG_LOCAL0, "local0"}, {LOG_LOCAL1, "local1"},
    {LOG_LOCAL2, "local2"}, {LOG_LOCAL3, "local3"}, {LOG_LOCAL4, "local4"},
    {LOG_LOCAL5, "local5"}, {LOG_LOCAL6, "local6"}, {LOG_LOCAL7, "local7"},
};

struct timefmt_name {
    std::uint32_t flags;
    const char* name;
};

// In the order in which the bits of a flag word are looked at.
constexpr timefmt_name timefmts[] = {
    {TMF_BAD, "#error#"}, {TMF_RAW | TMF_MONOTONIC, "raw_mono"},
    {TMF_RAW, "raw"},     {TMF_NONE, "no_time"},
    {TMF_GMT, "gmt"},     {0, "local"},
};
} // namespace

int str2fac(const char* name) {
    constexpr char prefix[] = "local";
    constexpr std::size_t prefix_len = sizeof(prefix) - 1;
    if (strncmp(name, prefix, prefix_len) != 0 ||
        isdigit(static_cast<unsigned char>(name[prefix_len])) == 0)
        return strcasecmp(name, "user") == 0 ? LOG_USER : -1;
    const long number = strtol(name + prefix_len, nullptr, 10);
    if (number > 7)
        return -1;
    return LOG_LOCAL0 + (static_cast<int>(number) << 3);
}

const char* fac2str(int code) {
    for (const facility_name& known : facilities) {
        if (known.code == code)
            return known.name;
    }
    return "#unknown#";
}

std::uint32_t str_to_timefmt(const char* name) {
    for (const timefmt_name& known : timefmts) {
        if (known.flags != TMF_BAD && strcasecmp(name, known.name) == 0)
            return known.flags;
    }
    return TMF_BAD;
}

const char* timefmt_str(std::uint32_t flags) {
    const timefmt_name* known = timefmts;
    while ((flags & known->flags) != known->flags)
        ++known; // ends at "local", which asks for no bit
    return known->name;
}
