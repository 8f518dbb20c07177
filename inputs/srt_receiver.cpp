#include "srt_receiver.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <srt/srt.h>

#include "socket_address.h"

namespace quarn::inputs {
namespace {

constexpr int most_messages = 128;            // a turn
constexpr std::size_t largest_message = 1500; // live mode has at most 1456 bytes
constexpr std::int32_t sequence_mask = 0x7FFFFFFF;
constexpr std::int64_t undecrypted_interval = 60 * ns_per_s;
constexpr std::int64_t refused_interval = 10 * ns_per_s;
/// The first version whose handshake settles encryption.
constexpr int least_version = 0x010300;

template <typename Value>
void set(SRTSOCKET socket, SRT_SOCKOPT option, const Value& value) {
    if (srt_setsockflag(socket, option, &value, sizeof value) != 0)
        throw std::runtime_error(std::string("SRT refuses a setting: ") + srt_getlasterror_str());
}

int get(SRTSOCKET socket, SRT_SOCKOPT option) {
    int value = 0;
    int size = sizeof value;
    return srt_getsockflag(socket, option, &value, &size) == 0 ? value : -1;
}

std::string where(const InputUrl& url) {
    const bool v6 = url.host.find(':') != std::string::npos;
    return (v6 ? "[" + url.host + "]" : url.host) + ":" + std::to_string(url.endpoint.port);
}

std::string reason_of(SRTSOCKET socket) {
    const int reason = srt_getrejectreason(socket);
    switch (reason) {
    case SRT_REJ_UNKNOWN:
    case SRT_REJ_TIMEOUT:
        return "nobody answers";
    case SRT_REJ_BADSECRET:
        return "the passphrase is not that of the other side";
    case SRT_REJ_UNSECURE:
        return "only one of the two sides has a passphrase";
    default:
        return std::string("refused: ") + srt_rejectreason_str(reason);
    }
}

/// What is wrong with the encryption of a connection that was accepted; empty if nothing is.
std::string secrecy_of(SRTSOCKET socket, bool wanted) {
    const int state = get(socket, SRTO_RCVKMSTATE);
    if (state == SRT_KM_S_BADSECRET)
        return "the caller's passphrase does not match";
    if (state == SRT_KM_S_NOSECRET)
        return "the caller encrypts, and there is no passphrase here";
    if (wanted && state != SRT_KM_S_SECURED)
        return "the caller does not encrypt, and there is a passphrase here";
    return {};
}

/// Called by a thread of libsrt for each caller.
int refuse_if_busy(void* busy, SRTSOCKET, int, const sockaddr*, const char*) {
    return *static_cast<const std::atomic<bool>*>(busy) ? -1 : 0;
}

} // namespace

SrtLibrary::SrtLibrary() {
    if (srt_startup() < 0)
        throw std::runtime_error(std::string("no SRT: ") + srt_getlasterror_str());
    // What matters is told as states of inputs.
    srt_setloghandler(nullptr, [](void*, int, const char*, int, const char*, const char*) {});
}

SrtLibrary::~SrtLibrary() {
    srt_cleanup();
}

SrtReceiver::SrtReceiver(const InputUrl& url, Consumer& consumer)
    : url_(url), consumer_(consumer), listener_(SRT_INVALID_SOCK), socket_(SRT_INVALID_SOCK),
      stream_(consumer, 0), last_ns_(moment().monotonic_ns), emptied_ns_(last_ns_) {
    if (!caller())
        listen();
}

SrtReceiver::~SrtReceiver() {
    close_socket(socket_);
    close_socket(listener_);
}

void SrtReceiver::close_socket(int& socket) {
    if (socket == SRT_INVALID_SOCK)
        return;
    if (poller_)
        poller_->forget(socket);
    srt_close(socket);
    socket = SRT_INVALID_SOCK;
}

int SrtReceiver::new_socket() const {
    const SRTSOCKET socket = srt_create_socket();
    if (socket == SRT_INVALID_SOCK)
        throw std::runtime_error(std::string("no SRT socket: ") + srt_getlasterror_str());
    try {
        set(socket, SRTO_RCVSYN, false);
        set(socket, SRTO_LATENCY, static_cast<int>(url_.latency.count()));
        set(socket, SRTO_MINVERSION, least_version);
        if (!url_.passphrase.empty() &&
            srt_setsockflag(socket, SRTO_PASSPHRASE, url_.passphrase.data(),
                            static_cast<int>(url_.passphrase.size())) != 0)
            throw std::runtime_error("SRT refuses the passphrase");
        // A listener would not hear of callers with a wrong one, so it looks at them itself.
        set(socket, SRTO_ENFORCEDENCRYPTION, caller());
    } catch (...) {
        srt_close(socket);
        throw;
    }
    return socket;
}

void SrtReceiver::start(Poller& poller) {
    poller_ = &poller;
    if (caller()) {
        tell(InputState::waiting, "calling " + where(url_));
        call();
    } else {
        poller.watch(listener_, *this);
        tell(InputState::waiting,
             "waiting for a caller at port " + std::to_string(url_.endpoint.port));
    }
}

void SrtReceiver::stop() {
    close_socket(socket_);
    close_socket(listener_);
    stream_.flush();
}

void SrtReceiver::tell(InputState state, const std::string& text) {
    if (state == state_ && text == told_)
        return;
    state_ = state;
    told_ = text;
    consumer_.state(state, text);
}

// ---- connections -------------------------------------------------------------------------------

void SrtReceiver::listen() {
    listener_ = new_socket();
    const SocketAddress address(url_.endpoint, 0);
    if (url_.endpoint.v6)
        set(listener_, SRTO_IPV6ONLY, 1); // [::] is beside 0.0.0.0
    srt_listen_callback(listener_, refuse_if_busy, &busy_);
    if (srt_bind(listener_, address.get(), static_cast<int>(address.size())) == 0 &&
        srt_listen(listener_, 1) == 0)
        return;
    const std::string error = srt_getlasterror_str();
    close_socket(listener_);
    throw PortTaken("cannot listen for SRT at " + to_string(url_.endpoint) +
                    ": the port is taken, or the address is not of this machine (" + error + ")");
}

void SrtReceiver::call() {
    if (url_.host_is_address)
        call_address(url_.endpoint);
    else
        resolver_.emplace(url_.host, url_.endpoint.port);
}

void SrtReceiver::call_address(const Endpoint& to) {
    try {
        socket_ = new_socket();
    } catch (const std::runtime_error& error) {
        failed(error.what());
        return;
    }
    const SocketAddress address(to, 0);
    if (srt_connect(socket_, address.get(), static_cast<int>(address.size())) < 0)
        failed(where(url_) + ": " + srt_getlasterror_str());
    else
        poller_->watch(socket_, *this);
}

void SrtReceiver::look_at_call() {
    if (resolver_) {
        if (!resolver_->done())
            return;
        const Resolver resolved = *resolver_;
        resolver_.reset();
        if (resolved.endpoint())
            call_address(*resolved.endpoint());
        else
            failed(resolved.error());
    } else if (socket_ == SRT_INVALID_SOCK) {
        if (retry_.due(moment().monotonic_ns))
            call();
    } else if (const SRT_SOCKSTATUS state = srt_getsockstate(socket_); state == SRTS_CONNECTED) {
        connected(where(url_));
    } else if (state > SRTS_CONNECTED) {
        failed(where(url_) + ": " + reason_of(socket_));
    }
}

void SrtReceiver::accept() {
    sockaddr_storage from{};
    int size = sizeof from;
    const SRTSOCKET taken = srt_accept(listener_, reinterpret_cast<sockaddr*>(&from), &size);
    if (taken == SRT_INVALID_SOCK)
        return;
    const auto peer = endpoint_of(reinterpret_cast<const sockaddr&>(from));
    const std::string name = peer ? to_string(*peer) : "a caller";
    if (const auto wrong = secrecy_of(taken, !url_.passphrase.empty()); !wrong.empty()) {
        srt_close(taken);
        ++refused_;
        why_refused_ = name + " was refused: " + wrong;
        tell_refused();
        return;
    }
    socket_ = taken;
    busy_ = true;
    poller_->watch(socket_, *this);
    connected(name);
}

/// One caller as he comes, many as a number now and then.
void SrtReceiver::tell_refused() {
    const std::int64_t now_ns = moment().monotonic_ns;
    if (refused_ == 0 || now_ns < refused_told_ns_ + refused_interval)
        return;
    const std::string others =
        refused_ == 1 ? std::string() : " (and " + std::to_string(refused_ - 1) + " before)";
    tell(state_, why_refused_ + others);
    refused_ = 0;
    refused_told_ns_ = now_ns;
}

void SrtReceiver::connected(const std::string& with) {
    connected_ = true;
    next_sequence_ = -1;
    missing_ = own_drops_ = 0;
    undecrypted_ = 0;
    const std::int64_t now_ns = moment().monotonic_ns;
    if (!retry_.away()) {
        tell(InputState::up, "connected with " + with);
        return;
    }
    retry_.back(now_ns);
    tell(InputState::up,
         "connected with " + with + " again; it was away for " + retry_.gone_for(now_ns));
}

/// Of a call or a connection.
void SrtReceiver::failed(const std::string& why) {
    close_socket(socket_);
    connected_ = false;
    busy_ = false;
    retry_.failed(moment().monotonic_ns);
    tell(InputState::gone, why);
}

// ---- messages ----------------------------------------------------------------------------------

bool SrtReceiver::read(const Turn& turn) {
    if (!connected_ && caller())
        look_at_call();
    else if (!connected_ && retry_.due(moment().monotonic_ns)) // no sooner than a second later
        accept();
    return connected_ && receive(turn);
}

bool SrtReceiver::receive(const Turn& turn) {
    std::array<char, largest_message> message;
    for (int i = 0; i < most_messages; ++i) {
        const std::int64_t before = moment().monotonic_ns;
        SRT_MSGCTRL control = srt_msgctrl_default;
        const int size =
            srt_recvmsg2(socket_, message.data(), static_cast<int>(message.size()), &control);
        if (size >= 0) {
            take({reinterpret_cast<const std::uint8_t*>(message.data()),
                  static_cast<std::size_t>(size)},
                 control, turn);
        } else if (srt_getlasterror(nullptr) == SRT_EASYNCRCV) {
            emptied_ns_ = before;
            return false;
        } else {
            look_at_statistics();
            failed(caller() ? "the connection with " + where(url_) + " is lost"
                            : "the caller is gone: waiting for the next one");
            return false;
        }
    }
    return true;
}

/// When SRT had it ready, which is its sender's pace; the thread may have come later.
std::int64_t SrtReceiver::delivered_ns(const SRT_MSGCTRL& control) const {
    constexpr std::int64_t longest_us = 10'000'000;
    const std::int64_t now_ns = moment().monotonic_ns;
    const std::int64_t age_us = srt_time_now() - control.srctime;
    const bool known = control.srctime > 0 && age_us >= 0 && age_us < longest_us;
    return std::max(last_ns_, known ? now_ns - age_us * 1000 : now_ns);
}

void SrtReceiver::take(std::span<const std::uint8_t> message, const SRT_MSGCTRL& control,
                       const Turn& turn) {
    note_gap(control.pktseq);
    last_ns_ = delivered_ns(control);
    const Arrival arrival = arrival_of(last_ns_, turn.now);
    consumer_.raw(message, arrival);
    stream_.push({message, arrival.ticks, arrival.utc_us});
}

/// Statistics know how many are missing, sequence numbers where.
void SrtReceiver::note_gap(std::int32_t sequence) {
    const std::int32_t gap = next_sequence_ < 0 ? 0 : (sequence - next_sequence_) & sequence_mask;
    next_sequence_ = (sequence + 1) & sequence_mask;
    if (gap == 0 || gap > sequence_mask / 2)
        return;
    missing_ += static_cast<std::uint64_t>(gap);
    const std::uint64_t more = missing_ > own_drops_ ? missing_ - own_drops_ : 0;
    own_drops_ += more;
    consumer_.own_drops(more);
}

void SrtReceiver::look_at_statistics() {
    SRT_TRACEBSTATS statistics{};
    if (srt_bistats(socket_, &statistics, 0, 1) != 0)
        return;
    const auto dropped = static_cast<std::uint64_t>(std::max(statistics.pktRcvDropTotal, 0));
    if (dropped > own_drops_) {
        consumer_.own_drops(dropped - own_drops_);
        own_drops_ = dropped;
    }
    const std::int64_t undecrypted = statistics.pktRcvUndecryptTotal;
    if (undecrypted <= undecrypted_ ||
        (undecrypted_told_ns_ != 0 && emptied_ns_ - undecrypted_told_ns_ < undecrypted_interval))
        return;
    undecrypted_told_ns_ = emptied_ns_;
    tell(state_, std::to_string(undecrypted - undecrypted_) + " messages could not be decrypted");
    undecrypted_ = undecrypted;
}

void SrtReceiver::tick(const Turn& turn) {
    read(turn);
    if (connected_)
        look_at_statistics();
    tell_refused();
    const std::int64_t time = std::max(last_ns_, connected_ ? emptied_ns_ : turn.now.monotonic_ns);
    last_ns_ = time;
    stream_.expire(ticks_of(time));
    Arrival now = arrival_of(time, turn.now);
    if (const Ticks held = stream_.waiting_since(); held != no_time && held < now.ticks)
        now = arrival_of(ns_of(held), turn.now);
    consumer_.tick(now);
}

} // namespace quarn::inputs
