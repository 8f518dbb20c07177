// Gaps of tables and points about their sections, held back until what they may follow from has
// been told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "finding.h"
#include "output.h"
#include "packet.h"

namespace quarn {

class Recorder;

/// Times that are estimates open and lengthen no gap: before the first and behind the last time
/// that is sure, the clock stands still in here.
class SureClock {
  public:
    void see(const Place& place);
    /// How long after `from` it is at `to`, 0 or more; nothing without a clock.
    std::optional<Ticks> distance(const Place& from, const Place& to) const;
    /// Some place had a time.
    bool runs() const { return runs_; }
    /// From the first to the last time that is sure.
    Ticks covered() const { return first_ == no_time ? 0 : last_ - first_; }

  private:
    Ticks sure(const Place& place) const;

    bool runs_ = false;
    Ticks first_ = no_time;
    Ticks last_ = no_time;
};

/// Something that should come again and again, and when it last did.
struct Series {
    std::uint32_t id = 0; // told apart by it; 0: none yet
    Place last;
    Ticks usual = 0;            // the longest distance that was no gap
    bool in_run = false;        // the last distance was a gap
    std::uint64_t interval = 0; // live: Finding::id of the gap, or run of gaps, that goes on
};

/// What is the same about all gaps of a series.
struct GapRow {
    Rule rule = Rule::pat_error_2;
    Ticks limit = 0;
    std::uint16_t pid = 0;
    std::uint8_t table_id = 0;
};

/// A gap that overlaps what was lost or away is a consequence. Gaps of a series that follow each
/// other are one finding. Findings come about a second after their end.
class Gaps {
  public:
    /// `live`: what is decided waits a little less.
    Gaps(Output& output, bool live) : output_(output), live_(live) {}

    /// Told of the distances of all series.
    void record(Recorder& recorder) { recorder_ = &recorder; }
    SureClock& clock() { return clock_; }
    const SureClock& clock() const { return clock_; }

    /// A distance of the series ends here, and was a gap or not.
    void came(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
              const Place& place);
    /// The run of gaps before this place is whole.
    void good(Series& series, const Place& place);
    /// A gap from series.last to here; `open`: it has not ended.
    void gap(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
             const Place& to, bool open = false);
    /// Live: a gap from series.last to here that has not ended.
    void going_on(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
                  const Place& now);
    /// A point or an interval of another kind.
    void other(Finding&& finding);
    /// The same, but a consequence where its pid was damaged there. With a length and a limit:
    /// where it would be no longer than the limit without that.
    void excusable(Finding&& finding, Ticks length = 0, Ticks limit = 0);

    /// What explains gaps: nothing can have come on the pid (null_pid: on any) here,
    void silence(std::uint16_t pid, const Place& from, const Place& to);
    /// something was lost or damaged here, which explains what is excusable as well,
    void damage(std::uint16_t pid, const Place& from, const Place& to);
    /// a section came here of which it cannot be told what it was.
    void unreadable(std::uint16_t pid, const Place& from, const Place& to);

    void advance(const Place& now);
    Output& output() { return output_; }
    /// Decides all that is pending.
    void finish();

    std::uint32_t new_id() { return ++last_id_; }

  private:
    struct Excuse {
        enum class What : std::uint8_t { silence, damage, unreadable } what;
        std::uint16_t pid;
        Place from;
        Place to;
    };
    struct Pending {
        std::uint32_t series = 0;
        enum class What : std::uint8_t { gap, end_of_run, other } what = What::other;
        bool excusable = false;
        Ticks limit = 0;
        Ticks length = 0;
        Place until;
        Finding finding;
    };

    void add(const Excuse& excuse);
    Pending make(const Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
                 const Place& to, bool open) const;
    void push(Pending&& pending);
    void decide(Pending&& pending);
    void decide_gap(Pending&& pending);
    bool excused(const Pending& pending) const;
    Ticks overlap(const Excuse& excuse, const Finding& finding) const;
    void end_run(std::uint32_t series);

    Output& output_;
    const bool live_;
    Recorder* recorder_ = nullptr;
    SureClock clock_;
    std::deque<Pending> pending_;
    std::deque<Excuse> excuses_;
    std::map<std::uint32_t, Finding> runs_; // by series
    std::uint32_t last_id_ = 0;
};

inline double milliseconds(Ticks ticks) {
    return static_cast<double>(ticks) / ticks_per_ms;
}

} // namespace quarn
