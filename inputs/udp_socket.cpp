#include "udp_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "receiver.h"
#include "socket_address.h"

namespace quarn::inputs {
namespace {

std::string reason(int error) {
    return std::string(": ") + std::strerror(error);
}

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

void set(int fd, int level, int option, int value) {
    // What a kernel does not know is done without; who needs to know looks at the outcome.
    (void)setsockopt(fd, level, option, &value, sizeof value);
}

int get(int fd, int level, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, level, option, &value, &size) == 0 ? value : 0;
}

ifreq request(const std::string& name) {
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

/// The name of the interface that has that address.
std::string interface_of(const Endpoint& address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    for (const ifaddrs* one = list; one; one = one->ifa_next) {
        if (!one->ifa_addr)
            continue;
        const auto endpoint = endpoint_of(*one->ifa_addr);
        if (endpoint && endpoint->v6 == address.v6 && endpoint->address == address.address)
            return one->ifa_name;
    }
    return {};
}

} // namespace

UdpSocket::UdpSocket(const InputUrl& url)
    : endpoint_(url.endpoint), source_(url.source), has_source_(url.has_source),
      multicast_(url.multicast()), interface_(url.interface_name) {
    fd_ = socket(endpoint_.v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0)
        fail("no socket" + reason(errno));
    try {
        configure();
        bind_to(url);
    } catch (...) {
        close(fd_);
        throw;
    }
}

UdpSocket::~UdpSocket() {
    close(fd_);
}

void UdpSocket::configure() {
    set(fd_, SOL_SOCKET, SO_TIMESTAMPNS, 1);
    set(fd_, SOL_SOCKET, SO_RXQ_OVFL, 1);
    // The kernel grants twice as much, for its own needs, and says so.
    set(fd_, SOL_SOCKET, SO_RCVBUFFORCE, wanted_buffer);
    if (get(fd_, SOL_SOCKET, SO_RCVBUF) < 2 * wanted_buffer)
        set(fd_, SOL_SOCKET, SO_RCVBUF, wanted_buffer);
    buffer_ = get(fd_, SOL_SOCKET, SO_RCVBUF) / 2;
    if (endpoint_.v6)
        set(fd_, IPPROTO_IPV6, IPV6_V6ONLY, 1); // [::] is beside 0.0.0.0
    if (!multicast_)
        return;
    set(fd_, SOL_SOCKET, SO_REUSEADDR, 1);
    // Nothing that another socket of this machine has joined on another interface.
    if (endpoint_.v6)
        set(fd_, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
    else
        set(fd_, IPPROTO_IP, IP_MULTICAST_ALL, 0);
}

void UdpSocket::bind_to(const InputUrl& url) {
    if (!interface_.empty()) {
        index_ = look(interface_).index;
        if (index_ == 0)
            fail("no such interface: " + interface_);
        if (!multicast_ && setsockopt(fd_, SOL_SOCKET, SO_BINDTODEVICE, interface_.c_str(),
                                      static_cast<socklen_t>(interface_.size())) != 0)
            fail("cannot listen on interface " + interface_ + " alone" + reason(errno));
    }
    const SocketAddress address(endpoint_, index_);
    if (bind(fd_, address.get(), address.size()) == 0)
        return;
    const std::string where = to_string(url.endpoint);
    if (errno == EADDRINUSE)
        throw PortTaken(where + " is taken: another program or input receives there, and each "
                                "would miss what the other gets");
    if (errno == EADDRNOTAVAIL)
        fail(where + " is not an address of this machine: name one of its own, or 0.0.0.0 or [::] "
                     "for all");
    fail("cannot receive at " + where + reason(errno));
}

Interface UdpSocket::look(const std::string& name) const {
    Interface found;
    ifreq index = request(name);
    ifreq flags = index;
    if (ioctl(fd_, SIOCGIFINDEX, &index) != 0 || ioctl(fd_, SIOCGIFFLAGS, &flags) != 0)
        return found;
    found.index = static_cast<unsigned>(index.ifr_ifindex);
    found.up = (flags.ifr_flags & IFF_UP) != 0;
    found.carrier = (flags.ifr_flags & IFF_RUNNING) != 0;
    return found;
}

/// The kernel would choose an interface as well, but not say which, and that must be known to see
/// that it is gone.
bool UdpSocket::find_route() {
    const int probe = socket(endpoint_.v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return false;
    const SocketAddress group(endpoint_, 0);
    SocketAddress own;
    const bool routed = connect(probe, group.get(), group.size()) == 0 && own.take_local(probe);
    close(probe);
    const auto endpoint = routed ? endpoint_of(*own.get()) : std::nullopt;
    if (endpoint)
        interface_ = interface_of(*endpoint);
    return !interface_.empty();
}

std::string UdpSocket::join() {
    if (!multicast_)
        return {};
    const std::string group = to_string(endpoint_);
    if (interface_.empty() && !find_route())
        return "no route to " + group + ": name the interface by ?interface=";
    index_ = look(interface_).index;
    if (index_ == 0)
        return "interface " + interface_ + " is gone";
    const int level = endpoint_.v6 ? IPPROTO_IPV6 : IPPROTO_IP;
    int failed = 0;
    if (has_source_) {
        group_source_req request{};
        request.gsr_interface = index_;
        SocketAddress(endpoint_, index_).copy_to(request.gsr_group);
        SocketAddress(source_, index_).copy_to(request.gsr_source);
        failed = setsockopt(fd_, level, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request);
    } else {
        group_req request{};
        request.gr_interface = index_;
        SocketAddress(endpoint_, index_).copy_to(request.gr_group);
        failed = setsockopt(fd_, level, MCAST_JOIN_GROUP, &request, sizeof request);
    }
    if (failed != 0)
        return "cannot join " + group + " on " + interface_ + reason(errno);
    return {};
}

} // namespace quarn::inputs
