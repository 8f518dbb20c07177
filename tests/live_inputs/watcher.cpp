#include "watcher.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <numeric>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "inputs/socket_address.h"

namespace quarn::live {

template <typename Note>
void Watcher::note(Note note) {
    const std::lock_guard gate(gate_);
    {
        const std::lock_guard lock(mutex_);
        if (seen_.ended)
            seen_.wrong += " something behind the end;";
        note();
    }
    changed_.notify_all();
}

void Watcher::check(inputs::Ticks ticks) {
    if (ticks == inputs::no_time || ticks < last_)
        seen_.wrong += " time runs from " + std::to_string(last_) + " to " + std::to_string(ticks);
    last_ = ticks;
}

void Watcher::raw(std::span<const std::uint8_t> datagram, const Arrival& when) {
    note([&] {
        if (when.ticks < last_)
            seen_.wrong += " a datagram from before the last packet;";
        // A flood is counted on, but not kept.
        const bool kept = (bytes_ += datagram.size()) < std::size_t{64} << 20;
        seen_.raw.emplace_back(datagram.begin(), kept ? datagram.end() : datagram.begin());
    });
}

void Watcher::own_drops(std::uint64_t datagrams) {
    note([&] { seen_.drops.emplace_back(seen_.raw.size(), datagrams); });
}

void Watcher::state(InputState state, std::string_view text) {
    static constexpr const char* words[] = {"waiting: ", "up: ", "gone: "};
    note([&] { seen_.states.push_back(words[static_cast<int>(state)] + std::string(text)); });
}

void Watcher::tick(const Arrival& now) {
    note([&] {
        check(now.ticks);
        ++seen_.ticks;
    });
}

void Watcher::ended() {
    note([&] { seen_.ended = true; });
}

void Watcher::restarted() {
    note([&] { ++seen_.restarts; });
}

void Watcher::packets(const std::uint8_t*, std::size_t, std::size_t, std::uint64_t) {
    note([&] { seen_.wrong += " packets without arrival;"; });
}

void Watcher::packet(const std::uint8_t* packet, const inputs::PacketInfo& info) {
    note([&] {
        check(info.arrival);
        if (info.byte != 188 * seen_.packets.infos.size())
            seen_.wrong += " a packet at another place;";
        seen_.packets.packet(packet, info);
    });
}

void Watcher::sync_loss(const inputs::SyncLoss& loss) {
    note([&] { seen_.packets.sync_loss(loss); });
}

void Watcher::datagrams(const inputs::DatagramEvent& event) {
    note([&] { seen_.packets.datagrams(event); });
}

void Watcher::truncated(std::uint64_t byte, std::int64_t bytes) {
    note([&] { seen_.packets.truncated(byte, bytes); });
}

std::uint64_t Watcher::Seen::dropped() const {
    return std::accumulate(drops.begin(), drops.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& drop) { return sum + drop.second; });
}

bool Watcher::Seen::is(const std::string& state) const {
    return !states.empty() && states.back().starts_with(state);
}

bool Watcher::wait(const std::function<bool(const Seen&)>& holds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return holds(seen_); });
}

bool Watcher::wait_packets(std::size_t count) {
    return wait([count](const Seen& seen) { return seen.packets.infos.size() >= count; });
}

bool Watcher::wait_state(const std::string& begin) {
    return wait([&](const Seen& seen) { return seen.is(begin); });
}

Watcher::Seen Watcher::seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
}

inputs::InputUrl url(const std::string& text) {
    auto parsed = inputs::parse_url(text);
    if (const auto* wrong = std::get_if<std::string>(&parsed))
        throw std::runtime_error(text + ": " + *wrong);
    return std::get<inputs::InputUrl>(parsed);
}

Watcher& Watched::add(const std::string& text) {
    auto& [watcher, handle] = watchers_.emplace_back();
    handle = loops_->add(url(text), watcher);
    return watcher;
}

void Watched::remove(const Watcher& watcher) {
    for (auto& [one, handle] : watchers_)
        if (&one == &watcher && handle) {
            loops_->remove(*handle);
            handle.reset();
        }
}

void Watched::remove_all() {
    for (const auto& [watcher, handle] : watchers_)
        remove(watcher);
}

Sender::Sender(const std::string& to, const std::string& from, const std::string& interface_name) {
    const auto endpoint = inputs::parse_endpoint(to).value();
    const unsigned index = if_nametoindex(interface_name.c_str());
    const int as_index = static_cast<int>(index);
    fd_ = socket(endpoint.v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (endpoint.v6 && index != 0)
        setsockopt(fd_, IPPROTO_IPV6, IPV6_MULTICAST_IF, &as_index, sizeof as_index);
    ip_mreqn through{};
    through.imr_ifindex = as_index;
    if (!endpoint.v6 && index != 0)
        setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &through, sizeof through);
    if (!from.empty()) {
        const inputs::SocketAddress own(inputs::parse_endpoint(from).value(), index);
        if (bind(fd_, own.get(), own.size()) != 0)
            throw std::runtime_error("cannot send from " + from);
    }
    const inputs::SocketAddress address(endpoint, index);
    if (connect(fd_, address.get(), address.size()) != 0)
        throw std::runtime_error("cannot send to " + to);
}

Sender::~Sender() {
    close(fd_);
}

bool Sender::send(const Bytes& datagram) const {
    return ::send(fd_, datagram.data(), datagram.size(), 0) ==
           static_cast<ssize_t>(datagram.size());
}

void Sender::send_all(const std::vector<Bytes>& datagrams) const {
    for (const Bytes& datagram : datagrams)
        send(datagram);
}

std::vector<Bytes> datagrams(int count, int packets) {
    const auto capture = inputs::Capture().packets(count * packets);
    std::vector<Bytes> all;
    for (auto at = capture.bytes.begin(); at != capture.bytes.end(); at += 188 * packets)
        all.emplace_back(at, at + 188 * packets);
    return all;
}

std::vector<Bytes> rtp_datagrams(int count, int first, int packets) {
    std::vector<Bytes> all = datagrams(count, packets);
    for (Bytes& datagram : all)
        datagram = inputs::rtp(static_cast<std::uint16_t>(first++), datagram);
    return all;
}

std::string free_port() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    inputs::SocketAddress address({.address = {127, 0, 0, 1}}, 0);
    if (bind(fd, address.get(), address.size()) != 0 || !address.take_local(fd))
        throw std::runtime_error("no port is free");
    close(fd);
    return std::to_string(inputs::endpoint_of(*address.get()).value().port);
}

} // namespace quarn::live
