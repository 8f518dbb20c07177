// First look at PES packets (ISO/IEC 13818-1, 2.4.3.6): stamps, lengths and audio frames of the
// elementary streams of the PMTs in force.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "audio_frames.h"
#include "events.h"
#include "packet.h"
#include "programs.h"

namespace quarn {

/// Emits a PesEvent where a PES packet begins. Memory is bounded by the number of streams in the
/// PMTs; a packet costs no allocation.
class PesFront {
  public:
    /// `sink` must outlive this.
    explicit PesFront(EventSink& sink) : sink_(sink) { slots_.fill(none); }

    /// The tables in force from here on. Streams that they no longer name, and those that are of
    /// another type now, are forgotten; streams that carry sections are not followed.
    void programs(const Programs& programs);

    bool follows(std::uint16_t pid) const { return slots_[pid] != none; }

    /// A packet with clear payload of any pid; those that are not followed are passed over. Not to
    /// be called for lawful copies, nor where transport_error_indicator is set.
    void feed(const At& at, const Packet& packet) {
        if (slots_[packet.pid()] == none)
            return;
        Unit& unit = units_[slots_[packet.pid()]];
        if (!unit.plain || packet.unit_start()) {
            look(unit, at, packet);
            return;
        }
        ++unit.packets;
        unit.received += static_cast<std::uint32_t>(packet_size - packet.payload_offset());
    }

    /// Packets of that pid are missing or damaged before the next one that is fed.
    void disturbed(std::uint16_t pid);
    /// The same for all pids (alignment was lost).
    void disturbed();
    /// A scrambled packet came; what is in it is not known.
    void scrambled(std::uint16_t pid) { disturbed(pid); }

    /// PES packets that began so far; 0 for pids that are not followed.
    std::uint64_t starts(std::uint16_t pid) const;
    /// Usual time from one PES start to the next in 90 kHz ticks, by the DTS (PTS) of undisturbed
    /// ones: a picture or field of video, the frames in a PES packet of audio. 0: not known yet.
    double ticks_per_start(std::uint16_t pid) const;
    /// Packets with payload in a second of stamps, by the same PES packets. 0: not known yet.
    double packets_per_second(std::uint16_t pid) const;

  private:
    /// From one stamp to the next, nothing missing in between.
    struct Step {
        std::int64_t ticks = 0;
        std::uint32_t starts = 0;
        std::uint32_t packets = 0;
        std::int64_t each = 0; // ticks from one start to the next
    };
    static constexpr std::int64_t longest_step = 10 * 90'000;
    static constexpr std::size_t stamps_end = 19; // of a header with PTS and DTS
    /// State of a pid.
    struct Unit {
        std::uint16_t pid = null_pid;
        std::uint8_t stream_type = 0;
        Codec codec = Codec::unknown;
        bool counted = false; // audio of which the frames are counted
        bool plain = false;   // packets that begin nothing are only counted
        bool reading = false; // a header, of which header_size bytes are in `header`
        bool carries = false; // what comes is elementary stream data, not padding or the like

        // Since the last start:
        bool disturbed = true;
        std::uint32_t packets = 0;
        std::uint32_t received = 0; // with the start code and length field
        std::uint32_t declared = 0;
        // Since the last stamp:
        bool whole = false; // nothing was disturbed
        std::uint32_t starts_since = 0;
        std::uint32_t packets_since = 0;
        std::optional<std::int64_t> stamp;

        std::array<std::uint8_t, stamps_end> header{};
        std::uint8_t header_size = 0;
        std::uint32_t skip = 0; // bytes of the header behind those
        std::uint32_t left = 0; // elementary stream bytes that the length still allows
        PesEvent event;         // that of the header being read

        std::uint64_t starts = 0;
        std::size_t step_count = 0;
        Step usual;                   // of the last steps
        std::array<Step, 16> steps{}; // the last ones
        AudioFrames frames{Codec::unknown};
    };
    static constexpr std::uint16_t none = 0xFFFF;

    const Unit* find(std::uint16_t pid) const {
        return slots_[pid] == none ? nullptr : &units_[slots_[pid]];
    }
    void look(Unit& unit, const At& at, const Packet& packet);
    void begin(Unit& unit);
    std::size_t read_header(Unit& unit, const At& at, std::span<const std::uint8_t> bytes);
    void emit(Unit& unit, const At& at, bool valid);
    void note_stamp(Unit& unit);
    static Step usual(const Unit& unit);

    EventSink& sink_;
    std::array<std::uint16_t, pid_count> slots_{};
    std::vector<Unit> units_;
};

} // namespace quarn
