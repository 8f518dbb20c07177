// meta.cpp - application information: which program, which version, built when and for what.
//
// The driver names itself with it in usage, version, start-up and exit lines. Version, date and
// platform come from the build, so that no source file changes with them.
#include "meta.h"

#include "timeop.h"

const char* get_custom_app_info(const char* name, const char* descr, const char* checksum) {
    static char info[256];
    std::snprintf(info, sizeof info, "%s %s (%s), built %s for %s%s%s", name, QUARN_VERSION, descr,
                  QUARN_BUILD_DATE, QUARN_PLATFORM, checksum ? ", checksum " : "",
                  checksum ? checksum : "");
    return info;
}

void dump_build_info(FILE* out) {
    std::fputs("----\n", out);
    if constexpr (using_fast_clocks)
        std::fputs("[fast-clocks] ", out);
    std::fputs("----\n\n", out);
}
