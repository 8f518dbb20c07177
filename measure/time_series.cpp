#include "time_series.h"

#include <algorithm>
#include <limits>

namespace quarn {

namespace {

constexpr std::size_t most_for_slope = 256; // buckets, each of which makes a pair with each other

template <class List>
void halve_all(List& list) {
    for (auto& entry : list)
        halve(entry.buckets);
}

} // namespace

void Extremes::add(const Sample& sample) {
    if (count == 0 || sample.value < low.value)
        low = sample;
    if (count == 0 || sample.value > high.value)
        high = sample;
    ++count;
}

void Extremes::add(const Extremes& other) {
    if (other.count == 0)
        return;
    const std::uint32_t all = count + other.count;
    add(other.low);
    add(other.high);
    count = all;
}

void LossCount::add(const LossCount& other) {
    if (other.events > 0 && (events == 0 || other.worst.value > worst.value))
        worst = other.worst;
    events += other.events;
    packets += other.packets;
}

void FirstPacket::add(const FirstPacket& other) {
    if (packet == 0 || (other.packet != 0 && other.packet < packet))
        *this = other;
}

double slope(const Buckets<Extremes>& buckets, double width) {
    struct Point {
        double x = 0;
        double y = 0;
    };
    std::vector<Point> points;
    for (std::size_t i = 0; i < buckets.size(); ++i)
        if (buckets[i].count > 0)
            points.push_back({static_cast<double>(i) * width,
                              (buckets[i].low.value + buckets[i].high.value) / 2});
    const std::size_t step = (points.size() + most_for_slope - 1) / most_for_slope;
    std::vector<double> slopes;
    for (std::size_t i = 0; i < points.size(); i += step)
        for (std::size_t j = i + step; j < points.size(); j += step)
            slopes.push_back((points[j].y - points[i].y) / (points[j].x - points[i].x));
    if (slopes.size() < 3)
        return std::numeric_limits<double>::quiet_NaN();
    const auto middle = slopes.begin() + static_cast<std::ptrdiff_t>(slopes.size() / 2);
    std::nth_element(slopes.begin(), middle, slopes.end());
    return *middle;
}

void halve(TimeSeries& series) {
    series.width *= 2;
    halve(series.first);
    halve(series.rate);
    halve(series.other);
    halve_all(series.packets);
    halve_all(series.pcr_intervals);
    halve_all(series.pcr_errors);
    halve_all(series.leads);
    halve_all(series.offsets);
    halve_all(series.losses);
    halve_all(series.tables);
}

} // namespace quarn
