#include "rate.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <vector>

namespace quarn {

namespace {
constexpr double tolerance = 0.05; // of one packet
constexpr Ticks jitter_limit = 6 * ticks_per_ms;
constexpr std::uint32_t first_decision = 40;
constexpr std::uint32_t swing_decision = 100;
constexpr double constant_from = 0.65;
constexpr double variable_below = 0.55;
constexpr double swinging_from = 0.35;
constexpr double peak_fades = 1.005;    // an interval
constexpr double forget_at = 1e6;       // packets: older ones weigh half
constexpr std::uint32_t fade_at = 4096; // intervals: the same, live
} // namespace

bool Rate::fits(const Interval& i, double tpp) const {
    const double due = static_cast<double>(i.distance) / tpp;
    return std::abs(i.packets - due) <= tolerance || std::abs(i.fewer - due) <= tolerance;
}

void Rate::refresh_median() {
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(count_, window));
    std::vector<double> each;
    std::vector<Ticks> distances;
    for (std::size_t i = 0; i < n; ++i) {
        each.push_back(static_cast<double>(recent_[i].distance) / recent_[i].packets);
        distances.push_back(recent_[i].distance);
    }
    const auto middle = static_cast<std::ptrdiff_t>(n / 2);
    std::nth_element(each.begin(), each.begin() + middle, each.end());
    std::nth_element(distances.begin(), distances.begin() + middle, distances.end());
    median_ = each[n / 2];
    usual_ = distances[n / 2];
}

void Rate::count(const Interval& i) {
    const double tpp = constant_ ? time_ / packets_ : median_;
    const bool good = fits(i, tpp);
    ++seen_;
    last_fits_ = last_fits_ << 1 | (good ? 1u : 0u);
    if (good) {
        ++fitting_;
        const double due = static_cast<double>(i.distance) / tpp;
        packets_ += std::abs(i.packets - due) <= tolerance ? i.packets : i.fewer;
        time_ += static_cast<double>(i.distance);
        if (packets_ > forget_at) {
            packets_ /= 2;
            time_ /= 2;
        }
        return;
    }
    const double error = static_cast<double>(i.distance) - i.packets * tpp;
    if (std::abs(error) < static_cast<double>(jitter_limit)) {
        ++small_;
        swing_ += error;
        swing_size_ += std::abs(error);
    } else if (error < 0) {
        ++crowded_;
    }
}

void Rate::add(std::uint64_t packets, std::uint64_t fewer, Ticks distance) {
    if (packets == 0 || distance <= 0)
        return;
    const Interval interval = {static_cast<double>(packets), static_cast<double>(fewer), distance};
    const double each = static_cast<double>(distance) / interval.packets;
    fewest_ = fewest_ == 0 ? each : std::min(fewest_ * peak_fades, each);
    recent_[static_cast<std::size_t>(count_ % window)] = interval;
    ++count_;
    if (!decided_) {
        ++seen_;
        if (seen_ >= first_decision)
            decide_now();
        else if (seen_ < 8 || seen_ % 8 == 0)
            refresh_median();
        return;
    }
    if (!constant_ && count_ % first_decision == 0)
        refresh_median();
    count(interval);
    decide();
    if (live_)
        fade();
}

// A rate that held for days must not take days to be left.
void Rate::fade() {
    const bool held =
        constant_ && seen_ >= 10 * first_decision && fitting_ >= constant_from * seen_;
    if (held && std::popcount(last_fits_) < 12)
        return restart();
    if (seen_ < fade_at)
        return;
    for (std::uint32_t* n : {&seen_, &fitting_, &small_, &crowded_})
        *n /= 2;
    swing_ /= 2;
    swing_size_ /= 2;
}

// The intervals so far are held against their own median.
void Rate::decide_now() {
    if (decided_ || count_ == 0)
        return;
    refresh_median();
    decided_ = true;
    seen_ = fitting_ = small_ = crowded_ = 0;
    time_ = packets_ = swing_ = swing_size_ = 0;
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(count_, window));
    for (std::size_t i = 0; i < n; ++i)
        count(recent_[static_cast<std::size_t>((count_ - n + i) % window)]);
    if (n < first_decision) // of so few, more than a rate that varies could do by chance
        constant_ = fitting_ >= 8 && fitting_ >= constant_from * seen_ && !crowded();
    else
        decide();
}

void Rate::decide() {
    if (seen_ < first_decision) {
        if (constant_ && seen_ >= 10 && fitting_ < 0.3 * seen_)
            restart(); // a new segment at another rate
        return;
    }
    const bool known_rate = packets_ > 0;
    const auto others = static_cast<double>(seen_ - fitting_);
    const bool swings = seen_ >= swing_decision && fitting_ >= swinging_from * seen_ &&
                        small_ > 0.8 * others && std::abs(swing_) < 0.2 * swing_size_;
    if (known_rate && !crowded() && (fitting_ >= constant_from * seen_ || swings))
        constant_ = true;
    else if (fitting_ < variable_below * seen_ || crowded())
        constant_ = false;
    if (!constant_ && seen_ % first_decision == 0)
        time_ = packets_ = 0; // gathered around another median
}

void Rate::restart() {
    if (packets_ > 0)
        median_ = time_ / packets_;
    constant_ = decided_ = false;
    count_ = 0;
    new_segment();
}

bool Rate::certain() const {
    return constant_ && seen_ >= first_decision &&
           std::popcount(last_fits_ & ((std::uint64_t{1} << 40) - 1)) > 36;
}

void Rate::new_segment() {
    seen_ = fitting_ = small_ = crowded_ = 0;
    swing_ = swing_size_ = 0;
}

} // namespace quarn
