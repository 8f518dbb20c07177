// How packets lie in an input: their size and where the first one begins.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quarn::inputs {

inline constexpr std::uint8_t sync_byte = 0x47;
/// So many sync bytes in step make lost synchronisation found again (TR 101 290, 1.1).
inline constexpr std::size_t sync_run = 5;

inline constexpr std::array<std::size_t, 3> packet_sizes = {188, 192, 204};

struct Layout {
    std::size_t size = 188; // 188; 192: four bytes in front; 204: 16 bytes behind
    std::size_t first = 0;  // offset of the first sync byte
    bool stamps = false;    // the four bytes of 192 are a running clock

    std::size_t prefix() const { return size == 192 ? 4 : 0; }
};

/// Finds the layout of an input that begins with `head`; `whole` says that there is no more of it.
/// Nothing if no packets are in it.
std::optional<Layout> find_layout(std::span<const std::uint8_t> head, bool whole);

} // namespace quarn::inputs
