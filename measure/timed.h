// Hands what the first look noted to the rules, in the order of packets, once the clock knows when
// each was there, and tells the rules of each other what explains what.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "clock.h"
#include "damage.h"
#include "expected.h"
#include "findings.h"
#include "first_look.h"
#include "losses.h"
#include "observer.h"
#include "pcr.h"
#include "presence.h"
#include "recorder.h"
#include "repetition.h"
#include "scrambling.h"
#include "stamps.h"
#include "unreferenced.h"
#include "verdict.h"

namespace quarn {

class Timed final : public ContinuitySink, JumpSink, SilenceSink {
  public:
    Timed(const Options& options, Findings& findings, const StreamClock& clock);

    /// Tells that recorder of what the rules see, from now on; it must outlive this.
    void record(Recorder& recorder);
    /// An interval of the stream clock is decided: all items up to its end.
    void interval(const ClockInterval& interval, std::deque<Item>& queue, double null_share);
    /// Without a clock: all items up to that packet.
    void untimed(std::deque<Item>& queue, At to); // a copy: what it is of may be in the queue
    /// Live: no packet has come since `last` for some time.
    void pause(const At& last);
    /// Live: nothing comes behind `last`, or has not for a while: what waits is decided as if that
    /// time had gone by.
    void wait(const At& last, Ticks time);
    /// Live: nothing has come since `last`; told again at each look. `utc_us`: now.
    void away(const At& last, Ticks time, std::int64_t utc_us);
    /// The input is over.
    void finish(std::deque<Item>& queue, const At& last);
    void judge(Answers& answers, std::optional<Ticks> duration) const;

    /// With Options::observe: what there was up to the last packet.
    Observed observed(const At& last) const;
    std::uint64_t lost(std::uint16_t pid) const { return losses_.lost(pid); }
    /// Every program and stream that ever was in force, the latest version of each.
    /// Live inputs: those in force.
    const Programs& seen() const { return seen_; }
    void count(Counters& counters) const;
    std::uint64_t pats() const { return pats_; }
    std::uint64_t first_pat() const { return first_pat_; }

  private:
    // From the counters, at once.
    void counter_break(const CounterBreak& fault) override;
    void order(const OrderFault&) override {}
    void copies(const CopyFault&) override {}
    void frozen(const FrozenRun&) override {}
    bool repeats(std::uint16_t) const override { return false; }
    void added(const At&, unsigned) override {}
    // From the PCR rules and presence.
    void clock_jumped(std::uint16_t pid, const Place& from, const Place& to, bool flagged,
                      bool main) override;
    void pcr_gap(std::uint16_t pid, const Place& from, const Place& to) override;
    void stopped(std::uint16_t pid, const Place& from, const Place& to) override;
    void outage(const Place& from, const Place& to) override;

    void dispatch(std::deque<Item>& queue, std::uint64_t before);
    void lost_time(const ClockInterval& interval);
    void advance(const Place& now);
    void look(const Place& now);
    void end_pause(const ClockInterval& interval);
    void begin_anew(const Place& before, const Place& at);
    Place place(const At& at) const { return clock_.place(at); }

    void take(const At& at, const SectionEvent& event);
    void take(const At& at, const ProgramsEvent& event);
    void take(const At& at, const TableChangedEvent& event);
    void take(const At& at, const NamesEvent& event);
    void take(const At& at, const PesItem& item);
    void take(const At& at, const ScramblingEvent& event);
    void take(const At& at, const SpansItem& item);
    void take(const At& at, const PcrItem& item);
    void take(const At& at, const NullsItem& item);
    void take(const At& at, const BrokenItem& item);
    void take(const At& at, const DamagedItem& item);
    void take(const At& at, const SyncByteItem& item);
    void take(const At& at, const SyncLossItem& item);
    void take(const At& at, const TruncatedItem& item);
    void take(const At& at, const ScrambledTableItem& item);
    void take(const At& at, const OrderFault& fault);
    void take(const At& at, const CopyFault& fault);
    void take(const At& at, const FrozenRun& run);
    void take(const At& at, const DatagramEvent& event);
    void take(const At& at, const CountsItem& item);
    void take(const At& at, const FrozenItem& item);
    void take(const At& at, const AnewItem& item);
    void remember(const Programs& programs);
    std::optional<bool> constant_rate() const;

    const bool live_;
    Findings& findings_;
    const StreamClock& clock_;
    ProgramsPtr programs_;
    Programs seen_;
    Damage damage_;
    Losses losses_;
    PcrRules pcrs_;
    Presence presence_;
    Repetition repetition_;
    Scrambling scrambling_;
    Stamps stamps_;
    Unreferenced unreferenced_;
    std::optional<Expected> expected_; // with Options::expect
    std::optional<Observer> observer_; // with Options::observe
    Recorder* recorder_ = nullptr;
    bool started_ = false;
    bool timed_ = false; // an interval of the clock was there
    Ticks next_look_ = no_time;
    std::uint64_t ahead_ = 0; // up to this packet the rules did not wait for the clock
    bool paused_ = false;
    std::uint64_t pause_index_ = 0; // the last packet before it
    bool away_ = false;
    std::uint64_t pats_ = 0;
    std::uint64_t first_pat_ = 0;
};

} // namespace quarn
