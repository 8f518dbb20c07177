// How often tables come and what else is wrong with their sections: 1.3.a, 1.5.a, 2.2, 2.6
// (foreign table ids) and the rows of SI tables 3.1 to 3.8 but for 3.4. Timed.
#pragma once

#include <cstdint>
#include <memory>

#include "events.h"
#include "finding.h"
#include "options.h"
#include "output.h"
#include "programs.h"

namespace quarn {

class Recorder;

/// Fed in the order of the packets, and judges about a second of stream time behind them, so that
/// what a gap follows from can still be told. Memory is bounded whatever the input. One thread.
class Repetition {
  public:
    /// Both must outlive it. `live`: a PAT or PMT that does not come is found after 10 s, not at
    /// the end.
    Repetition(const Options& options, Output& output, bool live = false);
    ~Repetition();
    void record(Recorder& recorder);
    Repetition(const Repetition&) = delete;
    Repetition& operator=(const Repetition&) = delete;

    /// The first packet of the input; intervals of PAT and PMT count from it.
    void start(const Place& first);
    /// A section whose first and last bytes came at these places.
    void section(const SectionEvent& section, const Place& begin, const Place& end);
    /// What is in force from here on.
    void programs(const ProgramsPtr& programs, const Place& place);
    /// Packets of the pid with payload; pids that carry no PMT are ignored.
    void seen(std::uint16_t pid);
    /// A scrambled packet of the PAT's or a PMT's pid; other pids are ignored.
    void scrambled(std::uint16_t pid, const Place& place);
    /// Nothing but null packets came here: gaps that overlap it follow from it.
    void outage(const Place& from, const Place& to);
    /// Packets of the pid (null_pid: of all) were lost or damaged here: a gap that is none if a
    /// section came in there follows from that, as does a wrong CRC.
    void excuse(std::uint16_t pid, const Place& from, const Place& to);
    /// The clock has come so far; called at each of its steps.
    void advance(const Place& now);
    /// Live: what does not come. Called now and then.
    void look(const Place& now);
    /// Live: nothing comes, and so much time went by since the last packet; what waits is decided.
    void wait(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// The input is over at its last packet: decides what is pending.
    void finish(const Place& end);
    /// Which of its rows were judged; behind finish().
    void judge(Judgement& judgement) const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn
