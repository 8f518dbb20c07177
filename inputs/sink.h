// What an input hands over: packets in step, and what was wrong with their framing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quarn::inputs {

/// Ticks of a 27 MHz clock.
using Ticks = std::int64_t;
/// A time that is not known.
inline constexpr std::int64_t no_time = INT64_MIN;
/// What a sink gets of each packet, whatever its size in the input.
inline constexpr std::size_t ts_packet_size = 188;

/// Where and when a single packet came in.
struct PacketInfo {
    std::uint64_t byte = 0;        // offset of its sync byte (datagrams: 188 a packet before it)
    Ticks arrival = no_time;       // from the first packet of the input, never running backwards
    std::int64_t utc_us = no_time; // microseconds since 1970-01-01 UTC
    bool sync_right = true;        // false: the first byte is not 0x47 but the packet is in step
};

/// A stretch in which the packets were out of step.
struct SyncLoss {
    /// missing, inserted: behind the stretch packets begin at other places than before.
    /// garbled: at the same, but too many sync bytes are wrong.
    enum class Kind : std::uint8_t { missing, inserted, garbled };
    Kind kind = Kind::missing;
    std::uint64_t begin_byte =
        0;                      // missing: the packet that was cut; else the first wrong sync byte
    std::uint64_t end_byte = 0; // first sync byte in step again, or the end of the input
    std::int64_t bytes = 0;     // missing or inserted, modulo the packet size; garbled: 0
};

/// What the sequence numbers of datagrams tell.
struct DatagramEvent {
    /// loss: they never came. order: they came late; what was within reach was put back in its
    /// place. duplicate: a second copy came and was dropped.
    enum class Kind : std::uint8_t { loss, order, duplicate };
    Kind kind = Kind::loss;
    std::int64_t datagrams = 0;
    std::int64_t packets = 0; // datagrams times the packets that the last one had
};

/// Receives an input in its order, in the thread that reads it. Bytes are only valid during a call.
class Sink {
  public:
    virtual ~Sink() = default;
    /// `count` packets in step, all with the right sync byte and without an arrival time; the first
    /// begins at `first` and at offset `byte` of the input, the others follow every `stride` bytes.
    virtual void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                         std::uint64_t byte) = 0;
    /// One packet of 188 bytes.
    virtual void packet(const std::uint8_t* packet, const PacketInfo& info) = 0;
    /// Told before any packet at or behind its begin_byte. Nothing is delivered from a stretch of
    /// kind missing or inserted; of one that is garbled all packets follow, unless it is longer
    /// than a megabyte.
    virtual void sync_loss(const SyncLoss& loss) = 0;
    /// Told before the packets behind the event.
    virtual void datagrams(const DatagramEvent& event) = 0;
    /// The input ends inside a packet, of which `bytes` bytes are there from offset `byte` on.
    virtual void truncated(std::uint64_t byte, std::int64_t bytes) = 0;
};

} // namespace quarn::inputs
