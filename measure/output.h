// Where the rules put what they found: findings, consequences, and whether a row could be judged.
#pragma once

#include <cstdint>
#include <optional>

#include "finding.h"
#include "options.h"

namespace quarn {

/// Rules speak to this; what it passes on to the host's sink is ordered, thinned (floods) and
/// filtered (consequences of other findings, Options::ignore, Options::program) behind it.
class Output {
  public:
    virtual ~Output() = default;
    /// A finding, decided. Rule and kind, places, pid, programs and detail set by the caller.
    virtual void finding(Finding&& finding) = 0;
    /// An event of that rule that followed from another finding.
    virtual void consequence(Rule rule) = 0;

    // Live inputs: intervals are told of while they go on.

    /// For Finding::id: what an interval keeps from its first look to its end. 0 for files.
    virtual std::uint64_t new_id() { return 0; }
    /// The interval with that id has begun and goes on; said again at each look at it, for as long
    /// as nothing explains it.
    virtual void going_on(Finding&& finding) { (void)finding; }
    /// The same where nothing can explain it: told at once.
    virtual void raise(Finding&& finding) { (void)finding; }
    /// Whether the host was told that it began: then it ends in finding(), whatever explains it.
    virtual bool raised(std::uint64_t id) const { return (void)id, false; }
    /// Not to be told, unless it was already.
    virtual void withdraw(std::uint64_t id) { (void)id; }
};

/// Collects at the end whether each row was judged; the worst answer wins: no, yes, not applicable.
class Judgement {
  public:
    virtual ~Judgement() = default;
    virtual void yes(Rule rule) = 0;
    /// `why` is a fixed phrase (kept by pointer) such as "shorter than its limit".
    virtual void no(Rule rule, const char* why,
                    std::optional<std::uint16_t> pid = std::nullopt) = 0;
    virtual void not_applicable(Rule rule, const char* why) = 0;
};

} // namespace quarn
