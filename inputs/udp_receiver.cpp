#include "udp_receiver.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <utility>

namespace quarn::inputs {
namespace {

/// So many batches, or bytes, of one input a turn.
constexpr int most_batches = 4;
constexpr std::size_t most_bytes = std::size_t{256} * 1024;

/// Lent to one input after the other.
thread_local UdpBatch batch;

constexpr std::int64_t look_interval = ns_per_s;
constexpr std::int64_t left_out_interval = 60 * ns_per_s;

/// How many datagrams the socket has dropped, if none waits in it.
std::optional<std::uint32_t> dropped_of_empty(int fd) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info.data(), &size) != 0)
        return {};
    // Looked at behind it: an empty datagram cannot be told from none, and waits for its turn.
    int waiting = 0;
    if (ioctl(fd, SIOCINQ, &waiting) != 0 || waiting != 0)
        return {};
    return info[SK_MEMINFO_DROPS];
}

} // namespace

UdpReceiver::UdpReceiver(const InputUrl& url, Consumer& consumer)
    : url_(url), consumer_(consumer), socket_(std::make_unique<UdpSocket>(url)),
      stream_(consumer, 0), last_ns_(moment().monotonic_ns), emptied_ns_(last_ns_) {}

void UdpReceiver::start(Poller& poller) {
    poller_ = &poller;
    connect();
    if (trouble_.empty())
        consumer_.state(state_, listening());
    else
        gone(trouble_, last_ns_);
}

// ---- datagrams ---------------------------------------------------------------------------------

bool UdpReceiver::read(const Turn& turn) {
    std::size_t bytes = 0;
    for (int round = 0; socket_ && round < most_batches && bytes < most_bytes; ++round) {
        const std::int64_t before = moment().monotonic_ns;
        const std::size_t count = batch.receive(socket_->fd());
        const std::int64_t latest = moment().monotonic_ns;
        for (std::size_t i = 0; i < count; ++i) {
            const auto datagram = batch.at(i);
            bytes += datagram.bytes.size();
            if (datagram.dropped)
                note_dropped(*datagram.dropped);
            if (!from_source(i))
                continue;
            if (url_.scheme == InputUrl::Scheme::rtp && !parse_rtp(datagram.bytes))
                ++left_out_;
            else {
                senders_.add(batch.from(i));
                take(datagram, turn, latest);
            }
        }
        if (count < UdpBatch::most) {
            emptied_ns_ = before;
            return false;
        }
    }
    return true;
}

/// Whether a datagram of the batch was sent by whom the URL names, if anybody.
bool UdpReceiver::from_source(std::size_t index) const {
    return !url_.has_source || url_.multicast() || batch.is_from(index, url_.source);
}

void UdpReceiver::take(const UdpBatch::Datagram& datagram, const Turn& turn,
                       std::int64_t latest_ns) {
    if (state_ != InputState::up && trouble_.empty()) {
        state_ = InputState::up;
        consumer_.state(state_, was_away_ ? "receiving datagrams again; it was away for " +
                                                retry_.gone_for(latest_ns)
                                          : senders_.text());
        was_away_ = false;
    }
    came_ = true;
    last_ns_ = datagram.stamp_ns == 0
                   ? std::max(latest_ns, last_ns_)
                   : turn.stamps.monotonic_ns(datagram.stamp_ns, last_ns_, latest_ns);
    const Arrival arrival{ticks_of(last_ns_), datagram.stamp_ns == 0
                                                  ? arrival_of(last_ns_, turn.now).utc_us
                                                  : datagram.stamp_ns / 1000};
    consumer_.raw(datagram.bytes, arrival);
    stream_.push({datagram.bytes, arrival.ticks, arrival.utc_us});
}

void UdpReceiver::look_at_senders(std::int64_t now_ns) {
    const auto news = senders_.look(now_ns);
    if (news && state_ == InputState::up)
        consumer_.state(state_, *news);
}

void UdpReceiver::note_dropped(std::uint32_t dropped) {
    const std::uint32_t more = dropped - dropped_;
    dropped_ = dropped;
    if (more != 0)
        consumer_.own_drops(more);
}

/// The kernel tells of drops by the next datagram, which may never come.
void UdpReceiver::note_dropped_at_the_end() {
    if (const auto dropped = dropped_of_empty(socket_->fd()))
        note_dropped(*dropped);
}

void UdpReceiver::tick(const Turn& turn) {
    if (socket_ && !read(turn))
        note_dropped_at_the_end();
    // What still waits in the socket came before now: time goes on no further than to what was
    // read, lest packets seem missing that are only late for the reader.
    const std::int64_t time = std::max(last_ns_, socket_ ? emptied_ns_ : turn.now.monotonic_ns);
    last_ns_ = time;
    stream_.expire(ticks_of(time));
    Arrival now = arrival_of(time, turn.now);
    if (const Ticks held = stream_.waiting_since(); held != no_time && held < now.ticks)
        now = arrival_of(ns_of(held), turn.now);
    consumer_.tick(now);
    look_after(turn.now.monotonic_ns);
}

