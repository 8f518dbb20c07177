#include "udp_batch.h"

#include <cstring>
#include <ctime>

#include "socket_address.h"

namespace quarn::inputs {

UdpBatch::UdpBatch() : room_(new std::uint8_t[most * stride]) {
    for (std::size_t i = 0; i < most; ++i)
        slots_[i].bytes = {room_.get() + i * stride, largest};
}

std::size_t UdpBatch::receive(int fd) {
    for (std::size_t i = 0; i < most; ++i) {
        msghdr& header = messages_[i].msg_hdr;
        header.msg_name = &slots_[i].from;
        header.msg_namelen = sizeof slots_[i].from;
        header.msg_iov = &slots_[i].bytes;
        header.msg_iovlen = 1;
        header.msg_control = slots_[i].control.data();
        header.msg_controllen = slots_[i].control.size();
    }
    const int count = recvmmsg(fd, messages_.data(), most, MSG_DONTWAIT, nullptr);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

UdpBatch::Datagram UdpBatch::at(std::size_t index) const {
    Datagram datagram;
    datagram.bytes = {room_.get() + index * stride, messages_[index].msg_len};
    auto* const header = const_cast<msghdr*>(&messages_[index].msg_hdr);
    for (cmsghdr* control = CMSG_FIRSTHDR(header); control;
         control = CMSG_NXTHDR(header, control)) {
        if (control->cmsg_level != SOL_SOCKET)
            continue;
        if (control->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp{};
            std::memcpy(&stamp, CMSG_DATA(control), sizeof stamp);
            datagram.stamp_ns =
                static_cast<std::int64_t>(stamp.tv_sec) * 1'000'000'000 + stamp.tv_nsec;
        } else if (control->cmsg_type == SO_RXQ_OVFL) {
            std::uint32_t dropped = 0;
            std::memcpy(&dropped, CMSG_DATA(control), sizeof dropped);
            datagram.dropped = dropped;
        }
    }
    return datagram;
}

Endpoint UdpBatch::from(std::size_t index) const {
    return endpoint_of(reinterpret_cast<const sockaddr&>(slots_[index].from)).value_or(Endpoint{});
}

bool UdpBatch::is_from(std::size_t index, const Endpoint& source) const {
    const Endpoint sender = from(index);
    return sender.v6 == source.v6 && sender.address == source.address;
}

} // namespace quarn::inputs
