// What is told of live inputs, kept so that tests can wait for it, and senders.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture.h"
#include "files.h"
#include "live/loops.h"
#include "network.h"

namespace quarn::live {

using inputs::Bytes;

/// Keeps what it is told, by whatever thread, and checks what always holds: time never runs
/// backwards, packets lie behind each other, nothing comes behind the end.
class Watcher : public Consumer {
  public:
    void raw(std::span<const std::uint8_t> datagram, const Arrival& when) override;
    void own_drops(std::uint64_t datagrams) override;
    void state(InputState state, std::string_view text) override;
    void tick(const Arrival& now) override;
    void ended() override;
    void restarted() override;
    void packets(const std::uint8_t*, std::size_t, std::size_t, std::uint64_t) override;
    void packet(const std::uint8_t* packet, const inputs::PacketInfo& info) override;
    void sync_loss(const inputs::SyncLoss& loss) override;
    void datagrams(const inputs::DatagramEvent& event) override;
    void truncated(std::uint64_t byte, std::int64_t bytes) override;

    struct Seen {
        std::vector<Bytes> raw;
        std::vector<std::pair<std::size_t, std::uint64_t>> drops; // datagrams before it, and count
        std::vector<std::string> states;                          // "up: ..."
        inputs::Recorder packets;
        std::size_t restarts = 0;
        std::size_t ticks = 0;
        bool ended = false;
        std::string wrong; // what must not be

        std::uint64_t dropped() const;
        /// Whether the last state begins like that.
        bool is(const std::string& state) const;
    };

    /// Waits until that holds of what was seen, for 20 s at most; false: it never did.
    bool wait(const std::function<bool(const Seen&)>& holds);
    bool wait_packets(std::size_t count);
    bool wait_state(const std::string& begin);
    /// A copy of what was seen so far.
    Seen seen();
    /// While it is held every call waits.
    std::unique_lock<std::mutex> hold() { return std::unique_lock(gate_); }

  private:
    template <typename Note>
    void note(Note note);
    void check(inputs::Ticks ticks);

    std::mutex gate_;
    std::mutex mutex_;
    std::condition_variable changed_;
    Seen seen_;
    std::size_t bytes_ = 0;
    inputs::Ticks last_ = inputs::no_time;
};

inputs::InputUrl url(const std::string& text);

/// Loops of one thread, so that inputs share it, and their watchers, which outlive them.
class Watched : public inputs::Files {
  protected:
    void SetUp() override { begin(); }
    void begin() { loops_ = std::make_unique<Loops>(1); }
    /// A new input.
    Watcher& add(const std::string& text);
    void remove(const Watcher& watcher);
    void remove_all();

    std::list<std::pair<Watcher, std::optional<Loops::Handle>>> watchers_;
    std::unique_ptr<Loops> loops_;
};

/// Sends datagrams to an address; `from` another one than the system would choose, with its
/// interface for groups.
class Sender {
  public:
    explicit Sender(const std::string& to, const std::string& from = {},
                    const std::string& interface_name = {});
    ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// False if the system had no room for it.
    bool send(const Bytes& datagram) const;
    void send_all(const std::vector<Bytes>& datagrams) const;

  private:
    int fd_;
};

/// Datagrams of `packets` packets each, whose serial numbers go on from one to the next.
std::vector<Bytes> datagrams(int count, int packets = 7);
/// The same in RTP, their sequence numbers from `first` on.
std::vector<Bytes> rtp_datagrams(int count, int first = 1, int packets = 7);

/// A port of 127.0.0.1 that is free now.
std::string free_port();

} // namespace quarn::live
