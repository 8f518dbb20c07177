#include "pace.h"

#include <algorithm>

namespace quarn::inputs {
namespace {

constexpr Ticks second = 27'000'000;
constexpr Ticks pcr_wrap = (Ticks{1} << 33) * 300;
/// Distances above are jumps, whatever the rate.
constexpr Ticks longest_distance = 10 * second;
/// So much slower than before is a jump ahead, if it takes longer than a usual distance.
constexpr double slowest = 4;

} // namespace

unsigned pid_of(const std::uint8_t* packet) {
    return static_cast<unsigned>((packet[1] & 0x1F) << 8 | packet[2]);
}

std::optional<Ticks> pcr_of(const std::uint8_t* packet) {
    const bool field = (packet[3] & 0x20) != 0;
    if (packet[0] != 0x47 || (packet[1] & 0x80) != 0 || !field || packet[4] < 7 ||
        (packet[5] & 0x10) == 0)
        return {};
    const Ticks base = Ticks{packet[6]} << 25 | Ticks{packet[7]} << 17 | Ticks{packet[8]} << 9 |
                       Ticks{packet[9]} << 1 | packet[10] >> 7;
    return base * 300 + ((packet[10] & 1) << 8 | packet[11]);
}

Ticks pcr_distance(Ticks from, Ticks to) {
    const Ticks distance = (to - from) % pcr_wrap;
    if (distance > pcr_wrap / 2)
        return distance - pcr_wrap;
    return distance < -pcr_wrap / 2 ? distance + pcr_wrap : distance;
}

bool Pace::plausible(Ticks distance, std::size_t packets) const {
    if (distance <= 0 || distance > longest_distance)
        return false;
    return distance <= second / 2 ||
           static_cast<double>(distance) <= slowest * step_ * static_cast<double>(packets);
}

Pace::Line Pace::run(std::size_t packets, std::optional<Ticks> pcr) {
    const auto count = static_cast<double>(packets);
    packets_since_ += packets;
    Line line{time_, step_};
    if (!pcr) {
        time_ += step_ * count;
        return line;
    }
    const Ticks distance = pcr_ ? pcr_distance(*pcr_, *pcr) : 0;
    if (pcr_ && plausible(distance, packets_since_)) {
        step_ = static_cast<double>(distance) / static_cast<double>(packets_since_);
        pcr_due_ += static_cast<double>(distance);
        line.step = std::max(0.0, pcr_due_ - time_) / count;
    } else {
        pcr_due_ = time_ + step_ * count;
    }
    time_ += line.step * count;
    pcr_ = pcr;
    packets_since_ = 0;
    return line;
}

} // namespace quarn::inputs
