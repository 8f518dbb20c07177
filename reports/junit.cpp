#include "junit.h"

#include <algorithm>

#include "sentences.h"
#include "text.h"
#include "words.h"

namespace quarn {

namespace {

/// Text for attributes and content. XML 1.0 has no way to write most control characters, so they go
/// as \xHH; U+FFFE and U+FFFF, valid in UTF-8, are no characters of it.
std::string xml(std::string_view text) {
    std::string out = escaped(printable(text));
    for (const std::string_view wrong : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"})
        for (std::size_t at = 0; (at = out.find(wrong, at)) != std::string::npos;)
            out.replace(at, wrong.size(), wrong == "\xEF\xBF\xBE" ? "\\uFFFE" : "\\uFFFF");
    return out;
}

void suite_head(std::string& out, std::string_view input, std::size_t tests, std::size_t failures,
                std::size_t errors, std::size_t skipped) {
    out += "  <testsuite name=\"" + xml(input) + "\" tests=\"" + std::to_string(tests) +
           "\" failures=\"" + std::to_string(failures) + "\" errors=\"" + std::to_string(errors) +
           "\" skipped=\"" + std::to_string(skipped) + "\">\n";
}

void case_head(std::string& out, std::string_view input, std::string_view name) {
    out += "    <testcase classname=\"" + xml(input) + "\" name=\"" + std::string(name) + "\"";
}

std::string lines_of(const Groups& groups, Rule rule, const ProgramNames& names) {
    std::string text;
    for (const auto& [key, group] : groups.all()) {
        if (key.rule != rule)
            continue;
        text += word(key.severity);
        if (key.kind != Kind::none)
            text += " " + std::string(word(key.kind));
        if (key.pid >= 0)
            text += " pid " + std::to_string(key.pid);
        text += ": " + group_text(key.rule, group) + ". " + sentence(group.finding, names) + "\n";
    }
    return text;
}

/// xml() of every line.
std::string xml_lines(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        out += xml(line) + "\n";
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return out;
}

bool skipped(const Summary& summary, const RuleSummary& rule) {
    return rule.judged != Judged::yes && rule.count == 0 && !made_failed(summary, rule.rule);
}

void test_case(std::string& out, std::string_view input, const Summary& summary,
               const RuleSummary& rule, const Groups& groups) {
    const RuleInfo& row = info(rule.rule);
    case_head(out, input, std::string(row.id) + " " + std::string(row.name));
    const std::string lines = lines_of(groups, rule.rule, program_names(summary));
    if (made_failed(summary, rule.rule))
        out += ">\n      <failure type=\"" + std::string(word(row.severity)) + "\" message=\"" +
               count_text(rule.count, "event") + "\">" + xml_lines(lines) +
               "</failure>\n    </testcase>\n";
    else if (skipped(summary, rule))
        out += ">\n      <skipped message=\"" + std::string(word(rule.judged)) + ": " +
               xml(rule.why) + "\"/>\n    </testcase>\n";
    else if (!lines.empty())
        out += ">\n      <system-out>" + xml_lines(lines) + "</system-out>\n    </testcase>\n";
    else
        out += "/>\n";
}

/// Nothing that a build server would take for success: rules that could not be judged are only
/// skipped.
void verdict_case(std::string& out, std::string_view input, const Summary& summary) {
    case_head(out, input, "verdict");
    if (summary.verdict == Verdict::healthy) {
        out += "/>\n";
        return;
    }
    const std::string why = why_text(summary);
    const std::string verdict(word(summary.verdict));
    out += std::string(">\n      <") + (summary.verdict == Verdict::failed ? "failure" : "error") +
           " type=\"" + verdict + "\" message=\"" + verdict + (why.empty() ? "" : ": " + why) +
           "\"/>\n    </testcase>\n";
}

} // namespace

std::string_view junit_begin() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"quarn-check\">\n";
}

std::string_view junit_end() {
    return "</testsuites>\n";
}

void junit_suite(std::string& out, std::string_view input, const Summary& summary,
                 const Groups& groups) {
    const auto count = [&](auto which) {
        return static_cast<std::size_t>(
            std::count_if(summary.rules.begin(), summary.rules.end(), which));
    };
    const std::size_t rules_failed =
        count([&](const RuleSummary& r) { return made_failed(summary, r.rule); });
    suite_head(out, input, summary.rules.size() + 1,
               rules_failed + (summary.verdict == Verdict::failed ? 1 : 0),
               summary.verdict == Verdict::insufficient ? 1 : 0,
               count([&](const RuleSummary& r) { return skipped(summary, r); }));
    verdict_case(out, input, summary);
    for (const RuleSummary& rule : summary.rules)
        test_case(out, input, summary, rule, groups);
    out += "  </testsuite>\n";
}

void junit_error(std::string& out, std::string_view input, std::string_view kind,
                 std::string_view text) {
    suite_head(out, input, 1, 0, 1, 0);
    case_head(out, input, "readable");
    out += ">\n      <error type=\"" + std::string(kind) + "\" message=\"" + xml(text) +
           "\"/>\n    </testcase>\n  </testsuite>\n";
}

} // namespace quarn
