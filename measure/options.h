// What a Stream is told: profile, limits, and what the verdict takes into account.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "expectation.h"
#include "finding.h"

namespace quarn {

/// Which set of limits. dvb: TR 101 290 with 100 ms for PCRs. strict: 40 ms. segment: pieces of HLS
/// and the like, no repetition of PAT and PMT, no 2.3.a, no 2.5. tr101290: dvb, and a 2.3.b beside
/// each gap of PCRs as the letter of the report has it.
enum class Profile : std::uint8_t { dvb, strict, segment, tr101290 };

/// Limits, each in 27 MHz ticks.
struct Limits {
    Ticks pat = 500 * ticks_per_ms;                 // 1.3.a
    Ticks pmt = 500 * ticks_per_ms;                 // 1.5.a
    Ticks pid_never = ticks_per_second;             // 1.6.never
    Ticks pid_stopped = ticks_per_second;           // 1.6.stopped
    Ticks pid_no_pcr = ticks_per_second;            // 1.6.no_pcr
    Ticks pcr_gap = 100 * ticks_per_ms;             // 2.3.a
    double pcr_accuracy_ns = 500;                   // 2.4, nanoseconds
    Ticks pts = 700 * ticks_per_ms;                 // 2.5
    Ticks cat = ticks_per_second;                   // 2.6
    Ticks nit_actual = 10 * ticks_per_second;       // 3.1.a
    Ticks nit_other = 10 * ticks_per_second;        // 3.1.b
    Ticks bat = 10 * ticks_per_second;              // 3.2.bat
    Ticks tot = 30 * ticks_per_second;              // 3.2.tot
    Ticks eit_schedule = 10 * ticks_per_second;     // 3.2.eit: 0x50, 0x51, 0x60, 0x61
    Ticks eit_schedule_far = 30 * ticks_per_second; // 3.2.eit_far: the other ids of schedules
    Ticks unreferenced = 500 * ticks_per_ms;        // 3.4.a
    Ticks sdt_actual = 2 * ticks_per_second;        // 3.5.a
    Ticks sdt_other = 10 * ticks_per_second;        // 3.5.b
    Ticks eit_actual = 2 * ticks_per_second;        // 3.6.a
    Ticks eit_other = 10 * ticks_per_second;        // 3.6.b
    Ticks eit_pf = 2 * ticks_per_second;            // 3.6.c
    Ticks eit_pf_other = 10 * ticks_per_second;     // 3.6.c_other
    Ticks tdt = 30 * ticks_per_second;              // 3.8
    Ticks too_fast = 25 * ticks_per_ms;             // too_fast: tables of SI
    Ticks stamp_step = 40 * ticks_per_ms;           // q.2
    Ticks stamp_order = 10 * ticks_per_second;      // q.3
    Ticks off_air = 300 * ticks_per_ms;             // q.9

    bool operator==(const Limits&) const = default;
};

/// Live: an input that nothing has come from for longer than that is away (q.9). At least 2 s.
Ticks silence_limit(const Limits& limits);

/// The limits of a profile.
Limits limits_of(Profile profile);

/// Sets one limit by its name ("1.3.a", "1.6.stopped", "too_fast") to a value with its unit
/// ("500ms", "1s", "500ns"). Returns an empty text, or what is wrong and what would be right.
std::string set_limit(Limits& limits, std::string_view name, std::string_view value);

/// All names that set_limit() knows.
std::vector<std::string_view> limit_names();

struct Options {
    Profile profile = Profile::dvb;
    Limits limits;             // start from limits_of(profile)
    std::uint64_t bitrate = 0; // bits a second, the clock where there is no other; 0: none
    bool live = false; // intervals are told when they begin, and the host calls Stream::tick()
    bool dvb = false;  // judge all rows on SI tables, also those never seen
    std::optional<std::uint16_t> program; // findings and verdict of this program only
    std::set<Rule> ignore;                // neither found nor judged
    std::set<Rule> require;               // insufficient where not judged `yes`
    Severity fail_on = Severity::error;   // the least severity that makes `failed`
    bool series = false;                  // keep what Stream::series() gives
    bool observe = false;                 // keep what Stream::observed() gives
    SharedExpectation expect;             // what the input is held against besides (q.11)

    bool operator==(const Options&) const = default;
};

} // namespace quarn
