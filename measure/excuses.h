// What happened to a stream of late, so that a fault of its stamps follows from it.
#pragma once

#include <cstdint>
#include <deque>

#include "finding.h"

namespace quarn {

/// Keeps the last few seconds, and no more than a fixed number of entries.
class Excuses {
  public:
    enum class Cause : std::uint8_t {
        hold_off,   // packets of a pid are lost, damaged or scrambled
        stop,       // no packets of a pid
        outage,     // no packets of any pid
        pcr_gap,    // no PCR on a pid
        clock_jump, // of a program
    };
    /// Rules are silent for so long behind a loss, and around a jump of the clock.
    static constexpr Ticks quiet_time = 600 * ticks_per_ms;

    /// `id`: a pid, null_pid for all; a program number for clock_jump.
    void add(Cause cause, std::uint16_t id, const Place& from, const Place& to);
    /// Forgets what nothing waits for any more.
    void forget(const Place& now);

    /// Was there such a thing between two places, or less than quiet_time before the second one
    /// (hold_off), or on either side of it (clock_jump)?
    bool covers(Cause cause, std::uint16_t id, const Place& from, const Place& to) const;

    /// Was there a hold_off of whatever pid behind the first place and up to the second one?
    bool any_loss(const Place& from, const Place& to) const;

  private:
    struct Entry {
        Cause cause;
        std::uint16_t id;
        Place from;
        Place to;
    };
    std::deque<Entry> entries_; // in the order of add()
};

} // namespace quarn
