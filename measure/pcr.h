// PCRs in time: 2.3.a (too far apart), 2.3.b and q.7 (jumps, not flagged and flagged), 2.4
// (accuracy).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "clock.h"
#include "counters.h"
#include "output.h"
#include "programs.h"
#include "recorder.h"

namespace quarn {

/// Told of every jump of a program's clock that the PCR rules find.
class JumpSink {
  public:
    virtual ~JumpSink() = default;
    /// `from` and `to`: the PCRs on both sides; pid: theirs; `main`: it is the stream clock.
    virtual void clock_jumped(std::uint16_t pid, const Place& from, const Place& to, bool flagged,
                              bool main) = 0;
    /// A PCR gap that is a finding.
    virtual void pcr_gap(std::uint16_t pid, const Place& from, const Place& to) = 0;
};

/// Is each PCR where a constant rate puts it? The middle of the 20 PCRs around tells where that is.
class PcrAccuracy {
  public:
    struct Result {
        Place place;
        double error_ns = 0;
    };
    /// The next PCR of the pid, undisturbed since the one before; `error`: ticks that it lies
    /// behind what the packets since then account for. Gives the one in the middle of the window.
    /// Where all go on by more than `limit` (ticks) ahead or behind, only the first of them is off,
    /// by the whole step.
    std::optional<Result> add(const Place& place, double error, double limit);
    /// Something broke: begins anew.
    void clear() {
        points_.clear();
        sorted_.clear();
    }

  private:
    static constexpr std::size_t around = 10;
    struct Point {
        Place place;
        double offset = 0; // ticks, from the constant rate
    };
    double off(double limit) const;
    std::deque<Point> points_;
    std::vector<double> sorted_; // the offsets of points_
};

class PcrRules {
  public:
    PcrRules(const Options& options, Output& output, JumpSink& jumps);

    void record(Recorder& recorder) { recorder_ = &recorder; }
    /// The first packet of the input: what the first tables name counts from it.
    void start(const Place& first) { start_ = first; }
    void programs(const ProgramsPtr& programs, const Place& place);
    /// An interval of the stream clock's pid.
    void own(const ClockInterval& interval, const Place& from, const Place& to,
             double ticks_per_packet);
    /// Before own() and other() of its packets: what was lost in an interval of the stream clock.
    void lost(const ClockInterval& interval);
    /// A PCR of another pid. `lost`: the time that packets missing since the one before account for
    /// at most.
    void other(const PcrPoint& point, const Place& place, const StreamClock& clock);
    /// Live: PCRs that are missing; `clock`: the pid that the stream clock follows.
    void look(const Place& now, std::optional<std::uint16_t> clock);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    void count(PcrIntervals& intervals) const { intervals = intervals_; }
    /// `sure`: the last place whose time is no estimate.
    void finish(const Place& end, const Place& sure, double ticks_per_packet);
    void judge(Judgement& judgement, bool has_clock) const;

    /// The value of that pid's clock at a packet: at a constant rate what it should be by now, else
    /// that of its last PCR. Modulo pcr_wrap.
    std::optional<Ticks> value_at(std::uint16_t pid, const At& at, const Rate& rate) const;

  private:
    struct State {
        std::optional<PcrPoint> last;
        Place last_place;
        Place since; // announced from here on
        bool announced = false;
        bool ever = false; // announced at some time
        std::uint64_t count = 0;
        bool uncertain = false; // the stream clock changed its pid since the last PCR
        bool undecided = false; // no PCR for a while at the end, by an estimate
        PcrAccuracy accuracy;
        std::uint32_t accurate = 0; // PCRs that were held against the limit of 2.4
        std::uint32_t inaccurate = 0;
        std::vector<PcrAccuracy::Result> early; // until it is clear that the rate is exact enough
        std::uint64_t interval = 0;             // live: Finding::id of a gap that goes on
    };

    Finding make_gap(std::uint16_t pid, const State& state, const Place& from, const Place& to,
                     Ticks distance) const;
    bool gap_is_told(std::uint16_t pid, State& state, const Place& to, bool open);
    void note_distance(const State& state, Ticks distance);
    void gap(std::uint16_t pid, State& state, const Place& from, const Place& to, Ticks distance,
             bool lost);
    void jump(std::uint16_t pid, const Place& from, const Place& to, Ticks step, bool flagged,
              bool main);
    void plain_gap_as_jump(std::uint16_t pid, const Place& to, Ticks distance);
    void accuracy(std::uint16_t pid, State& state, const Place& place, double error, bool usable);
    void inaccurate(std::uint16_t pid, const PcrAccuracy::Result& result);
    void first(std::uint16_t pid, State& state, const Place& place);
    Finding make(Rule rule, Kind kind, std::uint16_t pid) const;

    /// Time that packets missing between two PCRs of the stream clock took.
    struct LostTime {
        std::uint64_t from = 0; // packets
        std::uint64_t to = 0;
        Ticks time = 0;
    };
    Ticks lost_time(std::uint64_t from, std::uint64_t to) const;

    const Options& options_;
    Output& output_;
    JumpSink& jumps_;
    Recorder* recorder_ = nullptr;
    ProgramsPtr programs_;
    Place start_;
    bool settled_ = false;             // all tables have been in force once
    std::optional<std::uint16_t> own_; // of the last interval of the stream clock
    std::map<std::uint16_t, State> states_;
    std::deque<LostTime> lost_;
    PcrIntervals intervals_;
};

} // namespace quarn
