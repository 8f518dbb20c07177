#include "rtp.h"

#include <algorithm>
#include <cstdlib>

#include "big_endian.h"

namespace quarn::inputs {
namespace {

constexpr std::size_t fixed_header = 12;

bool is_version_2(std::span<const std::uint8_t> datagram) {
    return !datagram.empty() && datagram[0] >> 6 == 2;
}

} // namespace

std::optional<RtpPacket> parse_rtp(std::span<const std::uint8_t> datagram) {
    if (datagram.size() < fixed_header || !is_version_2(datagram))
        return {};
    const std::uint8_t* bytes = datagram.data();
    RtpPacket packet;
    packet.payload_type = bytes[1] & 0x7F;
    packet.sequence = load_be16(bytes + 2);
    packet.ssrc = load_be32(bytes + 8);
    std::size_t begin = fixed_header + 4 * static_cast<std::size_t>(bytes[0] & 0x0F);
    if ((bytes[0] & 0x10) != 0) { // extension: its length, in words, stands in its second half
        if (datagram.size() < begin + 4)
            return {};
        begin += 4 + 4 * static_cast<std::size_t>(load_be16(bytes + begin + 2));
    }
    const std::size_t padding = (bytes[0] & 0x20) != 0 ? datagram.back() : 0;
    if (datagram.size() < begin + padding)
        return {};
    packet.payload = datagram.subspan(begin, datagram.size() - begin - padding);
    return packet;
}

bool is_rtcp(std::span<const std::uint8_t> datagram) {
    return datagram.size() >= 8 && is_version_2(datagram) && datagram[1] >= 192 &&
           datagram[1] <= 223;
}

void RtpOrder::push(const RtpPacket& packet, Ticks arrival, std::int64_t utc_us, Target& target) {
    expire(arrival, target);
    if (!started_ || packet.ssrc != ssrc_ || std::abs(step_to(packet.sequence)) > longest_step)
        restart(packet, target);
    if (step_to(packet.sequence) < 0 && late(packet, target))
        return;
    behind_ = 0;
    Payload payload{packet.payload, arrival, utc_us};
    if (waiting_count_ == most_waiting && step_to(packet.sequence) > 0)
        give_up(target);
    if (step_to(packet.sequence) != 0) {
        hold(packet, payload, target);
        return;
    }
    if (waiting_count_ > 0) {
        target.event(DatagramEvent::Kind::order, 1);
        payload.arrival = std::min(arrival, oldest());
    }
    hand_over(payload, target);
    release(target);
}

void RtpOrder::expire(Ticks now, Target& target) {
    while (waiting_count_ > 0 && now != no_time && oldest() != no_time &&
           now - oldest() > longest_wait)
        give_up(target);
}

void RtpOrder::flush(Target& target) {
    while (waiting_count_ > 0)
        give_up(target);
}

void RtpOrder::restart(const RtpPacket& packet, Target& target) {
    flush(target);
    seen_.reset();
    started_ = true;
    ssrc_ = packet.ssrc;
    expected_ = packet.sequence;
}

/// A datagram behind the expected one. Returns false if it begins the stream anew.
bool RtpOrder::late(const RtpPacket& packet, Target& target) {
    if (++behind_ > most_behind) {
        restart(packet, target);
        return false;
    }
    target.event(
        seen_[packet.sequence] ? DatagramEvent::Kind::duplicate : DatagramEvent::Kind::order, 1);
    return true;
}

/// Keeps a datagram before which others are missing.
void RtpOrder::hold(const RtpPacket& packet, const Payload& payload, Target& target) {
    std::size_t place = waiting_count_;
    while (place > 0 && step_to(waiting_[place - 1].sequence) > step_to(packet.sequence))
        --place;
    if (place > 0 && waiting_[place - 1].sequence == packet.sequence) {
        target.event(DatagramEvent::Kind::duplicate, 1);
        return;
    }
    if (place < waiting_count_)
        target.event(DatagramEvent::Kind::order, 1);
    const auto slot = waiting_.begin() + static_cast<std::ptrdiff_t>(place);
    const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(++waiting_count_);
    std::rotate(slot, end - 1, end);
    slot->sequence = packet.sequence;
    slot->arrival = payload.arrival;
    slot->utc_us = payload.utc_us;
    slot->bytes.assign(payload.bytes.begin(), payload.bytes.end());
}

void RtpOrder::hand_over(const Payload& payload, Target& target) {
    seen_[expected_++] = true;
    target.in_order(payload);
}

/// Hands over what waited for nothing but the expected datagram.
void RtpOrder::release(Target& target) {
    while (waiting_count_ > 0 && waiting_.front().sequence == expected_) {
        const Waiting& first = waiting_.front();
        hand_over({first.bytes, first.arrival, first.utc_us}, target);
        std::rotate(waiting_.begin(), waiting_.begin() + 1,
                    waiting_.begin() + static_cast<std::ptrdiff_t>(waiting_count_));
        --waiting_count_;
    }
}

/// Takes what is missing before the first waiting datagram for lost.
void RtpOrder::give_up(Target& target) {
    const auto missing = step_to(waiting_.front().sequence);
    target.event(DatagramEvent::Kind::loss, missing);
    for (; expected_ != waiting_.front().sequence; ++expected_)
        seen_[expected_] = false;
    release(target);
}

/// When the first of the waiting datagrams came.
Ticks RtpOrder::oldest() const {
    Ticks oldest = waiting_.front().arrival;
    for (std::size_t i = 1; i < waiting_count_; ++i)
        oldest = std::min(oldest, waiting_[i].arrival);
    return oldest;
}

} // namespace quarn::inputs
