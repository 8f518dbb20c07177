// What there is in an input beside its summary: how often tables come, which bit rates there are.
// Enough to expect the same of another one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "expectation.h"
#include "summary.h"

namespace quarn {

/// With Options::observe.
struct Observed {
    struct Table {
        Ticks longest = 0;         // from one section to the next, or an end of the input
        std::uint64_t count = 0;   // sections
        std::uint64_t untimed = 0; // of them without a time
    };
    /// By pid and table_id; all but PMTs, those on the pids of PAT, CAT and service information.
    std::map<std::pair<std::uint16_t, std::uint8_t>, Table> tables;
    std::map<std::uint16_t, Table> pmts; // by program number

    struct Rate {
        std::int64_t least = INT64_MAX; // bits a second
        std::int64_t most = 0;
    };
    struct Rates {
        Ticks over = 0;
        std::uint64_t windows = 0; // full ones, which overlap by nine tenths
        Rate all;
        std::map<std::uint16_t, Rate> programs; // by number: streams and PCRs of its PMT
        std::map<std::uint16_t, Rate> pids;     // streams
    };
    Rates rates; // over the longest of 10, 3 and 1 s that fits three times

    std::map<std::uint16_t, bool> scrambled; // pids that were always, or never, for half a second
    std::optional<bool> constant_rate;       // not set: not known, or now this and then that
};

/// What to expect of an input like that: all of it, with margins. Programs whose PMT did not come
/// are left out.
Expectation expectation_of(const Summary& summary, const Observed& observed);

} // namespace quarn
