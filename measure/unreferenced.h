// Packets on pids that no table names (3.4.a). Timed.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>

#include "finding.h"
#include "gaps.h"
#include "options.h"
#include "output.h"
#include "packet.h"
#include "programs.h"

namespace quarn {

/// Judges only while a PAT and every PMT that it names is in force. One thread.
class Unreferenced {
  public:
    /// Both must outlive it.
    Unreferenced(const Options& options, Output& output) : options_(options), output_(output) {}

    /// What is in force from here on.
    void programs(const ProgramsPtr& programs, const Place& place);
    /// Packets of a pid since the last step of the clock, behind the events of these packets.
    void seen(std::uint16_t pid, const Place& first, const Place& last);
    /// The clock has come so far; called at each of its steps, behind seen().
    void advance(const Place& now);
    /// Live: what goes on, or has ended. Called now and then.
    void look(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// The input is over at its last packet: decides what is pending.
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

  private:
    struct Stay {
        Place first;
        Place last;
        std::uint64_t interval = 0; // live: Finding::id
    };

    void end_judged(const Place& place);
    bool too_long(const Stay& stay) const;
    void leave(std::uint16_t pid, const Stay& stay, bool open);
    Finding make(std::uint16_t pid, const Stay& stay, bool open) const;

    const Options& options_;
    Output& output_;
    std::bitset<pid_count> referenced_;
    std::map<std::uint16_t, Stay> stays_; // of the pids that are named by nothing
    Place since_;                         // all tables have been in force since here
    bool complete_ = false;
    bool was_complete_ = false;
    Ticks judged_ = 0; // the longest time over which all tables were in force
    SureClock clock_;
};

} // namespace quarn