void UdpReceiver::stop() {
    stream_.flush();
    if (socket_)
        poller_->forget(socket_->fd());
    socket_.reset();
}

// ---- the interface, and the group --------------------------------------------------------------

std::string UdpReceiver::listening() const {
    std::string text = "listening at " + to_string(url_.endpoint);
    if (!socket_->interface_name().empty())
        text += " on " + socket_->interface_name();
    if (socket_->buffer() < UdpSocket::wanted_buffer)
        text += "; its receive buffer has " + std::to_string(socket_->buffer() / 1024) +
                " kB instead of " + std::to_string(UdpSocket::wanted_buffer / 1024) +
                " kB: set net.core.rmem_max to " + std::to_string(UdpSocket::wanted_buffer);
    return text;
}

/// Once a second. What is wrong with the interface is looked at each time, since that costs little;
/// attempts to open and to join come further and further apart.
void UdpReceiver::look_after(std::int64_t now_ns) {
    if (left_out_ > 0 && trouble_.empty() &&
        (left_out_told_ns_ == 0 || now_ns - left_out_told_ns_ >= left_out_interval))
        tell_left_out(now_ns);
    if (now_ns - looked_ns_ < look_interval)
        return;
    looked_ns_ = now_ns;
    const bool came = std::exchange(came_, false);
    look_at_senders(now_ns);
    // Datagrams prove it wrong: a bridge without a port has no carrier, but senders of its own.
    if (const std::string now_wrong = trouble(); !now_wrong.empty() && !(came && joined_)) {
        if (now_wrong != trouble_)
            gone(now_wrong, now_ns);
        retry_.soon(now_ns);
        return;
    }
    if (!retry_.away())
        return;
    if (socket_ && joined_) {
        trouble_.clear();
    } else {
        if (!retry_.due(now_ns))
            return;
        const std::string before = trouble_;
        if (open_again())
            connect();
        if (!trouble_.empty()) {
            retry_.failed(now_ns);
            if (trouble_ != before)
                consumer_.state(InputState::gone, trouble_);
            return;
        }
    }
    back(now_ns, came);
}

/// What is wrong with the interface that it depends on. Without it the kernel has forgotten what
/// was joined there, and what the socket was bound to.
std::string UdpReceiver::trouble() {
    if (!socket_ || socket_->interface_name().empty())
        return {};
    const std::string& name = socket_->interface_name();
    const Interface found = socket_->look(name);
    if (found.index != socket_->interface_index())
        joined_ = false; // none, or another one of that name
    if (found.index == 0 && !url_.interface_name.empty())
        return "interface " + name + " is gone";
    if (!joined_) { // without a name in the URL there may be another route by now
        if (!retry_.away())
            gone("interface " + name + " is gone, or was replaced", looked_ns_);
        return {};
    }
    if (!found.up)
        return "interface " + name + " is down";
    if (!found.carrier)
        return "interface " + name + " has no carrier";
    return {};
}

bool UdpReceiver::open_again() {
    if (socket_)
        poller_->forget(socket_->fd());
    socket_.reset();
    try {
        socket_ = std::make_unique<UdpSocket>(url_);
    } catch (const std::runtime_error& error) {
        trouble_ = error.what();
        return false;
    }
    dropped_ = 0;
    return true;
}

void UdpReceiver::connect() {
    trouble_ = socket_->join();
    if (trouble_.empty() && !poller_->watch(socket_->fd(), *this))
        trouble_ = "the system has no room to wait for more inputs: fs.epoll.max_user_watches";
    joined_ = trouble_.empty();
}

void UdpReceiver::gone(const std::string& why, std::int64_t now_ns) {
    trouble_ = why;
    retry_.failed(now_ns);
    state_ = InputState::gone;
    consumer_.state(state_, why);
}

void UdpReceiver::back(std::int64_t now_ns, bool came) {
    retry_.back(now_ns);
    was_away_ = !came;
    state_ = came ? InputState::up : InputState::waiting;
    consumer_.state(state_, (came ? std::string("receiving datagrams again") : listening()) +
                                "; it was away for " + retry_.gone_for(now_ns));
}

void UdpReceiver::tell_left_out(std::int64_t now_ns) {
    consumer_.state(state_, std::to_string(left_out_) +
                                " datagrams without RTP were left out: udp:// takes both");
    left_out_ = 0;
    left_out_told_ns_ = now_ns;
}

} // namespace quarn::inputs
