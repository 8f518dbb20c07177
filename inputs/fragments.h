// Puts IP packets together that came in fragments (RFC 791, RFC 8200).
#pragma once

#include <array>
#include <bitset>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "endpoint.h"

namespace quarn::inputs {

/// What the fragments of one packet have in common.
struct FragmentKey {
    std::array<std::uint8_t, 16> source{};
    Endpoint destination; // without a port
    std::uint32_t identification = 0;

    auto operator<=>(const FragmentKey&) const = default;
};

/// Keeps the 16 packets that were begun last: what is lost of others does not grow.
class Fragments {
  public:
    /// `offset` is in bytes; `more`: it is not the last fragment. Returns the whole, valid until
    /// the next call, when nothing is missing any more.
    std::optional<std::span<const std::uint8_t>> add(const FragmentKey& key, std::size_t offset,
                                                     bool more, std::span<const std::uint8_t> part);

  private:
    static constexpr std::size_t most_bytes = 65536;
    static constexpr std::size_t unit = 8;

    struct Packet {
        FragmentKey key;
        bool open = false;
        std::uint64_t begun = 0;
        std::size_t length = 0; // 0: the last fragment is not there yet
        std::bitset<most_bytes / unit> units;
        std::vector<std::uint8_t> bytes;
    };

    Packet& slot(const FragmentKey& key);

    std::array<Packet, 16> packets_;
    std::uint64_t begun_ = 0;
};

} // namespace quarn::inputs
