#include "udp.h"

#include <algorithm>

#include "big_endian.h"

namespace quarn::inputs {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t protocol_udp = 17;

enum : std::uint16_t {
    type_ipv4 = 0x0800,
    type_vlan = 0x8100,
    type_ipv6 = 0x86DD,
    type_mpls = 0x8847,
    type_mpls_multicast = 0x8848,
    type_pppoe = 0x8864,
    type_qinq = 0x88A8,
    type_qinq_old = 0x9100,
};

/// The bytes from `offset` on; none if there are not so many.
Bytes behind(Bytes bytes, std::size_t offset) {
    return bytes.subspan(std::min(offset, bytes.size()));
}

/// The IP packet in what an Ethernet type announces.
Bytes behind_type(Bytes bytes, std::uint16_t type) {
    while (type == type_vlan || type == type_qinq || type == type_qinq_old) {
        if (bytes.size() < 4)
            return {};
        type = load_be16(bytes.data() + 2);
        bytes = bytes.subspan(4);
    }
    switch (type) {
    case type_ipv4:
    case type_ipv6:
        return bytes;
    case type_pppoe:
        return behind(bytes, 8);
    case type_mpls:
    case type_mpls_multicast:
        for (bool bottom = false; !bottom && bytes.size() >= 4; bytes = bytes.subspan(4))
            bottom = (bytes[2] & 1) != 0;
        return bytes;
    default:
        return {};
    }
}

Bytes ip_packet(Link link, Bytes frame) {
    const auto typed = [&](std::size_t type_at, std::size_t header) {
        return frame.size() < header
                   ? Bytes{}
                   : behind_type(frame.subspan(header), load_be16(frame.data() + type_at));
    };
    switch (link) {
    case Link::ethernet:
        return typed(12, 14);
    case Link::linux_cooked:
        return typed(14, 16);
    case Link::linux_cooked_2:
        return typed(0, 20);
    case Link::raw_ip:
        return frame;
    case Link::loopback:
        return behind(frame, 4);
    }
    return {};
}

Endpoint destination_of(Bytes address) {
    Endpoint destination;
    destination.v6 = address.size() == 16;
    std::ranges::copy(address, destination.address.begin());
    return destination;
}

std::optional<UdpDatagram> parse_udp(Bytes bytes, Endpoint destination) {
    if (bytes.size() < 8)
        return {};
    destination.port = load_be16(bytes.data() + 2);
    const std::size_t length = load_be16(bytes.data() + 4); // 0: a jumbogram, all that is there
    if (length >= 8)
        bytes = bytes.first(std::min(bytes.size(), length));
    return UdpDatagram{destination, bytes.subspan(8)};
}

} // namespace

std::optional<UdpDatagram> UdpParser::parse(Link link, Bytes frame) {
    return parse_ip(ip_packet(link, frame));
}

std::optional<UdpDatagram> UdpParser::parse_ip(Bytes packet) {
    if (packet.empty())
        return {};
    switch (packet[0] >> 4) {
    case 4:
        return parse_v4(packet);
    case 6:
        return parse_v6(packet);
    default:
        return {};
    }
}

std::optional<UdpDatagram> UdpParser::parse_v4(Bytes packet) {
    const std::size_t header = 4 * static_cast<std::size_t>(packet[0] & 0x0F);
    if (header < 20 || packet.size() < header || packet[9] != protocol_udp)
        return {};
    const std::size_t total = load_be16(packet.data() + 2); // 0: the sender left it to its card
    const std::uint16_t fragment = load_be16(packet.data() + 6);
    const Endpoint destination = destination_of(packet.subspan(16, 4));
    if (total >= header)
        packet = packet.first(std::min(packet.size(), total));
    if ((fragment & 0x3FFF) == 0)
        return parse_udp(packet.subspan(header), destination);
    FragmentKey key{{}, destination, load_be16(packet.data() + 4)};
    std::ranges::copy(packet.subspan(12, 4), key.source.begin());
    const bool more = (fragment & 0x2000) != 0;
    return parse_fragment(key, 8 * static_cast<std::size_t>(fragment & 0x1FFF), more,
                          packet.subspan(header));
}

std::optional<UdpDatagram> UdpParser::parse_v6(Bytes packet) {
    constexpr std::size_t header = 40;
    if (packet.size() < header)
        return {};
    const Endpoint destination = destination_of(packet.subspan(24, 16));
    const std::size_t length = load_be16(packet.data() + 4);
    std::uint8_t next = packet[6];
    FragmentKey key{{}, destination, 0};
    std::ranges::copy(packet.subspan(8, 16), key.source.begin());
    Bytes rest = packet.subspan(header);
    if (length > 0)
        rest = rest.first(std::min(rest.size(), length));
    while (next != protocol_udp) {
        if (rest.size() < 8)
            return {};
        const std::uint8_t type = next;
        next = rest[0];
        switch (type) {
        case 0:  // hop-by-hop options
        case 43: // routing
        case 60: // destination options
            rest = behind(rest, 8 * (1 + static_cast<std::size_t>(rest[1])));
            break;
        case 51: // authentication
            rest = behind(rest, 4 * (2 + static_cast<std::size_t>(rest[1])));
            break;
        case 44: { // fragment
            const std::uint16_t field = load_be16(rest.data() + 2);
            key.identification = load_be32(rest.data() + 4);
            rest = rest.subspan(8);
            if (next == protocol_udp && (field & 0xFFF9) != 0)
                return parse_fragment(key, field & 0xFFF8, (field & 1) != 0, rest);
            break;
        }
        default:
            return {};
        }
    }
    return parse_udp(rest, destination);
}

std::optional<UdpDatagram> UdpParser::parse_fragment(const FragmentKey& key, std::size_t offset,
                                                     bool more, Bytes part) {
    const auto whole = fragments_.add(key, offset, more, part);
    return whole ? parse_udp(*whole, key.destination) : std::nullopt;
}

} // namespace quarn::inputs
