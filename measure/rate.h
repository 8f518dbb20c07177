// Is the multiplex sent at a constant rate, and at which?
#pragma once

#include <array>
#include <cstdint>

#include "finding.h"

namespace quarn {

/// Judges the rate from the intervals between the PCRs of one pid. An interval fits when its number
/// of packets lies within 5 % of one packet of what the rate says; at random times a tenth would
/// fit.
class Rate {
  public:
    /// `live`: what is long ago counts for less, for the rate may change on some day.
    explicit Rate(bool live = false) : live_(live) {}

    /// An undisturbed interval: `packets` counted, `fewer` without copies that a network may have
    /// added.
    void add(std::uint64_t packets, std::uint64_t fewer, Ticks distance);
    /// The clock goes on in a new segment: the share is counted anew, the rate stays until it does
    /// not fit.
    void new_segment();

    bool known() const { return ticks_per_packet() > 0; }
    /// Decided from 40 intervals on: 65 % fit, or 35 % of 100 and the rest is jitter to both sides.
    bool constant() const { return constant_; }
    /// There was enough to tell constant() by.
    bool decided() const { return decided_; }
    /// Over 90 % of the last 40 intervals fit.
    bool certain() const;
    /// Ticks from one packet to the next; at a variable rate the median.
    double ticks_per_packet() const { return constant_ ? time_ / packets_ : median_; }
    /// The same where packets came fastest of late.
    double fewest_ticks_per_packet() const { return fewest_; }
    /// The usual distance of two PCRs.
    Ticks usual_distance() const { return usual_; }
    /// Another clock from here on: nothing is decided, and the usual figures stay.
    void anew() { restart(); }
    /// Decides with what there is, for nothing more comes.
    void decide_now();

  private:
    static constexpr std::size_t window = 64;
    struct Interval {
        double packets = 0;
        double fewer = 0;
        Ticks distance = 0;
    };
    void refresh_median();
    bool fits(const Interval& interval, double ticks_per_packet) const;
    void count(const Interval& interval);
    void decide();
    /// No constant rate has that: single packets with a PCR each, and many between some of them.
    bool crowded() const { return crowded_ * 20 > seen_; }
    void restart();
    void fade();

    bool live_ = false;
    std::array<Interval, window> recent_{};
    std::uint64_t count_ = 0; // of all intervals so far
    bool constant_ = false;
    bool decided_ = false;
    double median_ = 0;
    double fewest_ = 0;
    Ticks usual_ = 0;
    // of the current segment
    std::uint32_t seen_ = 0;
    std::uint32_t fitting_ = 0;
    double swing_ = 0; // sum and absolute sum of the small errors
    double swing_size_ = 0;
    std::uint32_t small_ = 0;
    std::uint32_t crowded_ = 0;   // far more packets than their time has room for
    std::uint64_t last_fits_ = 0; // one bit an interval, the latest lowest
    // of the fitting intervals
    double time_ = 0;
    double packets_ = 0;
};

} // namespace quarn
