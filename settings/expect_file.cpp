#include "expect_file.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>

#include "config_file.h"
#include "nearest.h"
#include "reports/text.h"

namespace quarn::settings {

namespace {

constexpr std::int64_t highest_pid = 0x1FFE;
constexpr std::int64_t highest_bitrate = Range::highest_bitrate;
constexpr Ticks shortest_interval = ticks_per_ms;
constexpr Ticks longest_mean = 3600 * ticks_per_second;
constexpr Ticks shortest_mean = ticks_per_second / 10;
constexpr std::size_t longest_name = 252; // a service descriptor has no room for more
constexpr std::size_t most_words = 64;
constexpr std::int64_t reserved_pids = 0x10; // of tables; no PMT, PCR or stream is there
constexpr std::string_view any = "any";

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' '))
        text.remove_prefix(1);
    while (text.ends_with(' '))
        text.remove_suffix(1);
    return text;
}

const config_setting_t* member(const Group& group, const char* key) {
    return config_setting_get_member(group.setting(), key);
}

bool is_number(const config_setting_t* setting) {
    const int type = config_setting_type(setting);
    return type == CONFIG_TYPE_INT || type == CONFIG_TYPE_INT64;
}

/// A number with one of the units at its end; nothing where it is none. Below 0 there is none.
struct Unit {
    std::string_view word;
    double factor;
};
template <std::size_t N>
std::optional<std::int64_t> with_unit(std::string_view text, const Unit (&units)[N], double most) {
    double value = 0;
    text = trimmed(text);
    const auto [rest, wrong] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (wrong != std::errc{})
        return std::nullopt;
    const std::string_view unit =
        trimmed(text.substr(static_cast<std::size_t>(rest - text.data())));
    for (const Unit& u : units)
        if (u.word == unit && value >= 0 && value * u.factor <= most)
            return std::llround(value * u.factor);
    return std::nullopt;
}

constexpr Unit rate_units[] = {{"", 1}, {"k", 1e3}, {"M", 1e6}, {"G", 1e9}};
constexpr Unit time_units[] = {{"ms", ticks_per_ms}, {"s", ticks_per_second}};

/// What a kind of range is read by and described with.
struct Scale {
    std::optional<std::int64_t> (*number)(std::string_view);
    std::int64_t least;
    std::int64_t most;
    const char* right;
};

std::optional<std::int64_t> whole_number(std::string_view text) {
    text = trimmed(text);
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(hex ? 2 : 0);
    std::int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, value, hex ? 16 : 10);
    return wrong == std::errc{} && rest == end ? std::optional(value) : std::nullopt;
}

constexpr Scale pids = {whole_number, 0, highest_pid,
                        "must be a pid from 0 to 8190, a range such as \"256-300\", or \"any\""};
constexpr Scale bitrates = {
    [](std::string_view text) {
        return with_unit(text, rate_units, static_cast<double>(highest_bitrate));
    },
    0, highest_bitrate,
    "must be a range of bits a second such as \"2M-3.5M\", \"500k-\" or \"-4M\", or \"any\""};

std::optional<Range> parsed(std::string_view text, const Scale& scale) {
    const std::size_t dash = text.find('-');
    const auto number = [&](std::string_view part, std::int64_t without) {
        return trimmed(part).empty() ? std::optional(without) : scale.number(part);
    };
    if (trimmed(text) == "-" || trimmed(text).empty())
        return std::nullopt;
    const auto least = number(text.substr(0, dash), 0);
    const auto most =
        dash == std::string_view::npos ? least : number(text.substr(dash + 1), Range::no_end);
    if (!least || !most || *least > *most || *least < scale.least || *least > scale.most ||
        (*most != Range::no_end && *most > scale.most))
        return std::nullopt;
    return Range{*least, *most};
}

Range range(const Group& group, const char* key, const Scale& scale) {
    const config_setting_t* const setting = member(group, key);
    if (setting == nullptr)
        return {};
    if (is_number(setting)) {
        const std::int64_t value = config_setting_get_int64(setting);
        if (value >= scale.least && value <= scale.most)
            return {value, value};
        throw group.wrong(key, scale.right);
    }
    if (config_setting_type(setting) != CONFIG_TYPE_STRING)
        throw group.wrong(key, scale.right);
    const std::string_view text = config_setting_get_string(setting);
    if (text == any)
        return {};
    const auto is = parsed(text, scale);
    if (!is)
        throw group.wrong(key, in_quotes(text) + " " + scale.right);
    return *is;
}

