// Missing pictures by the steps of DTS.
#include "picture_steps.h"

#include <algorithm>
#include <cmath>

namespace quarn {

namespace {
constexpr std::size_t enough_steps = 13;
constexpr double same = 0.03;       // steps that far from each other are alike (23.976 Hz: 0.01 %)
constexpr double nearly_all = 0.9;  // share of alike steps
constexpr double missing = 0.9;     // of a picture
constexpr double no_question = 1.5; // times the last step: nothing can be missing
} // namespace

std::optional<double> PictureSteps::step(std::int64_t ticks, std::uint32_t starts) {
    if (ticks <= 0 || starts == 0)
        return std::nullopt;
    const double each = static_cast<double>(ticks) / starts;
    const double last = count_ > 0 ? steps_[(count_ - 1) % steps_.size()] : 0;
    // Over many PES packets without a stamp one picture is a small part of the step.
    if (starts > 1 || each > no_question * last) {
        const std::optional<double> picture = usual();
        const double more = picture ? static_cast<double>(ticks) - *picture * starts : 0;
        if (picture && more > missing * *picture)
            return more;
    }
    note(each);
    return std::nullopt;
}

void PictureSteps::note(double ticks) {
    steps_[count_++ % steps_.size()] = ticks;
}

/// The usual distance, if there is one.
std::optional<double> PictureSteps::usual() const {
    const std::size_t count = std::min(count_, steps_.size());
    if (count < enough_steps)
        return std::nullopt;
    std::array<double, 40> sorted = steps_;
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(count);
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(sorted.begin(), middle, end);
    const double median = *middle;
    const auto alike = std::count_if(
        sorted.begin(), end, [&](double x) { return std::abs(x - median) < same * median; });
    if (static_cast<double>(alike) <= nearly_all * static_cast<double>(count))
        return std::nullopt;
    return median;
}

} // namespace quarn
