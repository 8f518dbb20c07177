#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <srt/srt.h>

#include "inputs/socket_address.h"
#include "inputs/srt_receiver.h"
#include "watcher.h"

namespace quarn::live {
namespace {

inputs::Endpoint local(const std::string& port) {
    return inputs::parse_endpoint("127.0.0.1:" + port).value();
}

/// The other side: calls an input, or is called by one.
class Peer {
  public:
    explicit Peer(const std::string& passphrase = {}) : socket_(srt_create_socket()) {
        srt_setsockflag(socket_, SRTO_PASSPHRASE, passphrase.data(),
                        static_cast<int>(passphrase.size()));
    }
    ~Peer() { srt_close(socket_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool call(const std::string& port) const {
        const inputs::SocketAddress to(local(port), 0);
        return srt_connect(socket_, to.get(), static_cast<int>(to.size())) == 0;
    }
    void listen(const std::string& port) const {
        const inputs::SocketAddress at(local(port), 0);
        srt_bind(socket_, at.get(), static_cast<int>(at.size()));
        srt_listen(socket_, 1);
    }
    /// Becomes who called.
    void accept() {
        const SRTSOCKET caller = srt_accept(socket_, nullptr, nullptr);
        srt_close(socket_);
        socket_ = caller;
    }
    void send_all(const std::vector<Bytes>& datagrams) const {
        for (const Bytes& datagram : datagrams) {
            srt_sendmsg2(socket_, reinterpret_cast<const char*>(datagram.data()),
                         static_cast<int>(datagram.size()), nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

  private:
    SRTSOCKET socket_;
};

class Srt : public Watched {
  protected:
    /// Sent and received from end to end.
    void expect_stream(const Peer& peer, Watcher& watcher) {
        const std::size_t before = watcher.seen().raw.size();
        const auto all = datagrams(20);
        peer.send_all(all);
        EXPECT_TRUE(watcher.wait_packets(7 * (before + all.size())));
        const auto seen = watcher.seen();
        EXPECT_TRUE(std::equal(all.begin(), all.end(),
                               seen.raw.begin() + static_cast<std::ptrdiff_t>(before)));
        EXPECT_EQ(seen.wrong, "");
    }

    const std::string port_ = free_port();
    const std::string right_ = "passphrase=0123456789";
    inputs::SrtLibrary library_; // for the peers
};

TEST_F(Srt, a_listener_takes_one_caller_after_the_other) {
    Watcher& watcher = add("srt://127.0.0.1:" + port_ + "?mode=listener");
    EXPECT_TRUE(watcher.wait_state("waiting: waiting for a caller at port " + port_));
    {
        const Peer first;
        ASSERT_TRUE(first.call(port_));
        EXPECT_TRUE(watcher.wait_state("up: connected with 127.0.0.1:"));
        expect_stream(first, watcher);
        EXPECT_FALSE(Peer().call(port_));
        expect_stream(first, watcher);
    }
    EXPECT_TRUE(watcher.wait_state("gone: the caller is gone"));
    const Peer second;
    ASSERT_TRUE(second.call(port_));
    EXPECT_TRUE(watcher.wait([](const auto& seen) {
        return seen.states.back().find("again; it was away") != std::string::npos;
    }));
    expect_stream(second, watcher);
    remove(watcher);
    EXPECT_EQ(watcher.seen().dropped(), 0U);
}

TEST_F(Srt, a_caller_calls_until_it_is_answered_and_again) {
    Watcher& watcher = add("srt://localhost:" + port_ + "?latency=50");
    EXPECT_TRUE(watcher.wait_state("gone: localhost:" + port_ + ": nobody answers"));
    for (int round = 0; round < 2; ++round) {
        Peer peer;
        peer.listen(port_);
        peer.accept();
        EXPECT_TRUE(watcher.wait_state("up: connected with localhost:" + port_ + " again"));
        expect_stream(peer, watcher);
    }
    EXPECT_TRUE(watcher.wait_state("gone: the connection with localhost:"));
}

TEST_F(Srt, passphrases_that_differ_are_told_and_never_shown) {
    Watcher& listener = add("srt://:" + port_ + "?" + right_);
    (void)Peer("another-secret").call(port_);
    EXPECT_TRUE(listener.wait([](const auto& seen) {
        return seen.states.back().ends_with("was refused: the caller's passphrase does not match");
    }));
    const std::string strict = free_port();
    Watcher& bare = add("srt://:" + strict + "?" + right_);
    (void)Peer().call(strict);
    EXPECT_TRUE(bare.wait([](const auto& seen) {
        return seen.states.back().ends_with("does not encrypt, and there is a passphrase here");
    }));
    const Peer peer("0123456789");
    EXPECT_TRUE(peer.call(port_));
    expect_stream(peer, listener);

    const std::string other = free_port();
    Peer called("0123456789");
    called.listen(other);
    Watcher& wrong = add("srt://127.0.0.1:" + other + "?passphrase=another-secret");
    Watcher& none = add("srt://127.0.0.1:" + other);
    EXPECT_TRUE(wrong.wait_state("gone: 127.0.0.1:" + other + ": the passphrase is not that"));
    EXPECT_TRUE(none.wait_state("gone: 127.0.0.1:" + other + ": only one of the two sides"));
    for (Watcher* watcher : {&listener, &bare, &wrong, &none})
        for (const std::string& state : watcher->seen().states) {
            EXPECT_EQ(state.find("0123456789"), std::string::npos) << state;
            EXPECT_EQ(state.find("secret"), std::string::npos) << state;
        }
}

/// Stands between a caller and a listener and loses every sixteenth message for good.
class LossyWire {
  public:
    LossyWire(const std::string& at, const std::string& to)
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), listener_(local(to), 0) {
        const inputs::SocketAddress own(local(at), 0);
        if (bind(fd_, own.get(), own.size()) != 0)
            throw std::runtime_error("no wire");
        thread_ = std::thread([this, to] { run(local(to)); });
    }
    ~LossyWire() {
        done_ = true;
        thread_.join();
        close(fd_);
    }
    LossyWire(const LossyWire&) = delete;
    LossyWire& operator=(const LossyWire&) = delete;

  private:
    void run(const inputs::Endpoint& listener) {
        std::array<std::uint8_t, 2048> bytes;
        sockaddr_storage caller{};
        while (!done_) {
            pollfd ready{fd_, POLLIN, 0};
            if (poll(&ready, 1, 50) <= 0)
                continue;
            sockaddr_storage from{};
            socklen_t size = sizeof from;
            const ssize_t count = recvfrom(fd_, bytes.data(), bytes.size(), 0,
                                           reinterpret_cast<sockaddr*>(&from), &size);
            const bool back = inputs::endpoint_of(reinterpret_cast<sockaddr&>(from)) == listener;
            if (!back)
                caller = from;
            const bool message = count > 0 && (bytes[0] & 0x80) == 0;
            if (count <= 0 || (message && (bytes[3] & 0x0F) == 5))
                continue;
            const auto* to = back ? reinterpret_cast<const sockaddr*>(&caller) : listener_.get();
            (void)sendto(fd_, bytes.data(), static_cast<std::size_t>(count), 0, to,
                         listener_.size());
        }
    }

    const int fd_;
    const inputs::SocketAddress listener_;
    std::atomic<bool> done_ = false;
    std::thread thread_;
};

TEST_F(Srt, what_it_gave_up_is_told_where_it_is_missing) {
    Watcher& watcher = add("srt://127.0.0.1:" + port_ + "?mode=listener&latency=20");
    const std::string wire = free_port();
    const LossyWire lossy(wire, port_);
    const Peer peer;
    ASSERT_TRUE(peer.call(wire));
    constexpr std::size_t sent = 100;
    peer.send_all(datagrams(sent));
    // The first and the last may be among the missing: of these nobody knows.
    EXPECT_TRUE(watcher.wait(
        [](const auto& seen) { return seen.raw.size() + seen.dropped() >= sent - 2; }));
    auto seen = watcher.seen();
    EXPECT_GE(seen.dropped(), 5U);
    EXPECT_LE(seen.raw.size() + seen.dropped(), sent);
    // Every break of the packets stands behind word of it.
    long last = -1;
    for (std::size_t i = 0; i < seen.raw.size(); ++i) {
        const Bytes& raw = seen.raw[i];
        const long serial = raw[4] << 24 | raw[5] << 16 | raw[6] << 8 | raw[7];
        const bool told = std::any_of(seen.drops.begin(), seen.drops.end(),
                                      [i](const auto& drop) { return drop.first == i; });
        EXPECT_TRUE(serial == last + 1 || i == 0 || told) << i;
        last = serial + 6;
    }
}

} // namespace
} // namespace quarn::live
