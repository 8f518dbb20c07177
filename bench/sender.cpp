#include "sender.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t most = 64; // datagrams in a call

/// One port, and how far it is.
class Port {
  public:
    Port(unsigned port, std::span<const std::uint8_t> data)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), data_(data),
          of_data_(data.size() / datagram_size) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<std::uint16_t>(port));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        good_ = connect(socket_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
        for (std::size_t i = 0; i < most; ++i) {
            messages_[i].msg_hdr.msg_iov = &bytes_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
        }
    }

    bool good() const { return good_; }
    std::uint64_t sent() const { return sent_; }

    void send_until(std::uint64_t due) {
        while (sent_ < due) {
            const auto count = std::min<std::uint64_t>(due - sent_, most);
            for (std::size_t i = 0; i < count; ++i)
                bytes_[i] = {const_cast<std::uint8_t*>(data_.data()) +
                                 (sent_ + i) % of_data_ * datagram_size,
                             datagram_size};
            const int done = sendmmsg(socket_, messages_.data(), static_cast<unsigned>(count), 0);
            if (done <= 0)
                return;
            sent_ += static_cast<std::uint64_t>(done);
        }
    }

  private:
    int socket_;
    std::span<const std::uint8_t> data_;
    std::size_t of_data_;
    bool good_ = false;
    std::uint64_t sent_ = 0;
    std::array<iovec, most> bytes_{};
    std::array<mmsghdr, most> messages_{};
};

} // namespace

std::uint64_t send_paced(std::span<const std::uint8_t> data, const Pace& pace) {
    std::vector<Port> ports;
    ports.reserve(pace.inputs); // a port points into itself
    for (unsigned i = 0; i < pace.inputs; ++i)
        if (!ports.emplace_back(pace.first_port + i, data).good())
            return 0;
    const double rate = pace.bits_per_second / 8 / datagram_size; // datagrams a second and port
    const auto begin = Clock::now();
    for (double at = 0; at < pace.seconds;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        at = std::chrono::duration<double>(Clock::now() - begin).count();
        const auto due = static_cast<std::uint64_t>(rate * std::min(at, pace.seconds));
        for (Port& port : ports)
            port.send_until(due);
    }
    std::uint64_t all = 0;
    for (const Port& port : ports)
        all += port.sent();
    return all;
}
