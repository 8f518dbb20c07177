// UDP datagrams in captured frames.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "endpoint.h"
#include "fragments.h"
#include "link.h"

namespace quarn::inputs {

struct UdpDatagram {
    Endpoint destination;
    std::span<const std::uint8_t> payload;
};

/// Finds UDP datagrams over IPv4 and IPv6 and puts together those that came in fragments.
class UdpParser {
  public:
    /// Nothing if the frame is something else, broken, or a fragment of what is not complete yet.
    /// The payload is cut where the capture has cut the frame, and valid until the next call.
    std::optional<UdpDatagram> parse(Link link, std::span<const std::uint8_t> frame);

  private:
    std::optional<UdpDatagram> parse_ip(std::span<const std::uint8_t> packet);
    std::optional<UdpDatagram> parse_v4(std::span<const std::uint8_t> packet);
    std::optional<UdpDatagram> parse_v6(std::span<const std::uint8_t> packet);
    std::optional<UdpDatagram> parse_fragment(const FragmentKey& key, std::size_t offset, bool more,
                                              std::span<const std::uint8_t> part);

    Fragments fragments_;
};

} // namespace quarn::inputs
