// Timed rules about time stamps: 2.5 (distance of PTS), q.1 (late), q.2 (steps of audio against its
// frames, missing pictures) and q.3 (order).
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "audio_frames.h"
#include "audio_steps.h"
#include "events.h"
#include "excuses.h"
#include "finding.h"
#include "options.h"
#include "output.h"
#include "picture_steps.h"
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
    /// Live: what goes on. Called now and then.
    void look(const Place& now);
    /// Live: nothing comes, and so much time went by since the last packet; what waits is decided.
    void wait(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// The input ends: decides all.
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

    /// PTS (DTS) minus the program's clock at the last PES packet of the pid that had both, in 27
    /// MHz ticks.
    std::optional<Ticks> lead(std::uint16_t pid) const;

  private:
    /// PES packets that came too late, from the first one on (q.1).
    struct Late {
        Place begin;
        Ticks worst = 0;
        std::optional<Place> good;  // since then none was late
        std::uint64_t interval = 0; // live: Finding::id
    };
    struct Stream {
        explicit Stream(double step_limit) : audio(step_limit) {}

        ElementaryStream entry;
        std::vector<std::uint16_t> programs;
        std::optional<Place> last_pts; // 2.5
        std::uint64_t pts_gap = 0;     // live: Finding::id of one that goes on
        // The last stamp, and where; not set where the next one is not to be held against it:
        std::optional<std::int64_t> stamp;
        Place stamp_place;
        Ticks quiet_until = no_time;
        AudioSteps audio;
        PictureSteps pictures;
        std::optional<Late> late;
        bool late_by_jump = false; // the clock jumped, the stamps have not followed
        std::optional<Ticks> lead;
    };
    /// What a pid has had in the whole input, for judge() and what is told once.
    struct Record {
        ElementaryStream entry;
        bool scrambled = false;
        bool units = false;   // PES packets
        bool stamps = false;  // PTS
        bool clocked = false; // a stamp while the clock of its program was known
        bool counted = false; // audio frames between stamps
        bool told_late = false;
        bool told_order = false;
    };
    /// A finding, unless it turns out to follow from something else.
    struct Candidate {
        Finding finding;
        Place from;
        Place to;
        Ticks due = no_time;
    };

    void see(const Place& place);
    void restart(Stream& stream);
    void unit(Stream& stream, Record& record, const PesEvent& event, const Place& place,
              std::optional<Ticks> clock);
    void distance(Stream& stream, const Place& place, bool open);
    void lateness(Stream& stream, Record& record, const PesEvent& event, const Place& place,
                  Ticks clock);
    void late(Stream& stream, Ticks by, const Place& place);
    void close_late(Stream& stream, const Place& end, bool open);
    Candidate make_distance(const Stream& stream, const Place& last, const Place& place,
                            Ticks gap) const;
    Candidate make_late(const Stream& stream, const Place& end) const;
    void leave_pts(Stream& stream, const Place& place, bool open);
    void leave_late(Stream& stream);
    void goes_on(std::uint64_t& id, Candidate&& candidate);
    Ticks wait_time() const;
    void steps(Stream& stream, Record& record, const PesEvent& event, const Place& place);
    bool order(Stream& stream, Record& record, const PesEvent& event, const Place& place,
               std::int64_t step);
    void audio_fault(const Stream& stream, const std::optional<AudioFault>& fault);
    Candidate candidate(Rule rule, const Stream& stream, const Place& from, const Place& to) const;
    void wait(Candidate&& candidate);
    void decide(Candidate&& candidate);
    bool follows(const Candidate& candidate) const;
    bool is_quiet(const Stream& stream, const Place& place) const;
    std::optional<Ticks> elapsed(const Place& from, const Place& to) const;

    void judge_distance(Judgement& judgement) const;
    void judge_lateness(Judgement& judgement) const;
    void judge_steps(Judgement& judgement) const;
    void judge_order(Judgement& judgement) const;
    template <typename Ask>
    void judge_streams(Judgement& judgement, Rule rule, Ask ask) const;

    const Options& options_;
    Output& out_;
    ProgramsPtr programs_;
    std::map<std::uint16_t, Stream> streams_;
    std::map<std::uint16_t, Record> records_;
    Excuses excuses_;
    std::deque<Candidate> waiting_;    // in the order of `due`
    Ticks next_look_ = no_time;        // of advance()
    std::optional<Place> first_exact_; // places whose time is no estimate
    std::optional<Place> last_exact_;
};

} // namespace quarn
