// Standard input as a live input: packets as they come.
#pragma once

#include <optional>
#include <vector>

#include "framer.h"
#include "packet_feed.h"
#include "receiver.h"

namespace quarn::inputs {

/// Reads a descriptor that something is piped into, packets of 188, 192 or 204 bytes. A packet
/// arrives when it is read. What is not a transport stream ends at once, and says so.
class PipeReceiver : public Receiver, private Sink {
  public:
    /// `fd` stays open.
    PipeReceiver(int fd, Consumer& consumer) : fd_(fd), consumer_(consumer), feed_(consumer) {}

    void start(Poller& poller) override;
    bool read(const Turn& turn) override;
    void tick(const Turn& turn) override;
    std::int64_t due_ns() const override { return always_ready_ && !ended_ ? 0 : never; }
    void stop() override;

  private:
    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override;
    void packet(const std::uint8_t* packet, const PacketInfo& info) override;
    void sync_loss(const SyncLoss& loss) override;
    void datagrams(const DatagramEvent&) override {} // a pipe has none
    void truncated(std::uint64_t, std::int64_t bytes) override { feed_.truncated(bytes); }

    bool find_layout(bool end);
    void frame(bool end);
    void finish(std::string_view wrong);

    const int fd_;
    Consumer& consumer_;
    PacketFeed feed_;
    Poller* poller_ = nullptr;
    bool always_ready_ = false; // a file
    bool ended_ = false;
    std::vector<std::uint8_t> bytes_; // not framed yet
    std::size_t looked_ = 0;          // bytes in which no layout was found
    std::size_t packet_size_ = 188;
    std::optional<Framer> framer_;
    Arrival arrival_;
};

} // namespace quarn::inputs
