// What people read: figures, lines, findings put together, and the cases of a build server.
#include <limits>

#include <gtest/gtest.h>

#include "reports/groups.h"
#include "reports/junit.h"
#include "reports/text.h"

namespace quarn {
namespace {

TEST(Words, RoundFiguresToWhatCounts) {
    constexpr Ticks ms = ticks_per_ms;
    const struct {
        std::string got;
        const char* wanted;
    } rows[] = {
        {duration_text(0), "0 ms"},
        {duration_text(0.0004), "400 ns"},
        {duration_text(-0.0735), "-73.5 us"},
        {duration_text(7.346), "7.35 ms"},
        {duration_text(40), "40 ms"},
        {duration_text(-812.6), "-813 ms"},
        {duration_text(9999), "9999 ms"},
        {duration_text(10'000), "10.0 s"},
        {duration_text(125'400), "125 s"},
        {length_text(45 * ms + ms / 5), "45.2 ms"},
        {length_text(999 * ms), "999 ms"},
        {length_text(7249 * ms), "7.2 s"},
        {length_text(59'949 * ms), "59.9 s"},
        {length_text(59'950 * ms), "1 min 0 s"},
        {length_text(3'599'499 * ms), "59 min 59 s"},
        {length_text(3'599'500 * ms), "1 h 0 min"},
        {length_text(86'429'999 * ms), "24 h 0 min"},
        {rate_text(999), "999 bit/s"},
        {rate_text(1000), "1.00 kbit/s"},
        {rate_text(618'400), "618 kbit/s"},
        {rate_text(12'450'000), "12.4 Mbit/s"},
        {rate_text(std::numeric_limits<std::uint64_t>::max()), "18446744073710 Mbit/s"},
        {count_text(0, "packet"), "0 packets"},
        {count_text(1, "packet"), "1 packet"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.got, row.wanted);
}

TEST(Words, BreakLinesAtBlanks) {
    const struct {
        std::string text;
        const char* wanted; // ten columns, two of them blank
    } rows[] = {
        {"", "\n"},
        {"abcd fgh", "  abcd fgh\n"},
        {"abcd fghi", "  abcd\n  fghi\n"},
        {"  a   b ", "  a b\n"},
        {"a 0123456789 b", "  a\n  0123456789\n  b\n"},
        {"\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9 \xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC",
         "  \xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9 \xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\n"},
    };
    for (const auto& row : rows) {
        std::string out;
        wrap(out, row.text, 2, 10);
        EXPECT_EQ(out, row.wanted) << row.text;
    }
}

Finding loss(std::uint64_t packet, std::int64_t lost) {
    Finding f;
    f.rule = Rule::continuity_count_error;
    f.kind = Kind::loss;
    f.severity = Severity::error;
    f.pid = 256;
    f.begin = f.end = {packet, 0, static_cast<Ticks>(packet) * ticks_per_second, no_time, false};
    f.detail.lost = lost;
    return f;
}

Extras in_file(const char* file, std::uint64_t packet) {
    Extras extras;
    extras.cut_file = file;
    extras.cut_packet = packet;
    return extras;
}

// In whatever order they are decided: the first place, the last, the worst, the first one's cut.
TEST(Words, PutFindingsTogether) {
    Groups groups;
    const auto text = [&] {
        return group_text(Rule::continuity_count_error, groups.all().begin()->second);
    };
    groups.add(loss(5, 2), in_file("b", 7));
    EXPECT_EQ(text(), "once, at packet 5 at 5.000 s, 2 packets");
    groups.add(loss(3, 9), in_file("a", 4));
    Finding flood = loss(6, 1);
    flood.shape = Shape::interval;
    flood.count = 4;
    flood.end.packet = 8;
    flood.open = true;
    groups.add(flood, in_file("c", 1));
    groups.add(loss(7, 1));
    EXPECT_EQ(
        text(),
        "7 times, first at packet 3 at 3.000 s, last at packet 8 at 6.000 s, worst 9 packets, to the end");
    const Group& group = groups.all().begin()->second;
    ASSERT_TRUE(group.cut);
    EXPECT_EQ(group.cut->file + std::to_string(group.cut->packet), "a4");
    groups.forget_cut("b");
    EXPECT_TRUE(group.cut);
    groups.forget_cut("a");
    EXPECT_FALSE(group.cut);
    Finding guess = loss(9, 1);
    guess.sure = Sure::guess;
    groups.add(guess);
    EXPECT_TRUE(text().ends_with("to the end (a guess)")) << text();
    // Another pid, kind or severity is another group, the worst of them first.
    Finding other = loss(1, 1);
    other.severity = Severity::info;
    groups.add(other);
    other.severity = Severity::error;
    other.pid = 257;
    groups.add(other);
    EXPECT_EQ(groups.all().size(), 3U);
    EXPECT_EQ(groups.all().begin()->second.count, 8U);
    EXPECT_EQ(groups.all().rbegin()->first.severity, Severity::info);
}

// A rule that could not be judged is skipped, never passed; a warning that failed nothing is shown.
TEST(Words, TellABuildServer) {
    Summary s;
    s.verdict = Verdict::failed;
    s.why = {Rule::continuity_count_error};
    s.rules.resize(4);
    s.rules[0].rule = Rule::pat_error_2;
    s.rules[0].judged = Judged::yes;
    s.rules[1].rule = Rule::continuity_count_error;
    s.rules[1].judged = Judged::yes;
    s.rules[1].count = 1;
    s.rules[2].rule = Rule::pcr_accuracy_error;
    s.rules[2].judged = Judged::no;
    s.rules[2].why = "a \"rate\" < 1 & \x1b\xEF\xBF\xBF";
    s.rules[3].rule = Rule::unreferenced_pid;
    s.rules[3].judged = Judged::no;
    s.rules[3].count = 1;
    Groups groups;
    groups.add(loss(5, 2));
    Finding warning;
    warning.rule = Rule::unreferenced_pid;
    warning.severity = Severity::warning;
    warning.pid = 40;
    groups.add(warning);
    std::string out;
    junit_suite(out, "<a>", s, groups);
    s = {};
    s.verdict = Verdict::insufficient;
    s.why = {Rule::pat_error_2};
    junit_suite(out, "b", s, {});
    junit_error(out, "c", "not_ts", "no \"TS\"");
    EXPECT_EQ(out, R"(  <testsuite name="&lt;a&gt;" tests="5" failures="2" errors="0" skipped="1">
    <testcase classname="&lt;a&gt;" name="verdict">
      <failure type="failed" message="failed: 1.4"/>
    </testcase>
    <testcase classname="&lt;a&gt;" name="1.3.a PAT_error_2"/>
    <testcase classname="&lt;a&gt;" name="1.4 Continuity_count_error">
      <failure type="error" message="1 event">error loss pid 256: once, at packet 5 at 5.000 s, 2 packets. Pid 256: 2 packets lost.
</failure>
    </testcase>
    <testcase classname="&lt;a&gt;" name="2.4 PCR_accuracy_error">
      <skipped message="no: a &quot;rate&quot; &lt; 1 &amp; \x1B\uFFFF"/>
    </testcase>
    <testcase classname="&lt;a&gt;" name="3.4.a Unreferenced_PID">
      <system-out>warning pid 40: once, at packet 0. Pid 40 carries packets and no table names it.
</system-out>
    </testcase>
  </testsuite>
  <testsuite name="b" tests="1" failures="0" errors="1" skipped="0">
    <testcase classname="b" name="verdict">
      <error type="insufficient" message="insufficient: 1.3.a"/>
    </testcase>
  </testsuite>
  <testsuite name="c" tests="1" failures="0" errors="1" skipped="0">
    <testcase classname="c" name="readable">
      <error type="not_ts" message="no &quot;TS&quot;"/>
    </testcase>
  </testsuite>
)");
}

} // namespace
} // namespace quarn