/// Of streams and of what belongs to a service: "-5" is nobody's, and was meant to be a number.
Range pid_range(const Group& group, const char* key) {
    const Range is = range(group, key, pids);
    if (is.least == 0 && is.most < reserved_pids && !is.one())
        throw group.wrong(key, in_quotes(config_setting_get_string(member(group, key))) + " " +
                                   pids.right + "; below 16 there are only tables");
    return is;
}

/// A mean over some seconds is never the same twice.
Range bitrate_range(const Group& group, const char* key) {
    const Range is = range(group, key, bitrates);
    if (is.one() && is.least > 0)
        throw group.wrong(key, "is one exact rate, which no stream keeps; " +
                                   std::string(bitrates.right));
    return is;
}

/// 0: any.
Ticks interval(const Group& group, const char* key, Ticks least, Ticks most) {
    const auto text = group.text(key);
    if (!text || *text == any)
        return 0;
    const auto ticks = with_unit(*text, time_units, static_cast<double>(most));
    if (!ticks || *ticks < least)
        throw group.wrong(key, in_quotes(*text) + " must be a time such as \"500 ms\" or \"2 s\"" +
                                   ", from " + std::to_string(least / ticks_per_ms) + " ms to " +
                                   std::to_string(most / ticks_per_second) + " s, or \"any\"");
    return *ticks;
}
Ticks interval(const Group& group, const char* key) {
    return interval(group, key, shortest_interval, Expectation::longest_interval);
}

/// Words of which one must be there; none: any.
std::vector<std::string> words(const Group& group, const char* key) {
    const auto given = group.texts(key);
    if (given && (given->empty() || given->size() > most_words))
        throw group.wrong(key, "has " + std::to_string(given->size()) + " words; give one to " +
                                   std::to_string(most_words) + ", or \"any\"");
    auto texts = given.value_or(std::vector<std::string>{});
    if (std::find(texts.begin(), texts.end(), any) != texts.end())
        texts.clear();
    return texts;
}

/// Of a service: as an SDT can have it.
std::vector<std::string> names(const Group& group, const char* key) {
    std::vector<std::string> all = words(group, key);
    for (const std::string& name : all) {
        if (printable(name) != name)
            throw group.wrong(key, in_quotes(printable(name)) +
                                       " must be UTF-8 without control characters");
        if (columns(name) > longest_name)
            throw group.wrong(key, "has " + std::to_string(columns(name)) +
                                       " characters; names of services have at most " +
                                       std::to_string(longest_name));
    }
    return all;
}

