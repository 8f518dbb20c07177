#include "pid_rates.h"

#include <utility>

namespace quarn {

namespace {
constexpr Ticks parts_of_window = 10;
constexpr double bits_per_packet = 8.0 * packet_size;
} // namespace

bool PidRates::counts(const CountsItem& item, const Place& from, const Place& to) {
    if (from.time == no_time || to.time == no_time)
        return false;
    if (!std::exchange(under_way_, true))
        from_ = from;
    for (const CountsItem::Count& c : item.pids) {
        if (counts_[c.pid] == 0)
            active_.push_back(c.pid);
        counts_[c.pid] += c.packets;
    }
    counted_ += item.packets;
    const Ticks length = to.time - from_.time;
    if (length < over_ / parts_of_window || length <= 0)
        return false;
    Part part{from_, length, counted_, {}};
    part.pids.reserve(active_.size());
    for (const std::uint16_t pid : active_) {
        part.pids.push_back({pid, counts_[pid]});
        sums_[pid] += std::exchange(counts_[pid], 0);
    }
    active_.clear();
    all_ += std::exchange(counted_, 0);
    length_ += length;
    parts_.push_back(std::move(part));
    under_way_ = false;
    end_ = to;
    while (length_ - parts_.front().length >= over_)
        drop_front();
    return full();
}

bool PidRates::full() const {
    return length_ >= over_;
}

void PidRates::drop_front() {
    const Part& part = parts_.front();
    for (const CountsItem::Count& c : part.pids)
        sums_[c.pid] -= c.packets;
    all_ -= part.all;
    length_ -= part.length;
    parts_.pop_front();
}

void PidRates::anew() {
    while (!parts_.empty())
        drop_front();
    for (const std::uint16_t pid : active_)
        counts_[pid] = 0;
    active_.clear();
    counted_ = 0;
    under_way_ = false;
}

std::int64_t PidRates::bitrate(std::uint64_t packets) const {
    return static_cast<std::int64_t>(static_cast<double>(packets) * bits_per_packet *
                                     ticks_per_second / static_cast<double>(length_));
}

} // namespace quarn
