// An address and a port, as text and as packets have them.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quarn::inputs {

struct Endpoint {
    bool v6 = false;
    std::array<std::uint8_t, 16> address{}; // network order; IPv4 has the first four, the rest 0
    std::uint16_t port = 0;

    auto operator<=>(const Endpoint&) const = default;
};

/// "239.1.1.1:1234" or "[ff15::1]:1234"; nothing if it is neither.
std::optional<Endpoint> parse_endpoint(std::string_view text);
/// The same, the other way round.
std::string to_string(const Endpoint& endpoint);

} // namespace quarn::inputs
