// packet.h - reads and writes the fields of one 188-byte packet (ISO/IEC 13818-1, 2.4.3).
//
// Laid out here once more on purpose: what damages a capture must not share a mistake with what
// judges it. Times of PCRs are in 27 MHz ticks, time stamps of PES packets in 90 kHz ticks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace inject {

inline constexpr std::size_t PACKET_SIZE = 188;
inline constexpr std::uint8_t SYNC = 0x47;
inline constexpr int NULL_PID = 0x1FFF;
inline constexpr std::int64_t STAMP_WRAP = std::int64_t{1} << 33;
inline constexpr std::int64_t PCR_WRAP = STAMP_WRAP * 300;
inline constexpr double PCR_HZ = 27e6;

using Packet = std::array<std::uint8_t, PACKET_SIZE>;

// A PES header that begins in a packet.
struct PesHeader {
    std::size_t offset; // of its start code prefix in the packet
    std::uint8_t stream_id;
    std::optional<std::int64_t> pts; // 90 kHz
    std::optional<std::int64_t> dts; // 90 kHz, only where it is written
    std::optional<std::int64_t> decode() const { return dts ? dts : pts; }
};

int pid_of(const Packet& p);
void set_pid(Packet& p, int pid);
int counter_of(const Packet& p);
void set_counter(Packet& p, int counter);
bool unit_starts(const Packet& p);
bool has_payload(const Packet& p);
// An adaptation field that has room for its flags.
bool has_flags(const Packet& p);
void set_discontinuity(Packet& p);
// First byte of the payload; PACKET_SIZE when there is none.
std::size_t payload_at(const Packet& p);

std::optional<std::int64_t> pcr_of(const Packet& p);
// The packet must have a PCR.
void set_pcr(Packet& p, std::int64_t ticks);
// The PCR's bytes become stuffing.
void remove_pcr(Packet& p);
// The payload becomes stuffing, the PCR stays.
void remove_payload(Packet& p);

std::optional<PesHeader> pes_of(const Packet& p);
// Adds to PTS and DTS of the PES header in the packet, if it has them.
void shift_stamps(Packet& p, std::int64_t ticks);
// Changes DTS, or PTS where there is no DTS.
void set_decode(Packet& p, const PesHeader& header, std::int64_t ticks);
// Takes the time stamps out of the header; its length stays.
void remove_stamps(Packet& p, const PesHeader& header);

Packet null_packet();

// The difference a - b on a clock that wraps, between -wrap / 2 and wrap / 2.
std::int64_t distance(std::int64_t a, std::int64_t b, std::int64_t wrap);

} // namespace inject
