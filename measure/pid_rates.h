// How many packets of each pid came lately: means over a window that moves on in tenths.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

#include "finding.h"
#include "packet.h"
#include "recorder.h"

namespace quarn {

/// Allocates its counters once, and a little ten times in each window.
class PidRates {
  public:
    /// Means over that time, above 0.
    explicit PidRates(Ticks over) : over_(over), counts_(pid_count, 0), sums_(pid_count, 0) {}

    /// Packets from the place `from` up to `to`. Returns whether the window has moved on and is
    /// full.
    bool counts(const CountsItem& item, const Place& from, const Place& to);
    /// What came before is not looked at any more.
    void anew();

    /// Bits a second of so many packets in the window; only while it is full.
    std::int64_t bitrate(std::uint64_t packets) const;
    std::uint64_t packets(std::uint16_t pid) const { return sums_[pid]; }
    /// Of all pids.
    std::uint64_t packets() const { return all_; }
    /// Of the window.
    const Place& begin() const { return parts_.front().from; }
    const Place& end() const { return end_; }

  private:
    struct Part {
        Place from;
        Ticks length = 0;
        std::uint64_t all = 0;
        std::vector<CountsItem::Count> pids;
    };
    bool full() const;
    void drop_front();

    Ticks over_;
    std::deque<Part> parts_;
    Ticks length_ = 0;
    std::uint64_t all_ = 0;
    std::vector<std::uint32_t> counts_; // of the part under way
    std::vector<std::uint16_t> active_; // pids in it
    std::uint64_t counted_ = 0;         // all packets in it
    Place from_;
    bool under_way_ = false;
    std::vector<std::uint64_t> sums_; // of all parts
    Place end_;
};

} // namespace quarn
