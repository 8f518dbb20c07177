// Timed rules about time stamps: 2.5 (distance of PTS), q.1 (late), q.2 (steps of audio against its
// frames, missing pictures) and q.3 (order).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "events.h"
#include "finding.h"
#include "options.h"
#include "output.h"
#include "programs.h"

namespace quarn {

/// Given what the first look noted, in packet order, when the time of each packet is known. What
/// may turn out to follow from something else waits for a second of stream time. Memory is bounded
/// by the number of streams in the PMTs.
class Stamps {
  public:
    /// Both must outlive this.
    Stamps(const Options& options, Output& out);

    /// The tables in force from `place` on.
    void programs(ProgramsPtr programs, const Place& place);

    /// `program_clock`: the PCR of the stream's program when the packet came, 27 MHz, modulo 2^33 *
    /// 300; at a variable rate the last one before it. Not set: not known.
    void pes(const PesEvent& event, const Place& place, std::optional<Ticks> program_clock);

    /// Packets of the pid (null_pid: of all) are lost, damaged or scrambled here, or were where
    /// alignment was lost. May come up to a second late: `place` counts. Call it before pes() of
    /// the same packet.
    void hold_off(std::uint16_t pid, const Place& place);
    /// Packets of the pid are scrambled from here on (as well as hold_off).
    void scrambled(std::uint16_t pid, const Place& place);
    /// The PCR of that program jumped, flagged or not; up to 0.6 s late.
    void clock_jump(std::uint16_t program, const Place& place, bool flagged);
    /// No packets of that pid (1.6), of any pid (q.9), no PCR on that pid (2.3.a) between two
    /// places; at the latest when the packet at `to` is looked at.
    void stopped(std::uint16_t pid, const Place& from, const Place& to);
    void outage(const Place& from, const Place& to);
    void pcr_gap(std::uint16_t pcr_pid, const Place& from, const Place& to);

    /// Time went on to `now`: decides what has waited long enough. A few times a second will do.
    void advance(const Place& now);
    /// The input ends: decides all.
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

    /// PTS (DTS) minus the program's clock at the last PES packet of the pid that had both, in 27
    /// MHz ticks.
    std::optional<Ticks> lead(std::uint16_t pid) const;
};

} // namespace quarn
