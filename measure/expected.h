// The input held against what is expected of it (q.11): what the parts of it see comes in here.
#pragma once

#include <optional>

#include "expected_rates.h"
#include "expected_services.h"
#include "expected_tables.h"

namespace quarn {

/// Fed in the order of the packets. One thread.
class Expected {
  public:
    /// Both must outlive it; options.expect is set.
    Expected(const Options& options, Output& output);

    void start(const Place& first);
    void programs(const ProgramsPtr& programs, const Place& place);
    /// The SDT in force from here on.
    void names(const NamesPtr& names, const Place& place) { services_.names(names, place); }
    void section(const SectionEvent& section, const Place& end);
    void seen(const SpansItem::Span& span, const Place& first, const Place& last);
    void counts(const CountsItem& item, const Place& from, const Place& to,
                std::optional<bool> constant);
    /// The clock has come so far; called at each of its steps.
    void advance(const Place& now) { clock_.see(now); }
    /// Live: what goes on. Called now and then.
    void look(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// The input is over at its last packet: decides what is pending.
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

  private:
    SureClock clock_;
    Deviations deviations_;
    ExpectedServices services_;
    ExpectedTables tables_;
    ExpectedRates rates_;
};

} // namespace quarn
