#include "verdict.h"

#include <algorithm>

namespace quarn {

void Answers::yes(Rule rule) {
    Answer& a = answers_[static_cast<std::size_t>(rule)];
    if (a.judged != Judged::no)
        a.judged = Judged::yes;
}

void Answers::no(Rule rule, const char* why, std::optional<std::uint16_t> pid) {
    if (options_.program && pid) {
        const auto programs = programs_.programs_of(*pid);
        if (std::find(programs.begin(), programs.end(), *options_.program) == programs.end())
            return;
    }
    Answer& a = answers_[static_cast<std::size_t>(rule)];
    if (a.judged != Judged::no)
        a.why = why;
    a.judged = Judged::no;
    if (pid && std::find(a.pids.begin(), a.pids.end(), *pid) == a.pids.end())
        a.pids.push_back(*pid);
}

void Answers::not_applicable(Rule rule, const char* why) {
    Answer& a = answers_[static_cast<std::size_t>(rule)];
    if (a.judged)
        return;
    a.judged = Judged::not_applicable;
    a.why = why;
}

std::vector<RuleSummary> Answers::rows(const Findings& findings) const {
    std::vector<RuleSummary> rows;
    for (const RuleInfo& r : rule_table) {
        const Answer& a = answers_[static_cast<std::size_t>(r.rule)];
        RuleSummary row;
        row.rule = r.rule;
        row.judged = a.judged.value_or(Judged::not_applicable);
        if (row.judged != Judged::yes)
            row.why = a.why != nullptr ? a.why : "nothing that it speaks of";
        row.pids = row.judged == Judged::no ? a.pids : std::vector<std::uint16_t>{};
        std::sort(row.pids.begin(), row.pids.end());
        if (options_.ignore.contains(r.rule)) {
            row.judged = Judged::not_applicable;
            row.why = "ignored";
            row.pids.clear();
        }
        findings.summarise(row);
        rows.push_back(std::move(row));
    }
    return rows;
}

void decide(Summary& summary, const Options& options, const Findings& findings) {
    std::vector<Rule> failed;
    std::vector<Rule> missing;
    for (const RuleSummary& row : summary.rules) {
        const auto severity = findings.worst_severity(row.rule);
        if (severity && *severity >= options.fail_on)
            failed.push_back(row.rule);
        const int priority = info(row.rule).priority;
        const bool counts =
            (priority == 1 || priority == 2) && row.rule != Rule::pcr_accuracy_error;
        const bool required = options.require.contains(row.rule) && row.judged != Judged::yes;
        if (required || (counts && row.judged == Judged::no))
            missing.push_back(row.rule);
    }
    if (!failed.empty()) {
        summary.verdict = Verdict::failed;
        summary.why = std::move(failed);
    } else if (!missing.empty() || summary.program_missing || summary.packets == 0) {
        summary.verdict = Verdict::insufficient;
        summary.why = std::move(missing);
    } else {
        summary.verdict = Verdict::healthy;
    }
}

} // namespace quarn
