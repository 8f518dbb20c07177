// A file as a live input: played at the pace of its own clock.
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "input.h"
#include "pace.h"
#include "packet_feed.h"
#include "receiver.h"
#include "retry.h"
#include "url.h"

namespace quarn::inputs {

/// What the beginning of a file says about its pace.
struct PlayStart {
    bool own_clock = false; // stamps of a capture or of 192-byte packets
    unsigned pid = 0x1FFF;  // whose PCRs are followed, if any's
    double ticks_per_packet = 0;
};

/// What an input hands over, kept until it is due.
class PlayQueue : public Sink {
  public:
    struct Packet {
        std::size_t place = 0; // of its bytes
        Ticks arrival = no_time;
        bool sync_right = true;
    };
    struct Truncation {
        std::int64_t bytes = 0;
    };
    struct Item {
        std::variant<Packet, SyncLoss, DatagramEvent, Truncation> what;
        Ticks due = no_time; // no_time: not known yet
    };

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override;
    void packet(const std::uint8_t* packet, const PacketInfo& info) override;
    void sync_loss(const SyncLoss& loss) override { items_.push_back({loss}); }
    void datagrams(const DatagramEvent& event) override { items_.push_back({event}); }
    void truncated(std::uint64_t, std::int64_t bytes) override {
        items_.push_back({Truncation{bytes}});
    }

    std::vector<Item>& items() { return items_; }
    const std::vector<Item>& items() const { return items_; }
    const std::uint8_t* bytes(const Packet& packet) const { return bytes_.data() + packet.place; }
    /// Forgets the first `count` items.
    void drop(std::size_t count);

  private:
    std::vector<Item> items_;
    std::vector<std::uint8_t> bytes_;
};

/// Plays a file once, or over and over. Packets come when they are due by PCRs of one pid, by the
/// stamps of a capture, else by the bit rate of the URL; one that is late because the thread was
/// held up still has the time at which it was due. At the seam of a loop time goes on, and the
/// consumer is told that the stream begins anew.
class FilePlayer : public Receiver {
  public:
    /// Opens it and looks for a clock. Throws std::runtime_error with what is wrong: no such file,
    /// not a transport stream, not a file of a disk, no clock.
    FilePlayer(const InputUrl& url, Consumer& consumer);

    void start(Poller& poller) override;
    bool read(const Turn& turn) override;
    void tick(const Turn& turn) override;
    std::int64_t due_ns() const override;
    void stop() override {}

  private:
    bool open();
    bool fill();
    void schedule(bool all);
    void schedule_run(std::size_t end, std::optional<Ticks> pcr);
    void schedule_own();
    std::size_t deliverable(Ticks now) const;
    void deliver(std::size_t count, const Turn& turn);
    void at_end();

    const InputUrl url_;
    Consumer& consumer_;
    PacketFeed feed_;
    PlayStart clock_;
    Pace pace_;
    std::unique_ptr<Input> input_; // null: at its end, or waiting to be opened again
    int packet_size_ = 188;
    std::string error_;
    PlayQueue queue_;
    std::size_t scheduled_ = 0; // items with a time
    std::size_t played_ = 0;    // items that were delivered
    std::size_t waiting_ = 0;   // packets without a time
    Ticks own_start_ = no_time; // when the arrival 0 of this round was due
    bool seam_ = false;         // told before the next item
    bool ended_ = false;
    Retry retry_;
};

} // namespace quarn::inputs
