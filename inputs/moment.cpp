#include "moment.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace quarn::inputs {
namespace {

std::int64_t read_ns(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * ns_per_s + time.tv_nsec;
}

/// Less is not told from what lies between the readings of two clocks.
constexpr std::int64_t least_step = 100'000;

} // namespace

/// The thread may be interrupted between the two readings: then they are not of one time.
Moment moment() {
    Moment best;
    std::int64_t closest = INT64_MAX;
    for (int i = 0; i < 3 && closest > least_step / 5; ++i) {
        const std::int64_t before = read_ns(CLOCK_MONOTONIC);
        const std::int64_t wall = read_ns(CLOCK_REALTIME);
        const std::int64_t after = read_ns(CLOCK_MONOTONIC);
        if (after - before >= closest)
            continue;
        closest = after - before;
        best = {after, wall + closest / 2};
    }
    return best;
}

Arrival arrival_of(std::int64_t monotonic_ns, const Moment& now) {
    return {ticks_of(monotonic_ns), (now.realtime_ns - (now.monotonic_ns - monotonic_ns)) / 1000};
}

void StampClock::sample(const Moment& now) {
    const std::int64_t distance = now.realtime_ns - now.monotonic_ns;
    if (!sampled_)
        before_ = distance_ = distance;
    sampled_ = true;
    if (std::llabs(distance - distance_) < least_step)
        return;
    before_ = distance_;
    distance_ = distance;
}

std::int64_t StampClock::monotonic_ns(std::int64_t realtime_ns, std::int64_t earliest,
                                      std::int64_t latest) const {
    for (const std::int64_t distance : {distance_, before_})
        if (const std::int64_t time = realtime_ns - distance; time >= earliest && time <= latest)
            return time;
    return std::clamp(realtime_ns - distance_, earliest, latest);
}

} // namespace quarn::inputs
