// Addresses as the socket functions take them.
#pragma once

#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>

#include "endpoint.h"

namespace quarn::inputs {

/// Address and port, of IPv4 or IPv6; nothing for others.
inline std::optional<Endpoint> endpoint_of(const sockaddr& address) {
    Endpoint endpoint;
    if (address.sa_family == AF_INET) {
        sockaddr_in in{};
        std::memcpy(&in, &address, sizeof in);
        std::memcpy(endpoint.address.data(), &in.sin_addr, sizeof in.sin_addr);
        endpoint.port = ntohs(in.sin_port);
    } else if (address.sa_family == AF_INET6) {
        sockaddr_in6 in{};
        std::memcpy(&in, &address, sizeof in);
        endpoint.v6 = true;
        std::memcpy(endpoint.address.data(), &in.sin6_addr, sizeof in.sin6_addr);
        endpoint.port = ntohs(in.sin6_port);
    } else {
        return {};
    }
    return endpoint;
}

class SocketAddress {
  public:
    SocketAddress() = default;
    /// `index` of the interface: link-local addresses need it, for others it does not count.
    SocketAddress(const Endpoint& endpoint, unsigned index) {
        if (endpoint.v6) {
            sockaddr_in6 in{};
            in.sin6_family = AF_INET6;
            in.sin6_port = htons(endpoint.port);
            in.sin6_scope_id = index;
            std::memcpy(&in.sin6_addr, endpoint.address.data(), sizeof in.sin6_addr);
            put(in);
        } else {
            sockaddr_in in{};
            in.sin_family = AF_INET;
            in.sin_port = htons(endpoint.port);
            std::memcpy(&in.sin_addr, endpoint.address.data(), sizeof in.sin_addr);
            put(in);
        }
    }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
    socklen_t size() const { return size_; }
    void copy_to(sockaddr_storage& other) const { other = storage_; }
    /// The address that a socket has on this machine. False if it has none.
    bool take_local(int fd) {
        size_ = sizeof storage_;
        return getsockname(fd, reinterpret_cast<sockaddr*>(&storage_), &size_) == 0;
    }

  private:
    template <typename In>
    void put(const In& in) {
        std::memcpy(&storage_, &in, sizeof in);
        size_ = sizeof in;
    }

    sockaddr_storage storage_{};
    socklen_t size_ = sizeof(sockaddr_storage);
};

} // namespace quarn::inputs
