// mpegts.h - accessors for transport packets and PES headers (ISO/IEC 13818-1), and distances on
// the 33-bit clock.
//
// Packets and payloads are spans; no accessor reads outside the span it is given. Field positions
// are those of ISO/IEC 13818-1, 2.4.3.2 (transport packet), 2.4.3.4 (adaptation field) and 2.4.3.6
// (PES packet).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t TS_PACKET_LEN = 188; // bytes of a transport packet
inline constexpr unsigned PAT_PID_NUM = 0;
inline constexpr unsigned SDT_PID_NUM = 0x11;
inline constexpr std::size_t PID_COUNT = 8192; // pids are 13 bits wide

using ts_packet = std::span<const std::uint8_t, TS_PACKET_LEN>;
using ts_bytes = std::span<const std::uint8_t>;

// ---- transport packet --------------------------------------------------------------------------

// The four bytes of the header as one number, sync byte first.
constexpr std::uint32_t ts_header(ts_packet pkt) {
    return std::uint32_t{pkt[0]} << 24 | std::uint32_t{pkt[1]} << 16 | std::uint32_t{pkt[2]} << 8 |
           pkt[3];
}

// A header in sync that announces payload, no adaptation field and no payload unit start.
inline constexpr std::uint32_t TS_PLAIN_MASK = 0xff400030;
inline constexpr std::uint32_t TS_PLAIN = 0x47000010;

constexpr unsigned ts_pid(ts_packet pkt) {
    return (pkt[1] & 0x1fU) << 8 | pkt[2];
}
constexpr bool ts_unit_start(ts_packet pkt) {
    return (pkt[1] & 0x40) != 0;
}
constexpr bool ts_has_adaptation(ts_packet pkt) {
    return (pkt[3] & 0x20) != 0;
}
constexpr bool ts_has_payload(ts_packet pkt) {
    return (pkt[3] & 0x10) != 0;
}
constexpr int ts_cc(ts_packet pkt) {
    return pkt[3] & 0x0f;
}

// Whether the adaptation field carries a PCR.
constexpr bool ts_has_pcr(ts_packet pkt) {
    return ts_has_adaptation(pkt) && pkt[4] != 0 && (pkt[5] & 0x10) != 0;
}

// The PCR's base in units of 90 kHz, 33 bits; only for a packet that ts_has_pcr.
constexpr std::uint64_t ts_pcr_base(ts_packet pkt) {
    return std::uint64_t{pkt[6]} << 25 | std::uint64_t{pkt[7]} << 17 | std::uint64_t{pkt[8]} << 9 |
           std::uint64_t{pkt[9]} << 1 | pkt[10] >> 7;
}

// The payload; empty when the packet has none or its adaptation field leaves no room for one.
constexpr ts_bytes ts_get_payload(ts_packet pkt) {
    if (!ts_has_payload(pkt))
        return {};
    const std::size_t start = ts_has_adaptation(pkt) ? std::size_t{5} + pkt[4] : 4;
    return start < TS_PACKET_LEN ? ts_bytes(pkt).subspan(start) : ts_bytes{};
}

// ---- PES header --------------------------------------------------------------------------------

// Whether a payload begins a PES packet of a stream id that carries a stream (0xBC and above).
constexpr bool is_pes_pkt(ts_bytes payload) {
    return payload.size() >= 4 && payload[0] == 0 && payload[1] == 0 && payload[2] == 1 &&
           payload[3] >= 0xbc;
}

inline constexpr std::size_t PES_PTS_OFFSET = 9;
inline constexpr std::size_t PES_DTS_OFFSET = 14;
inline constexpr std::size_t PES_STAMP_LEN = 5;

// Whether the header has a PTS, or a DTS (which never comes without a PTS). A header that ends
// before the last byte of a stamp does not have it.
constexpr bool pes_has_PTS(ts_bytes pes) {
    return pes.size() >= PES_PTS_OFFSET + PES_STAMP_LEN && (pes[7] & 0x80) != 0;
}
constexpr bool pes_has_DTS(ts_bytes pes) {
    return pes.size() >= PES_DTS_OFFSET + PES_STAMP_LEN && (pes[7] & 0xc0) == 0xc0;
}

// A 33-bit stamp from five bytes in which marker bits stand between its parts.
constexpr std::uint64_t pes_stamp(std::span<const std::uint8_t, PES_STAMP_LEN> b) {
    return std::uint64_t{b[0] & 0x0eU} << 29 | std::uint64_t{b[1]} << 22 |
           std::uint64_t{b[2] & 0xfeU} << 14 | std::uint64_t{b[3]} << 7 | b[4] >> 1;
}

// The stamps in units of 90 kHz; only for a header that has them.
constexpr std::uint64_t pes_get_PTS(ts_bytes pes) {
    return pes_stamp(pes.subspan<PES_PTS_OFFSET, PES_STAMP_LEN>());
}
constexpr std::uint64_t pes_get_DTS(ts_bytes pes) {
    return pes_stamp(pes.subspan<PES_DTS_OFFSET, PES_STAMP_LEN>());
}

// ---- distances on the 33-bit clock -------------------------------------------------------------

inline constexpr unsigned PCR_ABORT_BACKWARD = 1; // calc_pcr_delta: abort when last < first
inline constexpr unsigned PCR_LOG_GAP = 2;        // calc_pcr_delta: log a gap above half a second

// Distance from `first` to `last` in units of 90 kHz. Where `last` is below `first`, the 33-bit
// clock may have wrapped between them: if so measured they are less than half a second apart, that
// is the distance; if not, the clock went back, which is logged and measures 0.
[[nodiscard]] std::uint64_t calc_pcr_delta(std::uint64_t first, std::uint64_t last, unsigned flags);

// The same with no flags, in units of 90 kHz and in whole milliseconds (truncated).
[[nodiscard]] std::uint64_t ts_pcr_delta(std::uint64_t first, std::uint64_t last);
[[nodiscard]] std::uint32_t pcr_delta_ms(std::uint64_t first, std::uint64_t last);
