// Configuration files: libconfig's format, and mistakes named by file, line and key.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <libconfig.h>

#include "words.h"

namespace quarn::settings {

/// A group of settings in a file that is open; valid as long as that.
///
/// Getters return nothing for a key that is not there, and throw WrongValue for a value that they
/// cannot take: "FILE, line 12, http: ...".
class Group {
  public:
    Group(config_setting_t* setting, std::string file, std::string path)
        : setting_(setting), file_(std::move(file)), path_(std::move(path)) {}

    std::optional<std::string> text(const char* key) const;
    std::optional<bool> flag(const char* key) const;
    std::optional<std::int64_t> number(const char* key, std::int64_t least,
                                       std::int64_t most) const;
    /// Whole or with a fraction.
    std::optional<double> amount(const char* key, double least, double most) const;
    /// A list or an array of texts; a lone text is a list of one.
    std::optional<std::vector<std::string>> texts(const char* key) const;
    /// A group.
    std::optional<Group> group(const char* key) const;
    /// A list of groups.
    std::optional<std::vector<Group>> groups(const char* key) const;

    /// Refuses keys that are none of these, with what may have been meant.
    void only(const std::vector<const char*>& keys) const;
    /// Runs `take`, and names the key when it throws WrongValue.
    template <class F>
    auto taken(const char* key, F&& take) const {
        try {
            return take();
        } catch (const WrongValue& why) {
            throw wrong(key, why.what());
        }
    }
    /// The complaint about the value of a key, or about the group itself (null).
    WrongValue wrong(const char* key, const std::string& why) const;

    /// For libraries that read their part of a file themselves.
    config_setting_t* setting() const { return setting_; }

  private:
    config_setting_t* get(const char* key) const;
    std::string text_of(config_setting_t* setting, const char* key) const;

    config_setting_t* setting_;
    std::string file_; // where what is not included stands
    std::string path_; // "inputs[3].": what keys are named with
};

class ConfigFile {
  public:
    /// Reads it, once and to its end. Throws WrongValue, with the line, when that cannot be done.
    explicit ConfigFile(const std::string& path);

    Group root() const;

  private:
    std::string path_;
    struct Destroy {
        void operator()(config_t* config) const;
    };
    std::unique_ptr<config_t, Destroy> config_;
};

} // namespace quarn::settings
