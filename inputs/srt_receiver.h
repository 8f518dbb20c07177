// A live input over SRT.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "datagram_stream.h"
#include "receiver.h"
#include "resolver.h"
#include "retry.h"
#include "url.h"

struct SRT_MsgCtrl_;

namespace quarn::inputs {

/// Calls another side, again and again until it answers, or takes one caller after the other; one
/// that comes while another is connected is refused. Its messages are datagrams that arrive when
/// SRT hands them over. To be made in the thread that runs it, with libsrt started.
///
/// What SRT gave up, since it did not come within the latency, counts as dropped by this machine:
/// another receiver, or another latency, may have got it, so it says nothing about the stream.
class SrtReceiver : public Receiver {
  public:
    /// A listener's port is bound here: throws std::runtime_error if it is taken.
    SrtReceiver(const InputUrl& url, Consumer& consumer);
    ~SrtReceiver() override;

    void start(Poller& poller) override;
    bool read(const Turn& turn) override;
    void tick(const Turn& turn) override;
    void stop() override;

  private:
    bool caller() const { return url_.mode == InputUrl::Mode::caller; }
    int new_socket() const;
    void listen();
    void call();
    void call_address(const Endpoint& to);
    void look_at_call();
    void accept();
    void tell_refused();
    void connected(const std::string& with);
    void failed(const std::string& why);
    bool receive(const Turn& turn);
    void take(std::span<const std::uint8_t> message, const SRT_MsgCtrl_& control, const Turn& turn);
    std::int64_t delivered_ns(const SRT_MsgCtrl_& control) const;
    void note_gap(std::int32_t sequence);
    void look_at_statistics();
    void close_socket(int& socket);
    void tell(InputState state, const std::string& text);

    const InputUrl url_;
    Consumer& consumer_;
    Poller* poller_ = nullptr;
    int listener_;
    int socket_;                     // that calls, or is connected
    bool connected_ = false;         // socket_
    std::atomic<bool> busy_ = false; // a caller is connected; read by a thread of libsrt
    std::optional<Resolver> resolver_;
    Retry retry_;
    std::uint64_t refused_ = 0; // callers, not yet told
    std::string why_refused_;   // the last of them
    std::int64_t refused_told_ns_ = -60 * ns_per_s;
    InputState state_ = InputState::waiting;
    std::string told_;

    DatagramStream stream_;
    std::int64_t last_ns_;    // the latest time that was told
    std::int64_t emptied_ns_; // what was due before has been read

    // Of the connection.
    std::int32_t next_sequence_ = -1; // -1: none came yet
    std::uint64_t missing_ = 0;       // by gaps of sequence numbers
    std::uint64_t own_drops_ = 0;     // that were told
    std::int64_t undecrypted_ = 0;
    std::int64_t undecrypted_told_ns_ = 0;
};

/// libsrt itself, as long as one of these is there.
class SrtLibrary {
  public:
    SrtLibrary();
    ~SrtLibrary();
    SrtLibrary(const SrtLibrary&) = delete;
    SrtLibrary& operator=(const SrtLibrary&) = delete;
};

} // namespace quarn::inputs
