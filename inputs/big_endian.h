// Numbers as networks and streams have them.
#pragma once

#include <cstdint>

namespace quarn::inputs {

inline std::uint16_t load_be16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline std::uint32_t load_be32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(load_be16(bytes)) << 16 | load_be16(bytes + 2);
}

} // namespace quarn::inputs
