// The two clocks of the machine, and how stamps of the one become arrivals on the other.
#pragma once

#include <cstdint>

#include "consumer.h"

namespace quarn::inputs {

/// Both clocks at one time, nanoseconds.
struct Moment {
    std::int64_t monotonic_ns = 0;
    std::int64_t realtime_ns = 0;
};

/// Now.
Moment moment();

inline constexpr std::int64_t ns_per_ms = 1'000'000;
inline constexpr std::int64_t ns_per_s = 1'000'000'000;

/// 27 MHz ticks of a time on the monotonic clock, rounded down.
constexpr Ticks ticks_of(std::int64_t monotonic_ns) {
    return monotonic_ns / 1000 * 27 + monotonic_ns % 1000 * 27 / 1000;
}
/// And back, rounded up: ticks_of(ns_of(ticks)) is ticks, so that nothing becomes earlier on its
/// way.
constexpr std::int64_t ns_of(Ticks ticks) {
    return ticks / 27 * 1000 + (ticks % 27 * 1000 + 26) / 27;
}
static_assert(ticks_of(ns_of(26)) == 26 && ticks_of(ns_of(1)) == 1 && ticks_of(ns_of(27)) == 27);

/// The arrival that a time on the monotonic clock is, as `now` has the wall clock.
Arrival arrival_of(std::int64_t monotonic_ns, const Moment& now);

/// The kernel stamps datagrams with the wall clock, which is set now and then: forward, and back.
/// This makes times of the monotonic clock of its stamps. The two clocks are slewed together, so
/// that only a step of the wall clock changes their distance.
class StampClock {
  public:
    /// To be told at least whenever something is read, before it.
    void sample(const Moment& now);
    /// When a datagram came that was stamped with `realtime_ns`, known not to have come before
    /// `earliest` nor after `latest`: with that the clock of before a step is told from the one
    /// behind it.
    std::int64_t monotonic_ns(std::int64_t realtime_ns, std::int64_t earliest,
                              std::int64_t latest) const;

  private:
    bool sampled_ = false;
    std::int64_t distance_ = 0; // realtime - monotonic
    std::int64_t before_ = 0;   // before the last step
};

} // namespace quarn::inputs
