#include "live/analyzer_settings.h"

#include <climits>
#include <optional>
#include <vector>

#include <libconfig.h>

#include "live/ring.h"
#include "log.h"
#include "reports/text.h"
#include "strops.h"

namespace quarn::live {
namespace {

using settings::Group;
using settings::WrongValue;

constexpr const char* sizes[] = {"max_skipped_pkts", "max_pdts_delta_ms", "max_pcr_delta_ms",
                                 "pcr_freq_ms",      "dump_stats_period", "max_ndat_pcount"};
constexpr const char* flags[] = {"enabled",     "access_log_alerts", "sdt_ignore",
                                 "misc_ignore", "pdts_update",       "pat_pmt_pkt",
                                 "pcr_update",  "pmt_diff",          "pat_diff"};
constexpr std::size_t longest_tag = MAX_STAG_LEN - 2;

/// Two rotations within a second would share one name, so there must be room for a second's lines.
constexpr std::size_t least_log_size = 1 << 20;
/// A rotated log has a dot and the Unix time behind its name.
constexpr std::size_t longest_log_path = LOG_PATHNAME_MAX - 1 - sizeof(".1234567890");

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

namespace {

void check_size(const Group& group, const char* key) {
    const config_setting_t* const size = config_setting_get_member(group.setting(), key);
    if (size == nullptr || config_setting_is_number(size) == CONFIG_TRUE)
        if (size == nullptr || config_setting_type(size) != CONFIG_TYPE_FLOAT)
            return;
    std::size_t value = 0;
    if (config_setting_type(size) != CONFIG_TYPE_STRING ||
        a2size(config_setting_get_string(size), &value) != 0)
        throw group.wrong(key, "must be a whole number, or a text with K, M or G, such as \"10K\"");
}

/// What the analyzer itself cannot use, with the key.
void check_values(const Group& group) {
    for (const char* const key : sizes)
        check_size(group, key);
    if (const auto tag = group.text("source_tag"); tag && tag->size() > longest_tag)
        throw group.wrong("source_tag", "has over " + std::to_string(longest_tag) + " characters");
}

/// What it would pass over.
void check_keys(const Group& group) {
    std::vector<const char*> known = {"source_tag", "cc", "track"};
    known.insert(known.end(), std::begin(sizes), std::end(sizes));
    known.insert(known.end(), std::begin(flags), std::end(flags));
    group.only(known);
    for (const char* const key : flags)
        group.flag(key);
    const config_setting_t* const cc = config_setting_get_member(group.setting(), "cc");
    if (cc == nullptr || config_setting_type(cc) == CONFIG_TYPE_BOOL)
        return;
    const Group counters = group.group("cc").value();
    counters.only({"track", "max_zreset_time"});
    counters.flag("track");
    counters.number("max_zreset_time", INT_MIN, INT_MAX);
}

void load(const Group& group, tsan_config& cfg) {
    check_values(group);
    if (tsan_load_config(group.setting(), &cfg) != 0)
        throw group.wrong(nullptr, "the analyzer cannot use it");
    if (!cfg.is_enabled)
        throw group.wrong("enabled", "the analyzer is off there: it must be true");
}

} // namespace

void load_analyzer_group(const Group& group, tsan_config& cfg) {
    check_keys(group);
    if (config_setting_get_member(group.setting(), "enabled") == nullptr)
        config_setting_set_bool(config_setting_add(group.setting(), "enabled", CONFIG_TYPE_BOOL),
                                CONFIG_TRUE);
    load(group, cfg);
}

void load_analyzer_file(const std::string& path, tsan_config& cfg) {
    const settings::ConfigFile file(path);
    const auto zbn = file.root().group("zbn");
    const auto group = zbn ? zbn->group("stream_analyzer") : std::nullopt;
    if (!group)
        throw WrongValue(path + ": there is no group zbn.stream_analyzer");
    if (config_setting_get_member(group->setting(), "enabled") == nullptr)
        throw group->wrong(nullptr, "the analyzer is off there: enabled = true is missing");
    load(*group, cfg);
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
