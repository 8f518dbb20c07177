#include "config_file.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "config_text.h"
#include "nearest.h"

namespace quarn::settings {

namespace {

bool is_number(int type) {
    return type == CONFIG_TYPE_INT || type == CONFIG_TYPE_INT64;
}

std::string plain(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

} // namespace

WrongValue Group::wrong(const char* key, const std::string& why) const {
    const config_setting_t* at = key ? config_setting_get_member(setting_, key) : nullptr;
    if (!at)
        at = setting_;
    const char* const file = config_setting_source_file(at);
    std::string text = file ? file : file_;
    text += ", line " + std::to_string(config_setting_source_line(at));
    std::string name = path_ + (key ? key : "");
    if (!key && !name.empty())
        name.pop_back();
    return WrongValue(text + (name.empty() ? "" : ", " + name) + ": " + why);
}

config_setting_t* Group::get(const char* key) const {
    return config_setting_get_member(setting_, key);
}

std::string Group::text_of(config_setting_t* setting, const char* key) const {
    if (config_setting_type(setting) != CONFIG_TYPE_STRING)
        throw wrong(key, "must be a text in quotes");
    return config_setting_get_string(setting);
}

std::optional<std::string> Group::text(const char* key) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    return text_of(setting, key);
}

std::optional<bool> Group::flag(const char* key) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    if (config_setting_type(setting) != CONFIG_TYPE_BOOL)
        throw wrong(key, "must be true or false");
    return config_setting_get_bool(setting) != 0;
}

std::optional<std::int64_t> Group::number(const char* key, std::int64_t least,
                                          std::int64_t most) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    const std::int64_t value =
        is_number(config_setting_type(setting)) ? config_setting_get_int64(setting) : least - 1;
    if (value < least || value > most)
        throw wrong(key, "must be a whole number from " + std::to_string(least) + " to " +
                             std::to_string(most));
    return value;
}

std::optional<double> Group::amount(const char* key, double least, double most) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    const int type = config_setting_type(setting);
    const double value = type == CONFIG_TYPE_FLOAT ? config_setting_get_float(setting)
                         : is_number(type) ? static_cast<double>(config_setting_get_int64(setting))
                                           : NAN;
    if (!(value >= least && value <= most))
        throw wrong(key, "must be a number from " + plain(least) + " to " + plain(most));
    return value;
}

std::optional<std::vector<std::string>> Group::texts(const char* key) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    const int type = config_setting_type(setting);
    std::vector<std::string> all;
    if (type != CONFIG_TYPE_LIST && type != CONFIG_TYPE_ARRAY) {
        all.push_back(text_of(setting, key));
        return all;
    }
    for (int i = 0; i < config_setting_length(setting); ++i)
        all.push_back(text_of(config_setting_get_elem(setting, static_cast<unsigned>(i)), key));
    return all;
}

std::optional<Group> Group::group(const char* key) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    if (config_setting_type(setting) != CONFIG_TYPE_GROUP)
        throw wrong(key, "must be a group: " + std::string(key) + " = { ... };");
    return Group(setting, file_, path_ + key + ".");
}

std::optional<std::vector<Group>> Group::groups(const char* key) const {
    config_setting_t* const setting = get(key);
    if (!setting)
        return std::nullopt;
    const std::string right = "must be a list of groups: " + std::string(key) + " = ( { ... } );";
    if (config_setting_type(setting) != CONFIG_TYPE_LIST)
        throw wrong(key, right);
    std::vector<Group> all;
    for (int i = 0; i < config_setting_length(setting); ++i) {
        config_setting_t* const one = config_setting_get_elem(setting, static_cast<unsigned>(i));
        if (config_setting_type(one) != CONFIG_TYPE_GROUP)
            throw wrong(key, right);
        all.emplace_back(one, file_, path_ + key + "[" + std::to_string(i + 1) + "].");
    }
    return all;
}

void Group::only(const std::vector<const char*>& keys) const {
    for (int i = 0; i < config_setting_length(setting_); ++i) {
        const char* const name =
            config_setting_name(config_setting_get_elem(setting_, static_cast<unsigned>(i)));
        if (std::any_of(keys.begin(), keys.end(),
                        [&](const char* key) { return std::strcmp(key, name) == 0; }))
            continue;
        const std::vector<std::string> known(keys.begin(), keys.end());
        const std::vector<std::string> near = nearest(name, known);
        throw wrong(name, near.empty()
                              ? "there is no such key; there are " + joined(known)
                              : "there is no such key; did you mean " + joined(near) + "?");
    }
}

void ConfigFile::Destroy::operator()(config_t* config) const {
    config_destroy(config);
    delete config;
}

ConfigFile::ConfigFile(const std::string& path) : path_(path) {
    std::string text = config_text(path);
    const auto lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    text += '\n'; // libconfig takes a comment for one only when its line ends
    auto* const config = new config_t;
    config_init(config);
    config_.reset(config);
    if (config_read_string(config, text.c_str()) != CONFIG_TRUE) {
        const char* const file = config_error_file(config);
        const int line =
            file ? config_error_line(config) : std::min(config_error_line(config), lines);
        const bool comma = !file && comma_before_closing(text, line);
        throw WrongValue(
            (file ? file : path) + ", line " + std::to_string(line) + ": " +
            (comma ? "no comma may stand before the closing ) or ]" : config_error_text(config)));
    }
}

Group ConfigFile::root() const {
    return {config_root_setting(config_.get()), path_, ""};
}

} // namespace quarn::settings
