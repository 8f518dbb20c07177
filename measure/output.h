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
