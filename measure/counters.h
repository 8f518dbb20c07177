// Exact figures since the beginning, of a bounded size: what a live host asks for once a second.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "rules.h"

namespace quarn {

/// Events, or open intervals, by rule and severity.
class FindingCounts {
  public:
    std::uint64_t& at(Rule rule, Severity severity) {
        return counts_[static_cast<std::size_t>(rule)][static_cast<std::size_t>(severity)];
    }
    std::uint64_t at(Rule rule, Severity severity) const {
        return counts_[static_cast<std::size_t>(rule)][static_cast<std::size_t>(severity)];
    }

  private:
    std::array<std::array<std::uint64_t, 3>, rule_count> counts_{};
};

/// Distances between PCRs.
struct PcrIntervals {
    /// Upper bounds of all buckets but the last, seconds; a distance on a bound belongs to it.
    static constexpr std::array bounds{0.01, 0.02, 0.04, 0.06, 0.08, 0.1, 0.2, 0.5, 1.0};

    std::array<std::uint64_t, bounds.size() + 1> counts{}; // not cumulative
    double sum_s = 0;

    void add(double seconds) {
        const auto* bound = std::ranges::lower_bound(bounds, seconds);
        ++counts[static_cast<std::size_t>(bound - bounds.begin())];
        sum_s += seconds;
    }
};

struct Counters {
    static constexpr std::size_t most_programs = 32;

    std::uint64_t packets = 0;
    std::uint64_t lost_packets = 0; // by all findings of 1.4
    FindingCounts findings;         // events; those of an interval count when it is raised
    FindingCounts open;             // live: intervals that were raised and not cleared
    PcrIntervals pcr_intervals;     // on all pids that a PMT names as PCR_PID
    /// Program number and seconds, positive when sound is late: how much later the stamps of the
    /// sound are than those of the picture that is sent beside it. The first 32 programs with both.
    std::vector<std::pair<std::uint16_t, double>> av_offset_s;
};

} // namespace quarn
