// A transport stream that comes in datagrams, with or without RTP.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "rtp.h"
#include "sink.h"

namespace quarn::inputs {

/// What a datagram holds.
struct DatagramContent {
    std::size_t packet_size = 0; // 188, 192 or 204; 0: no transport packets
    std::size_t packets = 0;     // whole ones
    bool rtp = false;
};

/// Looks for transport packets in the payload of UDP: one sync byte wrong, and there are none.
DatagramContent look_into(std::span<const std::uint8_t> datagram);

/// Frames each datagram by itself, behind putting those of RTP in order, and hands its packets to a
/// sink, with their arrival. What is no multiple of a packet is a loss of synchronisation. Places
/// are 188 * packets so far, since datagrams have no other.
class DatagramStream : private RtpOrder::Target {
  public:
    /// Arrivals of packets count from `origin`, without one from the first packet.
    explicit DatagramStream(Sink& sink, Ticks origin = no_time) : sink_(&sink), origin_(origin) {}

    /// The payload of a UDP datagram. `arrival` in 27 MHz ticks from any origin; it may run
    /// backwards, packets get it from theirs on and never backwards.
    void push(const Payload& datagram);
    /// See RtpOrder.
    void expire(Ticks now);
    void flush();
    Ticks waiting_since() const { return order_.waiting_since(); }

    /// Where what follows goes.
    void set_sink(Sink& sink) { sink_ = &sink; }
    bool rtp() const { return rtp_; }
    int packet_size() const { return static_cast<int>(size_ == 0 ? 188 : size_); }
    std::uint64_t packets() const { return kept_; }
    std::uint64_t datagrams() const { return datagrams_; }

  private:
    class Placer;

    void in_order(const Payload& payload) override;
    void event(DatagramEvent::Kind kind, std::int64_t datagrams) override;
    Ticks since_first(Ticks arrival);

    Sink* sink_;
    RtpOrder order_;
    bool rtp_ = false;
    std::uint8_t payload_type_ = 0;
    std::size_t size_ = 0;
    Ticks origin_;
    Ticks last_ = 0;
    std::uint64_t kept_ = 0;
    std::uint64_t datagrams_ = 0;
    std::int64_t usual_packets_ = 0; // of the last whole datagram
};

} // namespace quarn::inputs
