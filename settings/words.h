// Values as people write them, on a command line or in a configuration file: rules, limits,
// numbers.
#pragma once

#include <charconv>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

#include "measure/options.h"
#include "measure/rules.h"

namespace quarn::settings {

/// A value that cannot be taken. what() says which one it is and what would be right.
class WrongValue : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::string in_quotes(std::string_view text);

/// "a, b, c": the names of all items.
template <class List, class Name>
std::string joined(const List& list, Name name) {
    std::string text;
    for (const auto& item : list)
        text += (text.empty() ? "" : ", ") + std::string(name(item));
    return text;
}
std::string joined(const std::vector<std::string>& words);

/// The rule with that number or name, in small letters or capitals. Throws WrongValue.
Rule rule_of(std::string_view text);
/// Adds the rules of a list such as "1.4,2.3.a". Throws WrongValue.
void add_rules(std::string_view ids, std::set<Rule>& rules);

/// Throws WrongValue.
Profile profile_of(std::string_view text);
Severity least_severity_of(std::string_view text); // error or warning

/// Sets the limit of a text such as "1.3.a=500ms". Throws WrongValue.
void set_limit_of(std::string_view text, Limits& limits);

/// Throws WrongValue if no rule may be both.
void check_rules(const Options& options);

/// A number of bytes such as "200M", with K, M or G for 1024 and its powers. Throws WrongValue.
std::uint64_t size_of(std::string_view text, std::uint64_t least, std::uint64_t most);
/// Seconds, with or without a fraction. Throws WrongValue.
double seconds_of(std::string_view text, double least, double most);

/// A whole number from `least` to `most`. Throws WrongValue.
template <class T>
T number(std::string_view text, T least, T most) {
    T value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, value);
    if (wrong != std::errc{} || rest != end || value < least || value > most)
        throw WrongValue(in_quotes(text) + " is no whole number from " + std::to_string(least) +
                         " to " + std::to_string(most));
    return value;
}

} // namespace quarn::settings
