// What the first look at the packets notes for the rules that need time. Events wait in the order
// of their packets until the clock knows when each was there, then go to the timed rules.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "packet.h"
#include "programs.h"

namespace quarn {

/// A section is complete (its last byte came in this packet).
struct SectionEvent {
    std::uint16_t pid = 0;
    std::uint8_t table_id = 0;
    std::uint16_t extension = 0; // table_id_extension; 0 for short sections
    std::uint32_t sub_table =
        0; // tells sub-tables of one table id and extension apart (EIT, SDT: network)
    std::uint8_t number = 0; // section_number
    std::uint8_t last_number = 0;
    bool crc_right = true;    // true where a section has no CRC
    std::uint8_t version = 0; // version_number
    bool current = true;      // current_next_indicator
    At begin;                 // the packet in which its first byte came
};

/// The tables in force are different from here on (also the first ones).
struct ProgramsEvent {
    ProgramsPtr programs;
};

/// A table in force differs from the one before it (q.4), or did so without a new version (q.5).
struct TableChangedEvent {
    std::uint16_t pid = 0;
    std::uint8_t table_id = 0;
    std::vector<std::uint16_t> programs;
    bool version_unchanged = false; // q.5; else q.4
    std::vector<TableChange> changes;
};

/// A PES packet starts (or a unit without a PES header where one should be: valid is false). The
/// event stands at the packet in which the header is complete up to its stamps: nearly always the
/// one that it starts in.
struct PesEvent {
    std::uint16_t pid = 0;
    bool valid = false;              // start code there, header not cut
    bool split = false;              // it started in an earlier packet than this one
    std::uint8_t stream_id = 0;      // only where valid
    std::optional<std::int64_t> pts; // 90 kHz, below 2^33
    std::optional<std::int64_t> dts; // only where the header has one
    // What came since the last PES start of this pid:
    bool disturbed = true;      // something is missing, damaged or scrambled, or it is the first
    std::uint32_t packets = 0;  // packets with payload
    std::uint32_t received = 0; // PES bytes behind the length field
    std::uint32_t declared = 0; // PES_packet_length, 0: not said
    // What came since the last stamp of this pid:
    std::uint32_t starts = 0;          // PES starts, this one among them
    std::optional<double> frame_ticks; // 90 kHz: sum of the audio frames that began; only with a
                                       // stamp; not set: not counted

    /// DTS, or PTS where there is none.
    std::optional<std::int64_t> stamp() const { return dts ? dts : pts; }
};

/// The scrambling control bits of packets with payload of a pid change (also: the first packet).
struct ScramblingEvent {
    std::uint16_t pid = 0;
    bool first = false;
    bool scrambled = false;
    At before; // the packet with payload before it; not if it is the first
};

/// By service id (program number).
using NamesPtr = std::shared_ptr<const std::map<std::uint16_t, ServiceNames>>;
/// The SDT of this stream in force is different from here on (also the first one).
struct NamesEvent {
    NamesPtr names;
};

using EventBody = std::variant<SectionEvent, ProgramsEvent, TableChangedEvent, PesEvent,
                               ScramblingEvent, NamesEvent>;

struct Event {
    At at;
    EventBody body;
};

/// Takes events from the first look, in the order of their packets.
class EventSink {
  public:
    virtual ~EventSink() = default;
    virtual void event(const At& at, EventBody&& body) = 0;
};

} // namespace quarn
