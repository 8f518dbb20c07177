// Which rows were judged, and what that and the findings add up to.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "findings.h"
#include "output.h"
#include "programs.h"
#include "summary.h"

namespace quarn {

/// Collects the answers of all rules.
class Answers final : public Judgement {
  public:
    /// `programs`: all that were there; with Options::program the pids of others do not count.
    Answers(const Options& options, const Programs& programs)
        : options_(options), programs_(programs) {}

    void yes(Rule rule) override;
    void no(Rule rule, const char* why, std::optional<std::uint16_t> pid) override;
    void not_applicable(Rule rule, const char* why) override;

    /// The rows, with their counts, in the order of Rule.
    std::vector<RuleSummary> rows(const Findings& findings) const;

  private:
    struct Answer {
        std::optional<Judged> judged;
        const char* why = nullptr;
        std::vector<std::uint16_t> pids;
    };
    const Options& options_;
    const Programs& programs_;
    std::array<Answer, rule_count> answers_{};
};

/// failed: a finding of severity Options::fail_on or more. Else insufficient: a row of priority 1
/// or 2 other than 2.4 is `no`, or a required row is not `yes`. Else healthy. Sets verdict and why.
void decide(Summary& summary, const Options& options, const Findings& findings);

} // namespace quarn
