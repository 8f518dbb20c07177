#include "words.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

#include "nearest.h"
#include "reports/words.h"

namespace quarn::settings {

namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

/// The enumerator with that word.
template <class E, std::size_t N>
E one_of(std::string_view text, const std::array<E, N>& all) {
    for (const E e : all)
        if (word(e) == text)
            return e;
    throw WrongValue(in_quotes(text) + " is none of " + joined(all, [](E e) { return word(e); }));
}

/// "1K", "200M", "17".
std::string size_text(std::uint64_t bytes) {
    constexpr std::string_view units = "KMG";
    std::string unit;
    for (const char next : units) {
        if (bytes == 0 || bytes % 1024 != 0)
            break;
        bytes /= 1024;
        unit = next;
    }
    return std::to_string(bytes) + unit;
}

std::string short_text(double number) {
    std::array<char, 32> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return {text.data(), end};
}

} // namespace

std::string in_quotes(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

std::string joined(const std::vector<std::string>& words) {
    return joined(words, [](const std::string& word) { return word; });
}

Rule rule_of(std::string_view text) {
    const std::string wanted = lower(text);
    for (const RuleInfo& row : rule_table)
        for (const std::string_view own : {row.id, row.name})
            if (lower(own) == wanted)
                return row.rule;
    std::vector<std::string> near;
    std::vector<std::string> names;
    for (const RuleInfo& row : rule_table) {
        if (!text.empty() && row.id.starts_with(wanted + "."))
            near.emplace_back(row.id);
        names.emplace_back(row.name);
    }
    if (near.empty())
        near = nearest(text, names);
    throw WrongValue(
        "there is no rule " + in_quotes(text) +
        (near.empty()
             ? "; there are " + joined(rule_table, [](const RuleInfo& row) { return row.id; })
             : "; did you mean " + joined(near) + "?"));
}

void add_rules(std::string_view ids, std::set<Rule>& rules) {
    for (;;) {
        const std::size_t comma = ids.find(',');
        rules.insert(rule_of(ids.substr(0, comma)));
        if (comma == std::string_view::npos)
            return;
        ids.remove_prefix(comma + 1);
    }
}

Profile profile_of(std::string_view text) {
    return one_of(text,
                  std::array{Profile::dvb, Profile::strict, Profile::segment, Profile::tr101290});
}

Severity least_severity_of(std::string_view text) {
    return one_of(text, std::array{Severity::error, Severity::warning});
}

std::uint64_t size_of(std::string_view text, std::uint64_t least, std::uint64_t most) {
    constexpr std::string_view units = "KMG";
    constexpr unsigned bits_a_unit = 10;
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, value);
    const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    const std::size_t power = unit.empty() ? 0 : units.find(unit) + 1;
    const bool known = wrong == std::errc{} && unit.size() <= 1 && (unit.empty() || power > 0);
    const auto bits = static_cast<unsigned>(power) * bits_a_unit;
    if (!known || value > most >> bits || value << bits < least)
        throw WrongValue(in_quotes(text) + " is no size from " + size_text(least) + " to " +
                         size_text(most) + ", such as 200M");
    return value << bits;
}

double seconds_of(std::string_view text, double least, double most) {
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, value);
    if (wrong != std::errc{} || rest != end || !(value >= least && value <= most))
        throw WrongValue(in_quotes(text) + " is no number of seconds from " + short_text(least) +
                         " to " + short_text(most));
    return value;
}

void set_limit_of(std::string_view text, Limits& limits) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw WrongValue(in_quotes(text) + " is not of the form NAME=VALUE, such as 1.3.a=500ms");
    if (const std::string wrong =
            set_limit(limits, text.substr(0, equals), text.substr(equals + 1));
        !wrong.empty())
        throw WrongValue(wrong);
}

void check_rules(const Options& options) {
    for (const Rule rule : options.require)
        if (options.ignore.count(rule))
            throw WrongValue(std::string(info(rule).id) + " is ignored as well");
}

} // namespace quarn::settings