/// In small letters; "none" is empty.
std::vector<std::string> languages(const Group& group, const char* key) {
    constexpr std::size_t letters = 3;
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    std::vector<std::string> all = words(group, key);
    for (std::string& language : all) {
        if (language == "none") {
            language.clear();
            continue;
        }
        if (language.size() != letters || !std::all_of(language.begin(), language.end(), is_letter))
            throw group.wrong(key,
                              in_quotes(printable(language)) +
                                  " must be the three letters of a language (ISO 639), such "
                                  "as \"deu\", \"none\" or \"any\"; several stand in brackets: "
                                  "[\"deu\", \"eng\"]");
        for (char& c : language)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return all;
}

template <class E>
std::vector<E> closed_words(const Group& group, const char* key, int last) {
    std::vector<std::string> known;
    for (int i = 0; i <= last; ++i)
        known.emplace_back(word(static_cast<E>(i)));
    std::vector<E> found;
    for (const std::string& text : words(group, key)) {
        const auto at = std::find(known.begin(), known.end(), text);
        if (at == known.end()) {
            const auto near = nearest(text, known);
            throw group.wrong(key,
                              in_quotes(text) + " is none of " + joined(known) +
                                  (near.empty() ? "" : "; did you mean " + joined(near) + "?"));
        }
        found.push_back(static_cast<E>(at - known.begin()));
    }
    return found;
}

/// A key that is one of two words, or "any"; nothing then.
std::optional<bool> either(const Group& group, const char* key, std::string_view yes,
                           std::string_view no) {
    const auto text = group.text(key);
    if (!text || *text == any)
        return std::nullopt;
    if (*text != yes && *text != no)
        throw group.wrong(key, in_quotes(*text) + " must be " + in_quotes(yes) + ", " +
                                   in_quotes(no) + " or \"any\"");
    return *text == yes;
}

std::optional<bool> flag_or_any(const Group& group, const char* key) {
    const config_setting_t* const setting = member(group, key);
    if (setting == nullptr)
        return std::nullopt;
    if (config_setting_type(setting) == CONFIG_TYPE_BOOL)
        return config_setting_get_bool(setting) != 0;
    if (config_setting_type(setting) == CONFIG_TYPE_STRING &&
        config_setting_get_string(setting) == any)
        return std::nullopt;
    throw group.wrong(key, "must be true, false or \"any\"");
}

bool others(const Group& group, const char* key) {
    const auto text = group.text(key);
    if (text && *text != any && *text != "none")
        throw group.wrong(key, in_quotes(*text) + " must be \"any\" or \"none\"");
    return !text || *text == any;
}

/// More than any stream has are a mistake.
const std::vector<Group>& few(const std::vector<Group>& all, const Group& in, const char* key) {
    constexpr std::size_t most = 1024;
    if (all.size() > most)
        throw in.wrong(key, "has " + std::to_string(all.size()) + " entries; at most " +
                                std::to_string(most) + " are taken");
    return all;
}

Expectation::Stream read_stream(const Group& group) {
    group.only({"pid", "kind", "codec", "language", "scrambled", "bitrate", "optional"});
    Expectation::Stream s;
    s.pid = pid_range(group, "pid");
    s.kinds = closed_words<StreamKind>(group, "kind", static_cast<int>(StreamKind::unknown));
    s.codecs = closed_words<Codec>(group, "codec", static_cast<int>(Codec::private_data));
    s.languages = languages(group, "language");
    s.scrambled = flag_or_any(group, "scrambled");
    s.bitrate = bitrate_range(group, "bitrate");
    s.optional = group.flag("optional").value_or(false);
    if (s == Expectation::Stream{})
        throw group.wrong(nullptr, "says nothing; give a pid, a kind or a language");
    return s;
}

Expectation::Service read_service(const Group& group) {
    group.only({"number", "name", "pmt_pid", "pmt_interval", "pcr_pid", "bitrate", "streams",
                "other_streams", "optional"});
    Expectation::Service s;
    const auto number = group.number("number", 1, 65535);
    if (!number)
        throw group.wrong(nullptr, "has no number, such as number = 1;");
    s.number = static_cast<std::uint16_t>(*number);
    s.names = names(group, "name");
    s.pmt_pid = pid_range(group, "pmt_pid");
    s.pmt_interval = interval(group, "pmt_interval");
    s.pcr_pid = pid_range(group, "pcr_pid");
    s.bitrate = bitrate_range(group, "bitrate");
    s.other_streams = others(group, "other_streams");
    s.optional = group.flag("optional").value_or(false);
    if (const auto streams = group.groups("streams"))
        for (const Group& stream : few(*streams, group, "streams"))
            s.streams.push_back(read_stream(stream));
    return s;
}

Expectation::Table read_table(const Group& group) {
    group.only({"table_id", "pid", "interval", "optional"});
    Expectation::Table t;
    const auto id = group.number("table_id", 0, 255);
    if (!id)
        throw group.wrong(nullptr, "has no table_id, such as table_id = 0x42;");
    t.id = static_cast<std::uint8_t>(*id);
    t.pid = range(group, "pid", pids);
    t.interval = interval(group, "interval");
    t.optional = group.flag("optional").value_or(false);
    return t;
}

} // namespace

Expectation read_expectation(const std::string& path) {
    const ConfigFile file(path);
    const Group root = file.root();
    root.only({"services", "other_services", "tables", "bitrate", "bitrate_over", "rate"});
    Expectation e;
    std::set<std::uint16_t> numbers;
    if (const auto services = root.groups("services"))
        for (const Group& group : few(*services, root, "services")) {
            e.services.push_back(read_service(group));
            if (!numbers.insert(e.services.back().number).second)
                throw group.wrong("number", "there is a service " +
                                                std::to_string(e.services.back().number) +
                                                " already; give each number once");
        }
    e.other_services = others(root, "other_services");
    if (const auto tables = root.groups("tables"))
        for (const Group& group : few(*tables, root, "tables"))
            e.tables.push_back(read_table(group));
    e.bitrate = bitrate_range(root, "bitrate");
    const Ticks over = interval(root, "bitrate_over", shortest_mean, longest_mean);
    if (over > 0)
        e.bitrate_over = over;
    e.constant_rate = either(root, "rate", "constant", "variable");
    if (e == Expectation{})
        throw WrongValue(path + ": says nothing; list services, tables or a bitrate");
    return e;
}

} // namespace quarn::settings
