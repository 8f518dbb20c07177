// Bit rates of all packets, of programs and of pids, and whether the rate is constant, held against
// what is expected. Part of q.11.
#pragma once

#include <map>
#include <optional>
#include <set>

#include "deviations.h"
#include "expectation.h"
#include "expected_services.h"
#include "pid_rates.h"

namespace quarn {

class ExpectedRates {
  public:
    /// All must outlive it.
    ExpectedRates(const Expectation& expected, const ExpectedServices& services,
                  Deviations& deviations);

    /// Packets from one place to another; `constant`: the rate by what is known there, not set
    /// where nothing is.
    void counts(const CountsItem& item, const Place& from, const Place& to,
                std::optional<bool> constant);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before);
    void judge(Judgement& judgement, bool clock) const;

  private:
    void hold(const Thing& thing, const Range& expected, std::optional<std::uint64_t> packets,
              Deviation&& deviation);
    void services();
    void constancy(std::optional<bool> constant);

    const Expectation& expected_;
    const ExpectedServices& services_;
    Deviations& deviations_;
    PidRates rates_;
    std::set<Thing> judged_;
    std::map<Thing, std::int64_t> worst_; // of what is not as expected, bits a second
};

} // namespace quarn
