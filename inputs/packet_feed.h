// Packets of files and pipes as live inputs have them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "consumer.h"

namespace quarn::inputs {

/// Numbers packets, and hands them over as if seven at a time had come in a datagram.
class PacketFeed {
  public:
    static constexpr std::size_t block = 7;

    explicit PacketFeed(Consumer& consumer) : consumer_(consumer) {}

    /// `packet` has 188 bytes. Hands over with each seventh one.
    void add(const std::uint8_t* packet, bool sync_right, const Arrival& arrival);
    /// Hands over what has come since.
    void flush();
    /// What an input of packets of `packet_size` tells, at its place among those that were added.
    void sync_loss(const SyncLoss& loss, int packet_size);
    void datagrams(const DatagramEvent& event);
    void truncated(std::int64_t bytes);

  private:
    std::uint64_t place() const { return kept_ * ts_packet_size; }

    Consumer& consumer_;
    std::uint64_t kept_ = 0;
    std::size_t held_ = 0;
    std::array<std::uint8_t, block * ts_packet_size> bytes_{};
    std::array<PacketInfo, block> infos_{};
};

} // namespace quarn::inputs
