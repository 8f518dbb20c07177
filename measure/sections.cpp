// Sections over packets, and their CRC.
#include "sections.h"

#include <algorithm>
#include <array>

namespace quarn {

namespace {

constexpr std::uint32_t crc_polynomial = 0x04C11DB7;
constexpr std::uint8_t stuffing_table_id = 0x72; // any bytes, with either header
constexpr std::uint8_t tot_table_id = 0x73;

// Eight bytes at a time: row k is the effect of a byte with k bytes behind it.
using CrcTable = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr CrcTable make_crc_table() {
    CrcTable table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t crc = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000) != 0 ? crc << 1 ^ crc_polynomial : crc << 1;
        table[0][i] = crc;
    }
    for (std::size_t k = 1; k < table.size(); ++k)
        for (std::size_t i = 0; i < 256; ++i)
            table[k][i] = table[k - 1][i] << 8 ^ table[0][table[k - 1][i] >> 24];
    return table;
}

constexpr CrcTable crc_table = make_crc_table();

} // namespace

std::uint32_t section_crc(Bytes bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint32_t next = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            next ^= crc_table[7 - k][bytes[i + k] ^ (crc >> (24 - 8 * k) & 0xFF)];
            next ^= crc_table[3 - k][bytes[i + 4 + k]];
        }
        crc = next;
    }
    for (; i < bytes.size(); ++i)
        crc = crc << 8 ^ crc_table[0][crc >> 24 ^ bytes[i]];
    return crc;
}

SectionHead section_head(Bytes bytes) {
    SectionHead head;
    head.table_id = bytes[0];
    const bool long_header = bytes.size() > 1 && (bytes[1] & 0x80) != 0;
    head.has_crc =
        (long_header && head.table_id != stuffing_table_id) || head.table_id == tot_table_id;
    if (!long_header || bytes.size() < long_header_size)
        return head;
    head.extension = read_16(bytes, 3);
    head.version = bytes[5] >> 1 & 0x1F;
    head.current = bytes[5] & 1;
    head.number = bytes[6];
    head.last_number = bytes[7];
    return head;
}

Bytes section_body(Bytes bytes) {
    if (bytes.size() < long_header_size + crc_size)
        return {};
    return bytes.subspan(long_header_size, bytes.size() - long_header_size - crc_size);
}

bool SectionAssembler::collect(Bytes& rest) {
    const auto take = [&](std::size_t size) {
        const std::size_t n = std::min(size - std::min(size, bytes_.size()), rest.size());
        bytes_.insert(bytes_.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(n));
        rest = rest.subspan(n);
        return bytes_.size() >= size;
    };
    const bool whole = take(short_header_size) && take(section_size(bytes_));
    collecting_ = !whole;
    return whole;
}

void SectionAssembler::begin(const At& at, Bytes rest, bool doubtful) {
    bytes_.clear();
    begin_ = at;
    doubtful_ = doubtful;
    collect(rest);
}

} // namespace quarn
