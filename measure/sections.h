// Puts the sections of one pid together over packets (ISO/IEC 13818-1, 2.4.4).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "packet.h"

namespace quarn {

using Bytes = std::span<const std::uint8_t>;

/// CRC-32 of ISO/IEC 13818-1, annex A. Over a whole section, its CRC included, it is 0.
std::uint32_t section_crc(Bytes bytes);

/// The largest section, header included. What says that it is longer is damaged.
inline constexpr std::size_t section_max = 4096;
inline constexpr std::size_t short_header_size = 3;
inline constexpr std::size_t long_header_size = 8;
inline constexpr std::size_t crc_size = 4;

/// Big-endian fields of `bytes` at `at`; the caller has checked that they are there.
inline std::uint16_t read_16(Bytes bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}
/// A pid or a length: the lower 13 or 12 of 16 bits.
inline std::uint16_t read_13(Bytes bytes, std::size_t at) {
    return read_16(bytes, at) & 0x1FFF;
}
inline std::uint16_t read_12(Bytes bytes, std::size_t at) {
    return read_16(bytes, at) & 0x0FFF;
}

/// The header of a section. What is not there (short sections) is 0, and `current` true.
struct SectionHead {
    std::uint8_t table_id = 0;
    bool has_crc = false; // long sections but stuffing, and the TOT
    std::uint16_t extension = 0;
    std::uint8_t version = 0;
    bool current = true;
    std::uint8_t number = 0;
    std::uint8_t last_number = 0;
};
/// Reads no further than the bytes go; at least one must be there.
SectionHead section_head(Bytes bytes);

/// What lies between the long header and the CRC; empty where the section has no room for both.
Bytes section_body(Bytes bytes);

/// A section as it is handed out.
struct RawSection {
    Bytes bytes; // at least one; valid during the call only
    At begin;    // the packet of its first byte
    /// The next section begins before the end of this one, or it is longer than a section can be:
    /// some byte of it is wrong.
    bool cut = false;
    /// Stands behind a section in the same packet whose length may be wrong.
    bool doubtful = false;
};

/// Collects the sections of one pid. Holds at most section_max bytes.
class SectionAssembler {
  public:
    /// Takes the payload of the next packet of the pid and calls `take(const RawSection&)` for
    /// each section that ends in it; `take` returns whether the section is to be believed.
    template <typename Take>
    void feed(const At& at, Bytes payload, bool unit_start, Take&& take);

    /// Something is missing or damaged: what is collected is dropped until the next unit start.
    void drop() { collecting_ = false; }

  private:
    // Moves bytes of the section under way out of `rest`; true when it is whole.
    bool collect(Bytes& rest);
    void begin(const At& at, Bytes rest, bool doubtful);

    std::vector<std::uint8_t> bytes_;
    At begin_;
    bool collecting_ = false;
    bool doubtful_ = false;
};

/// Size of a section by its header: 3 to 4098. At least three bytes must be there.
inline std::size_t section_size(Bytes bytes) {
    return short_header_size + read_12(bytes, 1);
}

template <typename Take>
void SectionAssembler::feed(const At& at, Bytes payload, bool unit_start, Take&& take) {
    if (!unit_start) {
        if (collecting_ && collect(payload))
            take(RawSection{bytes_, begin_, bytes_.size() > section_max, doubtful_});
        return;
    }
    const std::size_t pointer = payload.empty() ? 0 : payload[0];
    if (pointer + 1 >= payload.size())
        return drop();
    if (collecting_) {
        Bytes tail = payload.subspan(1, pointer);
        const bool whole = collect(tail);
        take(RawSection{bytes_, begin_, !whole || bytes_.size() > section_max, doubtful_});
        collecting_ = false;
    }
    bool doubtful = false;
    for (Bytes rest = payload.subspan(1 + pointer); !rest.empty() && rest[0] != 0xFF;) {
        if (rest.size() < short_header_size || section_size(rest) > rest.size())
            return begin(at, rest, doubtful);
        const std::size_t size = section_size(rest);
        doubtful = !take(RawSection{rest.first(size), at, false, doubtful});
        rest = rest.subspan(size);
    }
}

} // namespace quarn
