// Tables held against how often they usually come. Part of q.11.
#pragma once

#include <vector>

#include "deviations.h"
#include "events.h"
#include "expectation.h"
#include "programs.h"

namespace quarn {

/// Gaps of a table that follow each other are one deviation, closed by the first distance within
/// its interval. PMTs are those of their programs, whatever their pids; all others stand for
/// themselves.
class ExpectedTables {
  public:
    /// All must outlive it.
    ExpectedTables(const Expectation& expected, const SureClock& clock, Deviations& deviations);

    void start(const Place& first);
    void programs(const ProgramsPtr& programs, const Place& place);
    /// A section, whose last byte came there.
    void section(const SectionEvent& section, const Place& end);
    /// Live: what does not come. Called now and then.
    void look(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

  private:
    struct Watch {
        std::size_t index = 0;
        std::uint8_t id = 0;
        Range pid;
        Ticks interval = 0;
        int program = -1; // of a PMT
        bool optional = false;
        bool on = false; // it should come
        bool came = false;
        Place last;
        Ticks worst = 0; // the longest of the gaps that follow each other
        bool judged = false;
    };

    bool is_it(const Watch& watch, const SectionEvent& section) const;
    bool late(const Watch& watch, const Place& now) const;
    void missing(Watch& watch, const Place& now);
    Thing thing(const Watch& watch) const { return {Thing::Aspect::table, 0, watch.index}; }

    const SureClock& clock_;
    Deviations& deviations_;
    const Expectation& expected_;
    ProgramsPtr programs_;
    std::vector<Watch> watches_;
};

} // namespace quarn
