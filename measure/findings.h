// Between the rules and the host: what follows from something else is dropped, floods are thinned,
// the rest is counted and handed on.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "counters.h"
#include "floods.h"
#include "output.h"
#include "recorder.h"
#include "summary.h"

namespace quarn {

/// Something that explains other findings where it was.
struct Cause {
    enum class What : std::uint8_t {
        sync_lost,       // bytes missing or inserted
        transport_error, // damaged packets of the pid
        lost,            // packets of the pid (near in time)
        out_of_order,    // a stamp of the pid (near in time)
        stopped,         // no packets of the pid
        outage,          // null packets only
    };
    What what = What::outage;
    std::optional<std::uint16_t> pid; // not set: all
    std::uint64_t from = 0;           // packet numbers
    std::uint64_t to = 0;
    Ticks time = no_time; // of a loss
    Ticks length = 0;     // of an outage, of lost time
};

class Findings final : public Output {
  public:
    Findings(const Options& options, Sink& sink);

    /// Told of losses, each of them, before floods are thinned.
    void record(Recorder& recorder) { recorder_ = &recorder; }
    void finding(Finding&& finding) override;
    void consequence(Rule rule) override;
    std::uint64_t new_id() override { return options_.live ? floods_.new_id() : 0; }
    void going_on(Finding&& finding) override;
    void raise(Finding&& finding) override;
    bool raised(std::uint64_t id) const override { return floods_.raised(id); }
    void withdraw(std::uint64_t id) override { begun_.erase(id); }
    void cause(const Cause& cause);
    /// The clock has come so far: hands on what waited long enough.
    void advance(const Place& now);
    void finish();

    std::uint64_t count(Rule rule) const { return rows_[index(rule)].count; }
    /// Count, places and worst of a rule so far.
    void summarise(RuleSummary& row) const;
    void count(Counters& counters) const;
    /// The worst severity of what was handed on for that rule.
    std::optional<Severity> worst_severity(Rule rule) const { return rows_[index(rule)].severity; }

  private:
    static std::size_t index(Rule rule) { return static_cast<std::size_t>(rule); }
    struct Row {
        std::uint64_t count = 0;
        std::uint64_t consequences = 0;
        std::optional<Place> first;
        std::optional<Place> last;
        std::optional<double> worst;
        std::optional<Severity> severity;
    };
    struct Waiting {
        Finding finding;
        Place decided;
    };
    /// An interval that goes on and was not told yet.
    struct Begun {
        Finding finding;
        Place since; // it is looked at from here on
    };

    static bool by_place(const Waiting& a, const Waiting& b);
    bool wanted(const Finding& finding) const;
    bool follows(const Finding& finding) const;
    void release(Finding& finding);
    void release_live(const Place& now);
    bool is_due(const Waiting& waiting, const Place& now) const;
    static bool raise_is_due(const Finding& finding, const Place& now);
    void raise_due(const Place& now);
    void begin(Finding& finding);
    void note(const Finding& finding, std::uint64_t events);

    const Options& options_;
    Recorder* recorder_ = nullptr;
    std::deque<Waiting> waiting_;
    std::deque<Cause> causes_;
    std::map<std::uint64_t, Begun> begun_; // by id
    Floods floods_;
    FindingCounts counts_;
    std::uint64_t lost_packets_ = 0;
    std::array<Row, rule_count> rows_{};
    Place now_;
};

} // namespace quarn
