// ts_builder.h - lays out transport packets, PES headers and PAT/PMT sections byte by byte
// (ISO/IEC 13818-1).
//
// For tests, fuzz targets, benchmarks and the sample. It shares no code with the analyzer, so that
// a mistake in one of the two cannot hide in the other.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ts {

inline constexpr std::size_t PACKET_SIZE = 188;
inline constexpr unsigned NULL_PID = 0x1fff;
inline constexpr unsigned SDT_PID = 0x11;
inline constexpr unsigned VIDEO_ID = 0xe0; // PES stream ids
inline constexpr unsigned AUDIO_ID = 0xc0;
inline constexpr unsigned PRIVATE_ID = 0xbd;

using packet = std::array<std::uint8_t, PACKET_SIZE>;
using bytes = std::vector<std::uint8_t>;

// ---- packets -----------------------------------------------------------------------------------

struct adaptation {
    std::optional<std::uint64_t> pcr; // base, 90 kHz; the extension is written as 0
    std::size_t length = 0; // at least this many bytes behind the length byte; stuffing fills up
};

struct packet_fields {
    unsigned pid = NULL_PID;
    unsigned cc = 0;
    bool pusi = false;                 // payload_unit_start_indicator
    bool has_payload = true;           // false: the adaptation field fills the packet
    std::optional<adaptation> adapt{}; // none: no adaptation field
    bytes payload{};                   // must fit; what is left of the packet is 0xff
};

packet make_packet(const packet_fields& fields);
// A packet with exactly this payload: an adaptation field takes the room before it.
packet filled(unsigned pid, bool start, const bytes& payload);

// ---- PES ---------------------------------------------------------------------------------------

struct stamps { // 33-bit counts at 90 kHz
    std::optional<std::uint64_t> pts{};
    std::optional<std::uint64_t> dts{};
};

// A PES header of unbounded length. A DTS alone writes the flags '01', which the standard forbids.
bytes pes_header(unsigned stream_id, const stamps& when);

// ---- sections ----------------------------------------------------------------------------------

struct table_head {
    unsigned version = 0;
    unsigned section = 0; // section_number
    unsigned last = 0;    // last_section_number
};

struct program {
    unsigned number; // 0: the pid is the network information table's
    unsigned pid;
};

struct elementary {
    unsigned type; // stream_type
    unsigned pid;
    bytes descriptors{};
};

std::uint32_t crc32(std::span<const std::uint8_t> data); // CRC-32/MPEG-2

// A section with the long header and a correct CRC; `ext` is the table_id_extension.
bytes make_section(unsigned table_id, unsigned ext, const table_head& head, const bytes& body);
bytes pat_section(const std::vector<program>& programs, const table_head& head = {},
                  unsigned tsid = 1);
bytes pmt_section(unsigned number, unsigned pcr_pid, const std::vector<elementary>& streams,
                  const table_head& head = {}, const bytes& descriptors = {});
bytes descriptor(unsigned tag, const bytes& data);

// The payload of a payload_unit_start packet: pointer field, `prefix`, section. The prefix holds
// stuffing or the end of an earlier section.
bytes pointed(const bytes& section, const bytes& prefix = {});

// Carries sections back to back on one pid, behind `prefix` in the first packet. A packet in which
// a section starts has payload_unit_start set and its pointer field at the first one that does.
std::vector<packet> section_packets(unsigned pid, unsigned first_cc,
                                    const std::vector<bytes>& sections, const bytes& prefix = {});

// ---- a stream ----------------------------------------------------------------------------------

// Collects packets and counts the continuity counter of each pid, from 0.
class stream {
  public:
    // Adds a packet as it is, without moving a counter; or with its pid's next counter.
    stream& add(const packet& p) { return packets_.push_back(p), *this; }
    stream& add(packet_fields fields);
    stream& section(unsigned pid, const bytes& sec, const bytes& prefix = {});
    stream& sections(unsigned pid, const std::vector<bytes>& secs, const bytes& prefix = {});
    // Of the packets of a section the one of index `n` alone.
    stream& part(unsigned pid, const bytes& sec, unsigned n);
    // Keeps a section back, which the next call of sections() sends in front of its own.
    stream& hold(bytes sec) { return held_.push_back(std::move(sec)), *this; }
    stream& pes(unsigned pid, unsigned stream_id, const stamps& when,
                std::optional<std::uint64_t> pcr = {});
    stream& data(unsigned pid, std::size_t count = 1); // payload inside a PES packet
    stream& pcr(unsigned pid, std::uint64_t value);    // adaptation field only: no counter step
    stream& null(std::size_t count = 1);
    // Sets the counter of the pid's next packet; or steps it without a packet.
    stream& set_cc(unsigned pid, unsigned cc) { return next_cc_[pid] = cc & 15, *this; }
    stream& lose(unsigned pid, unsigned n = 1) { return set_cc(pid, next_cc_[pid] + n); }

    [[nodiscard]] const std::vector<packet>& packets() const { return packets_; }
    [[nodiscard]] std::size_t size() const { return packets_.size(); }
    [[nodiscard]] bytes flat() const;
    // Writes the packets and behind them `tail` (a cut record). Returns false on any error.
    [[nodiscard]] bool write(const std::string& path, const bytes& tail = {}) const;

  private:
    unsigned step(unsigned pid);

    std::vector<packet> packets_;
    std::map<unsigned, unsigned> next_cc_;
    std::vector<bytes> held_;
};

} // namespace ts
