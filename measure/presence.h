// Streams that never come, stop, or have no PCR (1.6), and a multiplex of nothing but null packets
// (q.9).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "output.h"
#include "programs.h"

namespace quarn {

/// Told of what explains gaps elsewhere.
class SilenceSink {
  public:
    virtual ~SilenceSink() = default;
    virtual void stopped(std::uint16_t pid, const Place& from, const Place& to) = 0;
    virtual void outage(const Place& from, const Place& to) = 0;
};

/// Packets of one pid in a short stretch: with payload, or all of a pid that has only PCRs.
struct PidSpan {
    std::uint16_t pid = 0;
    Place first;
    Place last;
    std::uint32_t packets = 0;
};

class Presence {
  public:
    Presence(const Options& options, Output& output, SilenceSink& silences);

    /// Times before that place are estimates.
    void sure_from(const Place& place) { sure_from_ = place.time; }
    void programs(const ProgramsPtr& programs, const Place& place);
    void span(const PidSpan& span);
    /// Returns whether that ends a `no_pcr` that was told of.
    bool pcr(std::uint16_t pid);
    /// Only null packets from `from` on, until `to`; `going_on`: there may be more.
    void nulls(const Place& from, const Place& to, bool open, bool going_on);
    /// Live: what lasts. Called now and then, behind span().
    void look(const Place& now);
    /// Live: nothing has come for `time` since the last packet; said again at each look. Back: it
    /// comes again, or (open) the input ends before it does.
    void away(const Place& last, Ticks time, std::int64_t utc_us);
    void back(const Place& at, bool open);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// `sure`: the last place whose time is no estimate.
    void finish(const Place& end, const Place& sure);
    void judge(Judgement& judgement, std::optional<Ticks> duration) const;

  private:
    struct State {
        ElementaryStream stream;
        bool is_pcr = false;
        bool present = true; // named by a PMT in force
        Place since;
        std::optional<Place> first;
        Place last;
        Ticks record = 0; // its longest silence that was no fault
        std::uint64_t packets = 0;
        std::uint64_t pcrs = 0;
        bool undecided = false;     // an estimate at the end: neither stopped nor sure to go on
        std::uint64_t interval = 0; // live: Finding::id of what goes on
        std::uint64_t no_pcr = 0;   // the same, of `no_pcr`
        Ticks record_before = 0;    // live: of the minutes before
        bool main() const { return stream.is_av() || is_pcr; }
    };

    void arrived(State& state, const PidSpan& span);
    void silent(State& state, const Place& to, bool open, Sure sure, const Place& end);
    void never(State& state, const Place& to, bool open, const Place& end);
    void without_pcr(State& state, const Place& to, bool open);
    void leave(State& state, const Place& place);
    Ticks never_for(const State& state, const Place& to) const;
    bool has_stopped(const State& state, Ticks gap) const;
    bool lacks_pcrs(const State& state) const;
    Finding make_never(const State& state, const Place& end, Ticks waited) const;
    Finding make_stopped(const State& state, const Place& end, Ticks gap) const;
    Finding make_without_pcr(const State& state, const Place& end) const;
    Finding make_off_air(const Place& from, const Place& to, Ticks time) const;
    void goes_on(State& state, Finding&& finding);
    void end(State& state, Finding&& finding);
    void nothing(State& state);
    void note_outage(const Place& from, const Place& to);
    void age_records(const Place& now);
    Ticks dark(const Place& from, const Place& to) const;
    Finding make(Kind kind, const State& state) const;

    const Options& options_;
    Output& output_;
    SilenceSink& silences_;
    ProgramsPtr programs_;
    std::map<std::uint16_t, State> states_;
    struct Outage {
        Place from;
        Place to;
    };
    std::vector<Outage> outages_; // the latest ones
    Ticks sure_from_ = 0;
    bool ever_streams_ = false;
    // Live:
    std::uint64_t outage_ = 0; // Finding::id of that which goes on
    std::uint64_t away_ = 0;   // the same, without any packet
    Place away_from_;
    std::int64_t away_utc_us_ = no_time;
    Ticks away_for_ = 0;
    Ticks records_from_ = no_time;
};

} // namespace quarn
