// When the packets of a file are due that is played as if it were live.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "sink.h"

namespace quarn::inputs {

/// The PCR of a packet of 188 bytes in 27 MHz ticks; nothing if it has none.
std::optional<Ticks> pcr_of(const std::uint8_t* packet);
unsigned pid_of(const std::uint8_t* packet);

/// Ticks from one PCR to a later one, across the wrap of 33 bits.
Ticks pcr_distance(Ticks from, Ticks to);

/// Lays packets evenly between the PCRs of one pid. A PCR that jumps, or that is so far ahead that
/// the rate would be a fraction of what it was, sets a new start and takes no time.
class Pace {
  public:
    /// Due times of a run of packets: the first is due at from + step, the next a step later.
    struct Line {
        double from = 0;
        double step = 0;
        Ticks at(std::size_t packet) const {
            return static_cast<Ticks>(from + step * static_cast<double>(packet + 1));
        }
    };

    /// `ticks_per_packet` serves until there are two PCRs.
    Pace(Ticks start, double ticks_per_packet)
        : time_(static_cast<double>(start) - ticks_per_packet), step_(ticks_per_packet) {}

    /// The next `packets` packets, the last of which has `pcr` if there is one.
    Line run(std::size_t packets, std::optional<Ticks> pcr);
    /// The next packet begins anew: no distance is measured over the seam.
    void begin() { pcr_.reset(); }
    /// The next packet is due at `due` by a clock of its own.
    void follow(Ticks due) { time_ = static_cast<double>(due); }
    /// When the last packet was due.
    Ticks time() const { return static_cast<Ticks>(time_); }

  private:
    bool plausible(Ticks distance, std::size_t packets) const;

    double time_; // of the last packet
    double step_;
    std::optional<Ticks> pcr_;
    double pcr_due_ = 0;            // when that was due
    std::size_t packets_since_ = 0; // that PCR
};

} // namespace quarn::inputs
