// Look-up of what may be the cause of a fault of stamps.
#include "excuses.h"

#include <algorithm>

#include "packet.h"

namespace quarn {

namespace {
constexpr Ticks kept = 4 * ticks_per_second;
constexpr std::size_t most = 256;

bool known(const Place& place) {
    return place.time != no_time;
}

bool is_behind(const Place& place, const Place& from, const Place& to) {
    return place.packet > from.packet && place.packet <= to.packet;
}
} // namespace

void Excuses::add(Cause cause, std::uint16_t id, const Place& from, const Place& to) {
    const bool lasts = cause == Cause::stop || cause == Cause::outage;
    const auto known = std::find_if(entries_.rbegin(), entries_.rend(), [&](const Entry& e) {
        return lasts && e.cause == cause && e.id == id && e.from.packet == from.packet;
    });
    if (known != entries_.rend()) { // it goes on
        known->to = to;
        return;
    }
    if (entries_.size() == most)
        entries_.pop_front();
    entries_.push_back({cause, id, from, to});
}

void Excuses::forget(const Place& now) {
    while (!entries_.empty() && known(now) && known(entries_.front().to) &&
           now.time - entries_.front().to.time > kept)
        entries_.pop_front();
}

bool Excuses::covers(Cause cause, std::uint16_t id, const Place& from, const Place& to) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
        const bool is_all = e.id == null_pid && cause != Cause::clock_jump;
        if (e.cause != cause || (e.id != id && !is_all))
            return false;
        const bool is_point = cause == Cause::hold_off || cause == Cause::clock_jump;
        if (!is_point)
            return e.from.packet < to.packet && e.to.packet > from.packet;
        if (is_behind(e.from, from, to))
            return true;
        if (!known(e.from) || !known(to))
            return false;
        const Ticks behind = to.time - e.from.time;
        const Ticks earliest = cause == Cause::clock_jump ? -quiet_time : -1;
        return behind > earliest && behind < quiet_time;
    });
}

bool Excuses::any_loss(const Place& from, const Place& to) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
        return e.cause == Cause::hold_off && is_behind(e.from, from, to);
    });
}

} // namespace quarn
