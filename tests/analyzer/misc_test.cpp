// misc_test.cpp - aggregates, captured text and time texts.
#include "analyzer_test.h"

namespace {

class misc_test : public analyzer_test {};

TEST_F(misc_test, aggregates) {
    const auto show = [](const aggr_val& a) {
        return testing::PrintToString(std::vector<u64>{a.count, a.g_count, a.total, a.g_total,
                                                       a.min, a.g_min, a.max, a.g_max});
    };
    aggr_val a{};
    dump_aval(g_log.fp, "name", &a);
    EXPECT_THAT(log.human(), testing::MatchesRegex("name:\t\tlocal-avg  = -?nan .*= -?nan .*\n"));
    inc_aval(&a, 5);
    inc_aval(&a, 3);
    EXPECT_EQ(show(a), "{ 2, 2, 8, 8, 3, 3, 5, 5 }");
    reset_aval(&a);
    inc_aval(&a, 1); // a new extreme waits for its successor
    EXPECT_EQ(show(a), "{ 1, 3, 1, 9, 1, 3, 1, 5 }");
    inc_aval(&a, 9);
    EXPECT_EQ(show(a), "{ 2, 4, 10, 18, 1, 1, 9, 9 }");
    a.g_min = 0;
    log.clear();
    dump_aval(g_log.fp, "name", &a);
    EXPECT_EQ(log.human(), "name:\t\tlocal-avg  = 5.00 (V=10/N=2) min(V)/max(V)=1/9, "
                           "global-avg = 4.50 (V=18/N=4) min(V)/max(V)=0/9\n");
}

TEST_F(misc_test, time_texts) {
    for (const auto& [ms, expected] : std::vector<std::pair<u64, const char*>>{
             {0, "00:00:00.000"}, {3599999, "00:59:59.999"}, {360000000, "100:00:00.000"}})
        EXPECT_STREQ(time_text(ms).text, expected);
    char text[14];
    ms2timestr(90061001, text, 13); // the last byte but one ends the text
    EXPECT_STREQ(text, "25:01:01.00");
    EXPECT_ASSERT(ms2timestr(90061001, text, 12), "n < (ssize_t)slen");
}

TEST_F(misc_test, captured_lines_are_cut_then_dropped) {
    const std::string warning = "(WRN)  add_ctxt_line: PMT buffer may overflow, ";
    ctxt_spec c{};
    ASSERT_EQ(open_ctxt(&c, 40), 0);
    add_ctxt_line(&c, "%s", "0123456789012345678"); // 19 and a newline: room for 18 is left
    add_ctxt_line(&c, "%d", 4);
    add_ctxt_line(&c, "%d", 2); // room for 16
    add_ctxt_line(&c, "lost");
    EXPECT_EQ(std::string(c.buf, 24), "0123456789012345678\n4\n2\n");
    EXPECT_EQ(c.textlen, 24);
    c.textlen = 0;
    add_ctxt_line(&c, "%0100d", 0); // 37 digits and the NUL that ended them
    add_ctxt_line(&c, "lost");
    EXPECT_EQ(std::string(c.buf, 39), std::string(37, '0') + '\0' + '\n');
    EXPECT_EQ(log.human(), warning + "14 bytes left\n" + warning + "-1 bytes left\n");
    close_ctxt(&c);
}

} // namespace
