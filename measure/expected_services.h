// Services and streams held against what is expected of them: there or not, on which pids, what
// they are called, what they carry, scrambled or clear. Part of q.11.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "deviations.h"
#include "events.h"
#include "expectation.h"
#include "first_look.h"
#include "options.h"

namespace quarn {

class ExpectedServices {
  public:
    /// All must outlive it.
    ExpectedServices(const Expectation& expected, const Options& options, Deviations& deviations);

    /// The first packet of the input.
    void start(const Place& first) { start_ = first; }
    /// What is in force from here on.
    void programs(const ProgramsPtr& programs, const Place& place);
    void names(const NamesPtr& names, const Place& place);
    /// Packets of a pid since the last step of the clock.
    void seen(const SpansItem::Span& span, const Place& first);
    void judge(Judgement& judgement, const SureClock& clock) const;

    /// The pids of the streams that are there of each service, in the order of the expectation, and
    /// since where; empty for a service that is not.
    struct Found {
        std::vector<std::optional<std::uint16_t>> pids;
        std::vector<std::uint16_t> all; // every stream and the PCRs, each once
        Place since;
        bool operator==(const Found& other) const { return pids == other.pids && all == other.all; }
    };
    const Found& found(std::size_t service) const { return found_[service]; }
    /// The service is there, and no stream of it is missing.
    bool whole(std::size_t service) const;

  private:
    using Service = Expectation::Service;
    using Stream = Expectation::Stream;
    /// What is not as expected now.
    using Now = std::map<Thing, Deviation>;

    void compare(const Place& place);
    void compare(std::size_t index, Now& now, const Place& place);
    void compare_pids(std::size_t index, const Program& program, Now& now);
    void compare_name(std::size_t index, Now& now);
    void compare_streams(std::size_t index, const Program& program, Now& now);
    void compare_stream(std::size_t index, std::size_t item, const ElementaryStream* is, Now& now);
    void others(Now& now);
    void find(std::size_t index, Found&& found, const Place& place);
    std::vector<const ElementaryStream*> matched(const Service& service,
                                                 const Program& program) const;
    Deviation deviation(TableChange::Op op, TableChange::What what, const Service& service) const;
    Ticks patience(const Service& service) const;

    const Expectation& expected_;
    const Options& options_;
    Deviations& deviations_;
    ProgramsPtr programs_;
    NamesPtr names_;
    Place start_;
    std::vector<Found> found_; // by index of the service
    std::map<Thing, TableChange> told_;
    struct Watched {
        std::size_t service;
        std::size_t item;
    };
    std::multimap<std::uint16_t, Watched> scrambled_; // by pid, where it is looked at
    bool pat_seen_ = false;
};

} // namespace quarn
