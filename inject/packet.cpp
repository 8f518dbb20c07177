// packet.cpp - the fields of a packet; see packet.h.
#include "packet.h"

#include <algorithm>

namespace inject {

namespace {

std::uint8_t low_byte(std::int64_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

std::uint8_t with(std::uint8_t byte, unsigned keep, unsigned bits) {
    return static_cast<std::uint8_t>((byte & keep) | bits);
}

std::int64_t stamp_at(const Packet& p, std::size_t at) {
    return std::int64_t{p[at] >> 1 & 7} << 30 | std::int64_t{p[at + 1]} << 22 |
           std::int64_t{p[at + 2] >> 1} << 15 | std::int64_t{p[at + 3]} << 7 | p[at + 4] >> 1;
}

void put_stamp(Packet& p, std::size_t at, std::int64_t ticks) {
    const std::int64_t v = ((ticks % STAMP_WRAP) + STAMP_WRAP) % STAMP_WRAP;
    p[at] = with(p[at], 0xF1, static_cast<unsigned>(v >> 30 & 7) << 1);
    p[at + 1] = low_byte(v >> 22);
    p[at + 2] = low_byte((v >> 15 & 0x7F) << 1 | 1);
    p[at + 3] = low_byte(v >> 7);
    p[at + 4] = low_byte((v & 0x7F) << 1 | 1);
}

// Stream ids whose PES packets have no header of flags and stamps (table 2-21).
bool is_bare(std::uint8_t stream_id) {
    constexpr std::array<std::uint8_t, 8> BARE{0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    return std::find(BARE.begin(), BARE.end(), stream_id) != BARE.end();
}

} // namespace

int pid_of(const Packet& p) {
    return (p[1] & 0x1F) << 8 | p[2];
}

void set_pid(Packet& p, int pid) {
    p[1] = with(p[1], 0xE0, static_cast<unsigned>(pid >> 8 & 0x1F));
    p[2] = low_byte(pid);
}

int counter_of(const Packet& p) {
    return p[3] & 0x0F;
}

void set_counter(Packet& p, int counter) {
    p[3] = with(p[3], 0xF0, static_cast<unsigned>(counter) & 0x0F);
}

bool unit_starts(const Packet& p) {
    return (p[1] & 0x40) != 0;
}

bool has_payload(const Packet& p) {
    return (p[3] & 0x10) != 0;
}

bool has_flags(const Packet& p) {
    return (p[3] & 0x20) != 0 && p[4] > 0;
}

void set_discontinuity(Packet& p) {
    p[5] |= 0x80;
}

std::size_t payload_at(const Packet& p) {
    if (!has_payload(p)) {
        return PACKET_SIZE;
    }
    return (p[3] & 0x20) == 0 ? 4 : std::min(PACKET_SIZE, std::size_t{5} + p[4]);
}

std::optional<std::int64_t> pcr_of(const Packet& p) {
    if (!has_flags(p) || p[4] < 7 || p[4] > PACKET_SIZE - 5 || (p[5] & 0x10) == 0) {
        return {};
    }
    const std::int64_t base = std::int64_t{p[6]} << 25 | std::int64_t{p[7]} << 17 |
                              std::int64_t{p[8]} << 9 | std::int64_t{p[9]} << 1 | p[10] >> 7;
    return base * 300 + ((p[10] & 1) << 8 | p[11]);
}

void set_pcr(Packet& p, std::int64_t ticks) {
    const std::int64_t v = ((ticks % PCR_WRAP) + PCR_WRAP) % PCR_WRAP;
    const std::int64_t base = v / 300;
    const std::int64_t extension = v % 300;
    p[6] = low_byte(base >> 25);
    p[7] = low_byte(base >> 17);
    p[8] = low_byte(base >> 9);
    p[9] = low_byte(base >> 1);
    p[10] = low_byte((base & 1) << 7 | 0x7E | extension >> 8);
    p[11] = low_byte(extension);
}

void remove_pcr(Packet& p) {
    if (!pcr_of(p)) {
        return;
    }
    p[5] = with(p[5], 0xEF, 0);
    // What follows the PCR in the field moves up, stuffing goes behind it.
    const auto field_end = p.begin() + 5 + p[4];
    std::fill(std::copy(p.begin() + 12, field_end, p.begin() + 6), field_end, std::uint8_t{0xFF});
}

void remove_payload(Packet& p) {
    const std::size_t end = payload_at(p);
    std::fill(p.begin() + static_cast<std::ptrdiff_t>(end), p.end(), std::uint8_t{0xFF});
    p[1] = with(p[1], 0xBF, 0);
    p[3] = with(p[3], 0xCF, 0x20);
    p[4] = PACKET_SIZE - 5;
}

std::optional<PesHeader> pes_of(const Packet& p) {
    const std::size_t at = payload_at(p);
    if (!unit_starts(p) || (p[3] & 0xC0) != 0 || at + 9 > PACKET_SIZE || p[at] != 0 ||
        p[at + 1] != 0 || p[at + 2] != 1) {
        return {};
    }
    PesHeader header{at, p[at + 3], {}, {}};
    if (is_bare(header.stream_id) || p[at + 6] >> 6 != 2) {
        return header;
    }
    if ((p[at + 7] & 0x80) != 0 && at + 14 <= PACKET_SIZE) {
        header.pts = stamp_at(p, at + 9);
    }
    if ((p[at + 7] & 0xC0) == 0xC0 && at + 19 <= PACKET_SIZE) {
        header.dts = stamp_at(p, at + 14);
    }
    return header;
}

void shift_stamps(Packet& p, std::int64_t ticks) {
    const auto header = pes_of(p);
    if (header && header->pts) {
        put_stamp(p, header->offset + 9, *header->pts + ticks);
    }
    if (header && header->dts) {
        put_stamp(p, header->offset + 14, *header->dts + ticks);
    }
}

void set_decode(Packet& p, const PesHeader& header, std::int64_t ticks) {
    put_stamp(p, header.offset + (header.dts ? 14 : 9), ticks);
}

void remove_stamps(Packet& p, const PesHeader& header) {
    const std::size_t bytes = header.dts ? 10 : header.pts ? 5 : 0;
    p[header.offset + 7] = with(p[header.offset + 7], 0x3F, 0);
    std::fill_n(p.begin() + static_cast<std::ptrdiff_t>(header.offset + 9), bytes,
                std::uint8_t{0xFF});
}

Packet null_packet() {
    Packet p;
    p.fill(0xFF);
    p[0] = SYNC;
    p[1] = 0x1F;
    p[3] = 0x10;
    return p;
}

std::int64_t distance(std::int64_t a, std::int64_t b, std::int64_t wrap) {
    const std::int64_t d = (((a - b) % wrap) + wrap) % wrap;
    return d > wrap / 2 ? d - wrap : d;
}

} // namespace inject
