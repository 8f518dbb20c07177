// The limits of the profiles, and limits set by name.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "options.h"

namespace quarn {

namespace {

struct Unit {
    std::string_view word;
    double ns;
};
constexpr std::array units = std::to_array<Unit>({{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}});

constexpr double longest_ns = 3600e9;

/// A limit that can be named; those in ticks are at least one tick, 2.4 is in nanoseconds.
struct Named {
    std::string_view name;
    Ticks Limits::*ticks;
};
constexpr std::array named = std::to_array<Named>({
    {"1.3.a", &Limits::pat},
    {"1.5.a", &Limits::pmt},
    {"1.6.never", &Limits::pid_never},
    {"1.6.stopped", &Limits::pid_stopped},
    {"1.6.no_pcr", &Limits::pid_no_pcr},
    {"2.3.a", &Limits::pcr_gap},
    {"2.4", nullptr},
    {"2.5", &Limits::pts},
    {"2.6", &Limits::cat},
    {"3.1.a", &Limits::nit_actual},
    {"3.1.b", &Limits::nit_other},
    {"3.2.bat", &Limits::bat},
    {"3.2.tot", &Limits::tot},
    {"3.2.eit", &Limits::eit_schedule},
    {"3.2.eit_far", &Limits::eit_schedule_far},
    {"3.4.a", &Limits::unreferenced},
    {"3.5.a", &Limits::sdt_actual},
    {"3.5.b", &Limits::sdt_other},
    {"3.6.a", &Limits::eit_actual},
    {"3.6.b", &Limits::eit_other},
    {"3.6.c", &Limits::eit_pf},
    {"3.6.c_other", &Limits::eit_pf_other},
    {"3.8", &Limits::tdt},
    {"too_fast", &Limits::too_fast},
    {"q.2", &Limits::stamp_step},
    {"q.3", &Limits::stamp_order},
    {"q.9", &Limits::off_air},
});

std::string alternatives(std::string_view name) {
    // A rule with several limits is the likeliest slip: then only its own are named.
    std::string own;
    std::string all;
    for (const Named& row : named) {
        const std::string item = (all.empty() ? "" : ", ") + std::string(row.name);
        all += item;
        if (row.name.starts_with(std::string(name) + "."))
            own += own.empty() ? std::string(row.name) : item;
    }
    return own.empty() ? all : own;
}

/// Nanoseconds of "500ms"; nothing if it is no such thing.
std::optional<double> parse(std::string_view text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (wrong != std::errc{})
        return std::nullopt;
    const std::string_view word(rest, static_cast<std::size_t>(end - rest));
    const auto unit =
        std::find_if(units.begin(), units.end(), [&](const Unit& u) { return u.word == word; });
    if (unit == units.end())
        return std::nullopt;
    return number * unit->ns;
}

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

} // namespace

Limits limits_of(Profile profile) {
    Limits limits;
    if (profile == Profile::strict)
        limits.pcr_gap = 40 * ticks_per_ms;
    return limits;
}

Ticks silence_limit(const Limits& limits) {
    return std::max(2 * ticks_per_second, limits.off_air);
}

std::string set_limit(Limits& limits, std::string_view name, std::string_view value) {
    const auto row =
        std::find_if(named.begin(), named.end(), [&](const Named& r) { return r.name == name; });
    if (row == named.end())
        return "there is no limit " + quoted(name) + "; there are " + alternatives(name);
    const std::optional<double> ns = parse(value);
    if (!ns)
        return quoted(value) + " is no limit for " + std::string(name) +
               "; a number with ns, us, ms or s is, such as 500ms";
    constexpr double ns_per_tick = 1e9 / static_cast<double>(ticks_per_second);
    const double least = row->ticks ? ns_per_tick : 1;
    if (!(*ns >= least && *ns <= longest_ns))
        return quoted(value) + " is no limit for " + std::string(name) + "; " +
               (row->ticks ? "38ns" : "1ns") + " to 3600s are";
    if (row->ticks)
        limits.*row->ticks = std::llround(*ns / ns_per_tick);
    else
        limits.pcr_accuracy_ns = *ns;
    return {};
}

std::vector<std::string_view> limit_names() {
    std::vector<std::string_view> names;
    names.reserve(std::size(named));
    for (const Named& row : named)
        names.push_back(row.name);
    return names;
}

} // namespace quarn
