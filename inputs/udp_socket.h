// A socket that gets the datagrams to an address, or to a multicast group.
#pragma once

#include <cstddef>
#include <string>

#include "url.h"

namespace quarn::inputs {

/// What is known of a network interface.
struct Interface {
    unsigned index = 0; // 0: there is none of that name
    bool up = false;
    bool carrier = false;
};

/// A bound socket that does not block, with stamps of the kernel and counts of overflow where the
/// kernel has them. A group is bound by its own address and gets nothing that others joined.
class UdpSocket {
  public:
    /// Room for some seconds of 10 Mbit/s, while the thread is held up.
    static constexpr int wanted_buffer = 4 << 20;

    /// Binds it. Throws std::runtime_error with what is wrong: a port that is taken, an address
    /// that is not of this machine, no such interface. Addresses of one machine are not shared:
    /// two receivers would steal each other's datagrams; groups are.
    explicit UdpSocket(const InputUrl& url);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    /// Joins the group, on the named interface, else on that of the route to it. Returns an empty
    /// text, or what is wrong: what may be right later.
    std::string join();

    int fd() const { return fd_; }
    /// Bytes of receive buffer that were granted.
    int buffer() const { return buffer_; }
    /// The interface that it depends on; empty where it is none in particular.
    const std::string& interface_name() const { return interface_; }
    /// The same, as it was when the socket was bound to it or the group joined.
    unsigned interface_index() const { return index_; }
    Interface look(const std::string& name) const;

  private:
    void configure();
    void bind_to(const InputUrl& url);
    bool find_route();

    const Endpoint endpoint_;
    const Endpoint source_;
    const bool has_source_;
    const bool multicast_;
    std::string interface_;
    unsigned index_ = 0;
    int fd_ = -1;
    int buffer_ = 0;
};

} // namespace quarn::inputs
