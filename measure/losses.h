// Names what lies behind a break of a counter: how many packets were lost, or a counter that began
// anew.
//
// A counter says the number modulo 16 only. At a constant rate the clock says how many packets of
// the multiplex are missing; else audio frames, PES lengths and PCRs do. Works about 0.6 s behind
// the clock.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "clock.h"
#include "continuity.h"
#include "events.h"
#include "output.h"
#include "presence.h"

namespace quarn {

class Losses {
  public:
    /// `live`: what is missing without a break is looked for with less patience.
    Losses(Output& output, bool live);

    void programs(const ProgramsPtr& programs);
    void counter_break(const CounterBreak& fault);
    /// Packets of the pid whose header could not be trusted lie between: breaks up to that many
    /// follow.
    void damaged(std::uint16_t pid, std::uint64_t index);
    void interval(const ClockInterval& interval);
    void span(const PidSpan& span);
    /// A PES packet of that pid begins; `per_second`: packets in a second of its stamps, 0 if not
    /// known; `per_start`: 90 kHz ticks from one start to the next.
    void pes(const PesEvent& event, const Place& place, double per_second, double per_start,
             bool constant_rate);
    void clock_jumped(std::uint16_t pid, const Place& from, const Place& to, bool main);
    void outage(const Place& from, const Place& to);
    /// Nothing is known of what was before that place.
    void anew(const Place& at);
    /// The share of null packets in the multiplex so far.
    void null_share(double share) { null_share_ = share; }

    /// Decides what is older than 0.6 s, or all at the end.
    void advance(const StreamClock& clock, const Place& now, bool at_end);
    std::uint64_t lost(std::uint16_t pid) const;

  private:
    struct Break {
        CounterBreak fault;
        Kind kind = Kind::loss;
        std::int64_t lost = 0;
        Sure sure = Sure::modulo_16;
        bool follows = false;            // from something else
        std::optional<double> pes_short; // packets that its PES or frames lack
        bool pes_sure = false;           // by a length, not by a rate
        double frames_missing = 0;       // video
        bool frames_seen = false;
        bool pes_seen = false;
    };
    using Breaks = std::multimap<std::uint64_t, Break>; // by packet
    struct Piece {               // of a PidSpan what is asked for later: there are many
        std::uint64_t first = 0; // packets
        std::uint64_t last = 0;
        Ticks first_time = no_time;
        Ticks last_time = no_time;
        std::uint32_t packets = 0;
    };
    struct Traffic { // of a pid over the last seconds
        std::deque<Piece> pieces;
        std::uint64_t lost = 0;
        std::optional<std::int64_t> stamp; // of the last PES start that had one
        std::uint64_t start = 0;           // the packet of the last PES start
        Ticks start_time = no_time;
        std::uint32_t packets_since = 0; // packets since the last stamp
        bool counted = false;            // its audio frames are counted
    };
    /// A PES packet without a break of its counter that lacks packets or pictures.
    struct Shortfall {
        std::uint16_t pid = 0;
        std::uint64_t from = 0; // packets
        std::uint64_t to = 0;
        double packets = 0; // 0: not known
    };
    struct DamagedRun { // packets one behind the other whose headers could not be trusted
        std::uint64_t first = 0;
        std::uint64_t last = 0;

        std::uint64_t packets() const { return last - first + 1; }
    };
    struct Jump {
        std::uint16_t pid = 0;
        Place from;
        Place to;
        bool main = false;
    };

    std::vector<Breaks::iterator> first_cluster(const StreamClock& clock);
    void decide(const std::vector<Breaks::iterator>& together, const StreamClock& clock);
    void name(std::vector<Break*>& cluster, const StreamClock& clock);
    void name_constant(std::vector<Break*>& cluster, std::int64_t missing,
                       const StreamClock& clock);
    void name_variable(Break& b, const StreamClock& clock);
    std::optional<std::int64_t> missing(const std::vector<Break*>& cluster, const Rate& rate) const;
    void share_out(std::vector<Break*>& cluster, std::int64_t missing, const StreamClock& clock);
    double due(std::uint16_t pid, const Place& from, const Place& to) const;
    bool follows(const Break& b, const StreamClock& clock);
    std::uint64_t damaged_between(std::uint64_t before, std::uint64_t at,
                                  std::uint64_t least_run) const;
    void silent_losses(const StreamClock& clock, const Place& now, bool at_end);
    std::optional<std::uint16_t> whose(const Place& from, const Place& to, double packets) const;
    double fewest(std::uint16_t pid, const Place& before, Ticks length) const;
    bool ragged(Ticks from, Ticks to, double ticks_per_packet) const;
    void silent_loss(std::int64_t packets, const ClockInterval& first, const ClockInterval& last,
                     const StreamClock& clock);
    void datagram(const std::vector<Break*>& cluster, std::optional<std::int64_t> missing,
                  const StreamClock& clock);
    void emit(const Break& b, const StreamClock& clock);
    void sixteens(const PesEvent& event, const Traffic& traffic, const Place& place, double step,
                  double lacks, double per_second);
    const Shortfall* shortfall(std::uint64_t from, std::uint64_t to, double packets) const;
    void forget(const Place& now);
    bool touches(const Break& b, const ClockInterval& i) const;

    Output& output_;
    const bool live_;
    ProgramsPtr programs_;
    Breaks breaks_;
    std::deque<ClockInterval> intervals_;
    std::uint64_t silent_from_ =
        0; // intervals up to this packet were looked at for losses without a break
    std::map<std::uint16_t, Traffic> traffic_;
    std::map<std::uint16_t, std::deque<std::uint64_t>> damaged_;
    std::deque<DamagedRun> damaged_runs_; // in order
    std::deque<Shortfall> shortfalls_;
    std::deque<Jump> jumps_;
    std::deque<std::pair<Place, Place>> outages_;
    double null_share_ = 0;
};

} // namespace quarn
