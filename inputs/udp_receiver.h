// A live input of datagrams: UDP, with or without RTP.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "datagram_stream.h"
#include "receiver.h"
#include "retry.h"
#include "senders.h"
#include "udp_batch.h"
#include "udp_socket.h"
#include "url.h"

namespace quarn::inputs {

/// Datagrams that this machine drops for want of room are its own and told as such, in their place.
/// rtp:// leaves out what has no RTP header, and says so; udp:// takes both. With a source that
/// sends to an address and not to a group, datagrams of others are left out. Without one the sender
/// is told, and that there are two whose streams get mixed.
///
/// An interface that goes away or loses its carrier, and a group that cannot be joined, are told
/// and tried again; silence is not, for what is missing of a stream is found by who measures it.
class UdpReceiver : public Receiver {
  public:
    /// Opens it, see UdpSocket. `url` is udp or rtp.
    UdpReceiver(const InputUrl& url, Consumer& consumer);

    void start(Poller& poller) override;
    bool read(const Turn& turn) override;
    void tick(const Turn& turn) override;
    void stop() override;

  private:
    void take(const UdpBatch::Datagram& datagram, const Turn& turn, std::int64_t latest_ns);
    void look_at_senders(std::int64_t now_ns);
    bool from_source(std::size_t index) const;
    void note_dropped(std::uint32_t dropped);
    void note_dropped_at_the_end();
    void look_after(std::int64_t now_ns);
    std::string trouble();
    bool open_again();
    void connect();
    void gone(const std::string& why, std::int64_t now_ns);
    void back(std::int64_t now_ns, bool came);
    std::string listening() const;
    void tell_left_out(std::int64_t now_ns);

    const InputUrl url_;
    Consumer& consumer_;
    Poller* poller_ = nullptr;
    std::unique_ptr<UdpSocket> socket_;
    std::string trouble_; // empty: none
    bool joined_ = false;
    Retry retry_;
    InputState state_ = InputState::waiting;
    bool was_away_ = false; // and nothing has come since

    DatagramStream stream_;
    Senders senders_;
    std::int64_t last_ns_;    // the latest time that was told
    std::int64_t emptied_ns_; // nothing from before it waits in the socket
    std::uint32_t dropped_ = 0;
    std::int64_t looked_ns_ = 0; // at the interface
    bool came_ = false;          // a datagram since then
    std::uint64_t left_out_ = 0; // not yet told
    std::int64_t left_out_told_ns_ = 0;
};

} // namespace quarn::inputs
