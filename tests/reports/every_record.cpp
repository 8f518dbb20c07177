// Writes a record of every rule and kind, with all figures and with none, and summaries with every
// word, for validate to hold against the schema:
//
//     every_record RECORDS.jsonl JUNIT.xml [--texts]
//
// --texts: besides the sentences on standard output, to be read by people.
#include <fstream>
#include <iostream>
#include <string_view>

#include "reports/junit.h"
#include "reports/people.h"
#include "reports/records.h"

using namespace quarn;

namespace {

// What a hostile service name or path may hold: quotes, control characters, a terminal's escape,
// invalid, overlong and cut UTF-8, a surrogate, what XML and JSON give a meaning.
const std::string hostile = "a\"\\\n\x1b[31m\x7f\xc2\x85\xff\xc0\xaf\xed\xa0\x80\xef\xbf\xbf"
                            "]]><b>&amp;\xe2\x82\xac\xf0\x9f\x98\x80{[,:\xe2\x82";

Finding full(Rule rule, Kind kind) {
    Finding f;
    f.rule = rule;
    f.kind = kind;
    f.severity = info(rule).severity;
    f.shape = Shape::interval;
    f.programs = {1, 65535};
    f.pid = 8191;
    f.begin = {497, 93248, 33'333'309, 1'795'239'257'408'351, false};
    f.end = {UINT64_MAX, UINT64_MAX, 90'000'000'000'000, 0, true};
    f.detail.expected = 5;
    f.detail.got = 6;
    f.detail.lost = f.detail.bytes = f.detail.datagrams = f.detail.packets = 1;
    f.detail.interval_ms = 812.3456;
    f.detail.limit_ms = 0.0004;
    f.detail.table_id = 0x42;
    f.detail.step_ms = f.detail.drift_ms_per_s = f.detail.error_ns = -40.5;
    f.detail.late_ms = f.detail.away_ms = 1e300;
    f.detail.extra_ms = 12;
    for (int what = 0; what <= static_cast<int>(TableChange::What::rate); ++what)
        f.detail.changes.push_back({static_cast<TableChange::Op>(what % 4),
                                    static_cast<TableChange::What>(what), 2, 260, hostile, hostile,
                                    hostile});
    f.detail.pids = {256, 257};
    return f;
}

Finding bare(Rule rule, Kind kind) {
    Finding f;
    f.rule = rule;
    f.kind = kind;
    return f;
}

Summary summary(bool with_all) {
    Summary s;
    for (const RuleInfo& row : rule_table) {
        RuleSummary rule;
        rule.rule = row.rule;
        rule.judged = static_cast<Judged>(s.rules.size() % 3);
        if (with_all) {
            rule = {row.rule, Judged::no, hostile, {0, 8191}, 7, 8, Place{1, 2, 3, 4, true},
                    Place{},  -1.5};
            s.why.push_back(row.rule);
        }
        s.rules.push_back(rule);
    }
    if (!with_all)
        return s;
    s.verdict = Verdict::failed;
    s.segment_hint = s.program_missing = true;
    s.duration = 27;
    s.bitrate = UINT64_MAX;
    s.clock = {ClockSummary::Source::pcr, 256, true, true};
    ProgramSummary program{1, hostile, hostile, 4096, 256, {}};
    for (int codec = 0; codec <= static_cast<int>(Codec::private_data); ++codec)
        program.streams.push_back({256, static_cast<StreamKind>(codec % 7),
                                   static_cast<Codec>(codec), hostile, 1, 2, 3, 4});
    s.programs = {program, {}};
    return s;
}

bool write(const char* path, std::string_view text) {
    std::ofstream file(path, std::ios::binary);
    return static_cast<bool>(file << text << std::flush);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    Records records(hostile);
    Groups groups;
    std::string lines;
    records.start(lines, 204, Profile::tr101290);
    for (const RuleInfo& row : rule_table)
        for (std::size_t kind = 0; kind < kind_count; ++kind)
            for (const Finding& f : {full(row.rule, static_cast<Kind>(kind)),
                                     bare(row.rule, static_cast<Kind>(kind))}) {
                records.finding(lines, f, {1, hostile, 3, hostile, 5});
                groups.add(f);
            }
    records.summary(lines, summary(true));
    records.summary(lines, summary(false));
    records.error(lines, "not_ts", hostile);

    std::string xml(junit_begin());
    junit_suite(xml, hostile, summary(true), groups);
    junit_suite(xml, hostile, summary(false), {});
    junit_error(xml, hostile, "not_found", hostile);
    xml += junit_end();

    std::string report;
    people_report(report, {hostile, 188, ""}, {}, summary(true), groups, Colours::none());
    if (argc > 3)
        std::cout << report;
    // Nothing of an input may reach a terminal as a command.
    if (report.find('\x1b') != std::string::npos || report.find("\xc2\x85") != std::string::npos)
        return 1;
    return write(argv[1], lines) && write(argv[2], xml) ? 0 : 2;
}
