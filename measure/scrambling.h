// Elementary streams that become scrambled or clear (q.6), and scrambled ones without a CAT (2.6).
// Timed.
#pragma once

#include <cstdint>
#include <memory>

#include "events.h"
#include "options.h"
#include "output.h"
#include "programs.h"

namespace quarn {

/// Fed in the order of the packets. One thread.
class Scrambling {
  public:
    /// Both must outlive it.
    Scrambling(const Options& options, Output& output);
    ~Scrambling();
    Scrambling(const Scrambling&) = delete;
    Scrambling& operator=(const Scrambling&) = delete;

    /// `before`: the place of event.before.
    void scrambling(const ScramblingEvent& event, const Place& before, const Place& place);
    /// What is in force from here on.
    void programs(const ProgramsPtr& programs, const Place& place);
    /// All sections may be handed over; those of the CAT count.
    void section(const SectionEvent& section, const Place& end);
    /// Packets with payload of a pid since the last step of the clock, behind the events of these
    /// packets.
    void seen(std::uint16_t pid, const Place& first, const Place& last);
    /// The clock has come so far; called at each of its steps, behind seen().
    void advance(const Place& now);
    /// Live: what goes on. Called now and then.
    void look(const Place& now);
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// The input is over at its last packet: decides what is pending.
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn
