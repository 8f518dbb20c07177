// Single values out of a group of a libconfig file, with defaults and bounds. Called wherever
// settings are loaded. Owns nothing.
#include "config.h"

#include <cstdio>
#include <cstring>

#include "log.h"
#include "strops.h"

LOG_MODULE(7);

namespace {
constexpr std::size_t SIZE_TEXT_MAX = 32; // "67108864" or "64M", with its NUL
} // namespace

int load_config_setting_str(config_setting_t* setting, const char* name, char* buf,
                            std::size_t buflen, const char* dflt) {
    const char* text = dflt;
    if (config_setting_lookup_string(setting, name, &text) == CONFIG_TRUE) {
        const std::size_t len = strlen(text);
        if (len >= buflen) {
            const long max = static_cast<long>(buflen);
            LOG(&g_log, ERR_level, "%s: %s value is too long (%ld), max = %ld characters.\n",
                __func__, name, static_cast<long>(len), max);
            return -1;
        }
    }
    snprintf(buf, buflen, "%s", text != nullptr ? text : "");
    return 0;
}

int load_config_setting_size(config_setting_t* setting, const char* name, std::int64_t* out,
                             std::int64_t dflt) {
    long long number;
    if (config_setting_lookup_int64(setting, name, &number) == CONFIG_TRUE) {
        *out = number;
        return 0;
    }
    char text[SIZE_TEXT_MAX];
    const int rc = load_config_setting_str(setting, name, text, sizeof(text), nullptr);
    if (rc != 0)
        return rc;
    if (text[0] != '\0')
        return a2int64(text, out);
    *out = dflt;
    return 0;
}
