// Reads the fields of one transport packet (ISO/IEC 13818-1, 2.4.3). Never looks outside its 188
// bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quarn {

inline constexpr std::size_t packet_size = 188;
inline constexpr std::uint16_t null_pid = 0x1FFF;
inline constexpr std::size_t pid_count = 0x2000;

/// Where a packet stands in its input, before its time is known.
struct At {
    std::uint64_t index = 0;         // packets kept before it
    std::uint64_t byte = 0;          // offset of its sync byte
    std::int64_t utc_us = INT64_MIN; // arrival where known, else no_time
};

/// A look at a packet; owns nothing.
class Packet {
  public:
    explicit Packet(const std::uint8_t* bytes) : p_(bytes) {}

    const std::uint8_t* data() const { return p_; }
    std::uint16_t pid() const { return static_cast<std::uint16_t>((p_[1] & 0x1F) << 8 | p_[2]); }
    bool transport_error() const { return p_[1] & 0x80; }
    bool unit_start() const { return p_[1] & 0x40; }
    unsigned scrambling() const { return p_[3] >> 6; }
    bool has_adaptation() const { return p_[3] & 0x20; }
    bool has_payload() const { return p_[3] & 0x10; }
    unsigned counter() const { return p_[3] & 0x0F; }
    /// Clear payload and nothing else: no adaptation field, no beginning of a unit, no error.
    bool only_payload() const { return (p_[1] & 0xC0) == 0 && (p_[3] & 0xF0) == 0x10; }
    /// Flags of the adaptation field, 0 where there are none.
    unsigned flags() const { return has_adaptation() && p_[4] > 0 ? p_[5] : 0; }
    bool discontinuity() const { return flags() & 0x80; }
    bool random_access() const { return flags() & 0x40; }
    bool has_pcr() const { return (flags() & 0x10) && p_[4] >= 7 && p_[4] <= 183; }
    /// The PCR in 27 MHz ticks, below 2^33 * 300. Only where has_pcr().
    std::int64_t pcr() const {
        const std::int64_t base =
            std::int64_t{p_[6]} << 25 | p_[7] << 17 | p_[8] << 9 | p_[9] << 1 | p_[10] >> 7;
        return base * 300 + ((p_[10] & 1) << 8 | p_[11]);
    }
    /// Offset of the first payload byte; 188 where there is none.
    std::size_t payload_offset() const {
        if (!has_payload())
            return packet_size;
        const std::size_t offset = has_adaptation() ? 5u + p_[4] : 4u;
        return offset < packet_size ? offset : packet_size;
    }
    std::span<const std::uint8_t> payload() const {
        const std::size_t offset = payload_offset();
        return {p_ + offset, packet_size - offset};
    }

  private:
    const std::uint8_t* p_;
};

/// Distance from one clock value to a later one on a clock that wraps at `modulus`, signed: the
/// shorter way round.
constexpr std::int64_t clock_distance(std::int64_t from, std::int64_t to, std::int64_t modulus) {
    std::int64_t d = (to - from) % modulus;
    if (d < 0)
        d += modulus;
    return d > modulus / 2 ? d - modulus : d;
}
inline constexpr std::int64_t stamp_wrap = std::int64_t{1} << 33; // 90 kHz
inline constexpr std::int64_t pcr_wrap = stamp_wrap * 300;        // 27 MHz

} // namespace quarn
