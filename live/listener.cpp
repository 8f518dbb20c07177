#include "live/listener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace quarn::live {
namespace {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t size = 0;
};

SocketAddress socket_address(const inputs::Endpoint& endpoint) {
    SocketAddress result;
    if (endpoint.v6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(endpoint.port);
        std::memcpy(&address.sin6_addr, endpoint.address.data(), sizeof address.sin6_addr);
        std::memcpy(&result.storage, &address, result.size = sizeof address);
    } else {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(endpoint.port);
        std::memcpy(&address.sin_addr, endpoint.address.data(), sizeof address.sin_addr);
        std::memcpy(&result.storage, &address, result.size = sizeof address);
    }
    return result;
}

[[noreturn]] void fail(int fd, const inputs::Endpoint& endpoint) {
    const int error = errno;
    if (fd >= 0)
        close(fd);
    throw std::system_error(error, std::generic_category(),
                            "cannot serve HTTP on " + inputs::to_string(endpoint));
}

} // namespace

int open_listener(const inputs::Endpoint& endpoint) {
    const SocketAddress address = socket_address(endpoint);
    const int fd =
        socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.size) != 0 ||
        listen(fd, SOMAXCONN) != 0)
        fail(fd, endpoint);
    return fd;
}

} // namespace quarn::live
