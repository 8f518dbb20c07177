// What captured frames begin with.
#pragma once

#include <cstdint>

namespace quarn::inputs {

enum class Link : std::uint8_t {
    ethernet,       // VLAN tags, MPLS labels and PPPoE are passed over
    linux_cooked,   // DLT_LINUX_SLL
    linux_cooked_2, // DLT_LINUX_SLL2
    raw_ip,
    loopback, // DLT_NULL, DLT_LOOP
};

} // namespace quarn::inputs
