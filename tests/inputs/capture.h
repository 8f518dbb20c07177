// Captures to be framed, and what became of them as text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inputs/sink.h"

namespace quarn::inputs {

/// Lays packets and other bytes behind each other. Packets are numbered from 0 on in the order in
/// which they were made.
class Capture {
  public:
    explicit Capture(std::size_t packet_size = 188) : size_(packet_size) {}

    Capture& packets(int count, unsigned pid = 256);
    /// A packet with another first byte.
    Capture& wrong(int count = 1);
    Capture& junk(std::size_t count, std::uint8_t value = 0);
    /// Takes bytes away from the end.
    Capture& cut(std::size_t count);
    Capture& cut_front(std::size_t count);
    /// Stamps in front of 192-byte packets run from here on with that step.
    Capture& stamps(std::uint32_t first, std::uint32_t step);

    std::vector<std::uint8_t> bytes;

  private:
    std::size_t size_;
    unsigned serial_ = 0;
    std::uint32_t stamp_ = 0;
    std::uint32_t step_ = 0;
};

/// Writes down what it is told: "0-3 ~4 5 missing(1128-1216:88) 7-9", with the serial numbers of
/// the packets; ~ stands before one whose sync byte is wrong.
class Recorder : public Sink {
  public:
    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override;
    void packet(const std::uint8_t* packet, const PacketInfo& info) override;
    void sync_loss(const SyncLoss& loss) override;
    void datagrams(const DatagramEvent& event) override;
    void truncated(std::uint64_t byte, std::int64_t bytes) override;

    std::string text();
    std::vector<PacketInfo> infos; // of all packets

  private:
    void add(const std::string& word);
    void flush();

    std::string text_;
    long first_ = -1; // of a run that goes on
    long last_ = -1;
};

} // namespace quarn::inputs
