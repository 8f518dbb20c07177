// RTP (RFC 3550) as it carries transport packets (RFC 2250): headers, and datagrams in their order.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sink.h"

namespace quarn::inputs {

struct RtpPacket {
    std::uint8_t payload_type = 0; // 33 is MP2T, 96 and above are dynamic
    std::uint16_t sequence = 0;
    std::uint32_t ssrc = 0;
    std::span<const std::uint8_t> payload; // without CSRCs, header extension and padding
};

/// The RTP packet in a datagram; nothing if it is none (RFC 3550, 5.1).
std::optional<RtpPacket> parse_rtp(std::span<const std::uint8_t> datagram);
/// Whether it is an RTCP packet, which may share a port with RTP (RFC 5761, 4).
bool is_rtcp(std::span<const std::uint8_t> datagram);

/// What came in one datagram, and when.
struct Payload {
    std::span<const std::uint8_t> bytes;
    Ticks arrival = no_time;
    std::int64_t utc_us = no_time;
};

/// Puts the datagrams of one RTP stream back in order and tells what their sequence numbers say.
///
/// Behind a gap datagrams are held back until the gap closes, or 32 of them are waiting, or 100 ms
/// have passed; then the gap is a loss. A second copy is dropped, and so is what comes after it was
/// given up. Another SSRC, or a step of over 3000, is a restart of the sender: no loss. Memory is
/// bounded by 32 datagrams.
class RtpOrder {
  public:
    /// Gets the payloads in order, each only valid during the call, and the events before them.
    class Target {
      public:
        virtual ~Target() = default;
        virtual void in_order(const Payload& payload) = 0;
        virtual void event(DatagramEvent::Kind kind, std::int64_t datagrams) = 0;
    };

    static constexpr std::size_t most_waiting = 32;
    static constexpr Ticks longest_wait = 2'700'000; // 100 ms
    static constexpr int longest_step = 3000;
    /// So many behind the expected one in a row are a sender that began anew a little earlier.
    static constexpr int most_behind = 128;

    /// Arrivals never run backwards; without any (no_time) only the number of datagrams counts.
    void push(const RtpPacket& packet, Ticks arrival, std::int64_t utc_us, Target& target);
    /// Gives up gaps that are too old, for hosts on which no datagram may follow for long.
    void expire(Ticks now, Target& target);
    /// Hands over everything that is waiting: the end of the input.
    void flush(Target& target);
    /// When the first of those that are waiting came; no_time if none is.
    Ticks waiting_since() const { return waiting_count_ > 0 ? oldest() : no_time; }

  private:
    struct Waiting {
        std::uint16_t sequence = 0;
        Ticks arrival = no_time;
        std::int64_t utc_us = no_time;
        std::vector<std::uint8_t> bytes; // keeps its memory when the slot is free
    };

    std::int16_t step_to(std::uint16_t sequence) const {
        return static_cast<std::int16_t>(sequence - expected_);
    }
    void restart(const RtpPacket& packet, Target& target);
    bool late(const RtpPacket& packet, Target& target);
    void hold(const RtpPacket& packet, const Payload& payload, Target& target);
    void hand_over(const Payload& payload, Target& target);
    void release(Target& target);
    void give_up(Target& target);
    Ticks oldest() const;

    bool started_ = false;
    std::uint32_t ssrc_ = 0;
    std::uint16_t expected_ = 0;
    int behind_ = 0;          // datagrams behind the expected one, without any other between them
    std::bitset<65536> seen_; // which sequence numbers before the expected one came
    std::array<Waiting, most_waiting> waiting_; // in order of sequence numbers
    std::size_t waiting_count_ = 0;
};

} // namespace quarn::inputs
