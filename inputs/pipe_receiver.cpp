#include "pipe_receiver.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>

#include "sniff.h"

namespace quarn::inputs {
namespace {

constexpr std::size_t part = std::size_t{64} * 1024;
/// A pipe is looked at once so much has come: a slow one need not fill all of it.
constexpr std::array<std::size_t, 5> looks = {4 << 10, 16 << 10, 64 << 10, 256 << 10, 1 << 20};

} // namespace

void PipeReceiver::start(Poller& poller) {
    poller_ = &poller;
    always_ready_ = !poller.watch(fd_, *this);
    arrival_ = arrival_of(moment().monotonic_ns, moment());
    consumer_.state(InputState::waiting, "reading standard input");
}

/// To be called when the descriptor can be read: one call of read() does not wait then.
bool PipeReceiver::read(const Turn&) {
    if (ended_)
        return false;
    const std::size_t have = bytes_.size();
    bytes_.resize(have + part);
    const ssize_t count = ::read(fd_, bytes_.data() + have, part);
    const int error = errno;
    bytes_.resize(have + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0 && (error == EINTR || error == EAGAIN))
        return false;
    const Moment now = moment();
    arrival_ = arrival_of(std::max(now.monotonic_ns, ns_of(arrival_.ticks)), now);
    const bool end = count <= 0;
    if (framer_ || find_layout(end))
        frame(end);
    if (end && !ended_)
        finish(count < 0 ? std::string("cannot be read: ") + std::strerror(error) : std::string());
    return !ended_ && always_ready_;
}

bool PipeReceiver::find_layout(bool end) {
    const auto* const next = std::ranges::upper_bound(looks, looked_);
    if (!end && (next == looks.end() || bytes_.size() < *next))
        return false;
    looked_ = end ? bytes_.size() : *next;
    if (is_pcap(bytes_)) {
        finish("a capture of a network: only packets are read here, quarn-check reads captures");
    } else if (const auto layout = inputs::find_layout(bytes_, end)) {
        framer_.emplace(*layout);
        packet_size_ = layout->size;
        consumer_.state(InputState::up, "packets come");
    } else if (end || looked_ == looks.back()) {
        finish(bytes_.empty() ? "empty: not one byte" : describe_not_ts(bytes_));
    }
    return framer_.has_value();
}

void PipeReceiver::frame(bool end) {
    const std::size_t done = framer_->feed(bytes_, end, *this);
    feed_.flush();
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(done));
}

void PipeReceiver::finish(std::string_view wrong) {
    ended_ = true;
    stop();
    if (!wrong.empty())
        consumer_.state(InputState::gone, wrong);
    consumer_.ended();
}

void PipeReceiver::tick(const Turn& turn) {
    if (ended_)
        return;
    arrival_ = arrival_of(std::max(turn.now.monotonic_ns, ns_of(arrival_.ticks)), turn.now);
    consumer_.tick(arrival_);
}

void PipeReceiver::stop() {
    if (!always_ready_)
        poller_->forget(fd_);
    always_ready_ = true;
    ended_ = true;
}

void PipeReceiver::packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                           std::uint64_t) {
    for (; count > 0; --count, first += stride)
        feed_.add(first, true, arrival_);
}

void PipeReceiver::packet(const std::uint8_t* packet, const PacketInfo& info) {
    feed_.add(packet, info.sync_right, arrival_);
}

void PipeReceiver::sync_loss(const SyncLoss& loss) {
    feed_.sync_loss(loss, static_cast<int>(packet_size_));
}

} // namespace quarn::inputs
