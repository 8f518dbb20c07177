#include "live/analyzer_settings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <libconfig.h>

#include "live/ring.h"
#include "log.h"
#include "reports/text.h"

namespace quarn::live {
namespace {

constexpr const char* group_path = "zbn.stream_analyzer";

/// Two rotations within a second would share one name, so there must be room for a second's lines.
constexpr std::size_t least_log_size = 1 << 20;
/// A rotated log has a dot and the Unix time behind its name.
constexpr std::size_t longest_log_path = LOG_PATHNAME_MAX - 1 - sizeof(".1234567890");

std::string system_error(const std::string& path, int error) {
    return path + ": " + std::strerror(error);
}

struct ConfigFile {
    ConfigFile() { config_init(&config); }
    ~ConfigFile() { config_destroy(&config); }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;
    config_t config{};
};

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::string wrong_path(const char* key, const std::string& path) {
    if (path.size() <= longest_log_path)
        return {};
    return std::string(key) + " has " + std::to_string(path.size()) +
           " characters: a rotated log needs a path of at most " + std::to_string(longest_log_path);
}

bool is_control(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20 || first == 0x7F ||
           (first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0);
}

} // namespace

tsan_config default_analyzer() {
    tsan_config cfg = TSAN_DEFAULTS;
    cfg.max_pdts_delta = 500;
    cfg.max_pcr_delta = 1000;
    cfg.pcr_freq_ms = 100;
    cfg.max_ndat_pcount = 10000;
    cfg.cc_max_ms0_ms = 1000;
    cfg.dump_stats_period = 60;
    return cfg;
}

std::string load_analyzer_group(config_setting_t* group, tsan_config& cfg) {
    if (config_setting_is_group(group) != CONFIG_TRUE)
        return "analyzer settings are a group: { pcr_freq_ms = 40; ... }";
    if (config_setting_get_member(group, "enabled") == nullptr)
        config_setting_set_bool(config_setting_add(group, "enabled", CONFIG_TYPE_BOOL),
                                CONFIG_TRUE);
    const int rc = tsan_load_config(group, &cfg);
    if (rc != 0)
        return std::string("a setting of the analyzer cannot be used: sizes are whole numbers or "
                           "texts with K, M or G, source_tag has at most 62 characters (") +
               std::strerror(rc) + ")";
    if (!cfg.is_enabled)
        return "the analyzer is off there: enabled must be true";
    return {};
}

std::string load_analyzer_file(const std::string& path, tsan_config& cfg) {
    const std::unique_ptr<std::FILE, Close> in(std::fopen(path.c_str(), "re"));
    if (!in)
        return system_error(path, errno);
    // libconfig ends the process when the first read of a directory fails.
    std::ungetc(std::getc(in.get()), in.get());
    if (std::ferror(in.get()))
        return system_error(path, errno);
    ConfigFile file;
    if (config_read(&file.config, in.get()) != CONFIG_TRUE)
        return path + ":" + std::to_string(config_error_line(&file.config)) + ": " +
               config_error_text(&file.config);
    config_setting_t* const group = config_lookup(&file.config, group_path);
    if (group == nullptr)
        return path + ": there is no group " + group_path;
    if (config_setting_get_member(group, "enabled") == nullptr)
        return path + ": the analyzer is off there: enabled = true is missing";
    const std::string error = load_analyzer_group(group, cfg);
    return error.empty() ? error : path + ": " + error;
}

std::string wrong_settings(const AnalyzerSettings& settings) {
    for (const auto& [key, path] : {std::pair("alert_log", settings.alert_log),
                                    std::pair("alert_text_log", settings.text_log)})
        if (std::string error = wrong_path(key, path); !error.empty())
            return error;
    if (!settings.alert_log.empty() && settings.alert_log == settings.text_log)
        return "alert_log and alert_text_log are one file: each needs its own";
    if (settings.log_size != 0 && settings.log_size < least_log_size)
        return "alert_log_size is " + std::to_string(settings.log_size) +
               ": at least 1M, or 0 for no rotation by size";
    if (settings.log_files < 1 || settings.log_files >= MAX_CYCLIC_ROTATIONS)
        return "alert_log_files is " + std::to_string(settings.log_files) + ": 1 to " +
               std::to_string(MAX_CYCLIC_ROTATIONS - 1);
    return {};
}

std::string source_tag(std::string_view name) {
    std::string tag;
    while (!name.empty()) {
        const std::size_t length = utf8_length(name);
        std::string_view character = name.substr(0, length);
        name.remove_prefix(length == 0 ? 1 : length);
        if (length == 0 || character == " " || is_control(character))
            character = "_";
        if (tag.size() + character.size() >= MAX_STAG_LEN)
            break;
        tag += character;
    }
    return tag.empty() ? "_" : tag;
}

} // namespace quarn::live
