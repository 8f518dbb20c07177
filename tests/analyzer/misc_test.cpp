// misc_test.cpp - aggregates, captured text and time texts.
#include "program_test.h"

namespace {

class misc_test : public program_test {
  protected:
    std::string dumped(const aggr_val& a) {
        dump_aval(g_log.fp, "name", &a);
        const std::string text = log.human();
        log.clear();
        return text;
    }
    static ctxt_spec open(ssize_t size) {
        ctxt_spec c{};
        EXPECT_EQ(open_ctxt(&c, size), 0);
        return c;
    }
    static std::string text(const ctxt_spec& c) {
        return {c.buf, static_cast<std::size_t>(c.textlen)};
    }
};

TEST_F(misc_test, aggregates) {
    const auto show = [](const aggr_val& a) {
        return testing::PrintToString(std::vector<u64>{a.count, a.g_count, a.total, a.g_total,
                                                       a.min, a.g_min, a.max, a.g_max});
    };
    aggr_val a{};
    EXPECT_THAT(dumped(a), testing::MatchesRegex("name:\t\tlocal-avg  = -?nan .*= -?nan .*\n"));
    inc_aval(&a, 5);
    inc_aval(&a, 3);
    EXPECT_EQ(show(a), "{ 2, 2, 8, 8, 3, 3, 5, 5 }");
    reset_aval(&a);
    EXPECT_EQ(show(a), "{ 0, 2, 0, 8, 0, 3, 0, 5 }");
    inc_aval(&a, 1); // a new extreme waits for its successor
    EXPECT_EQ(show(a), "{ 1, 3, 1, 9, 1, 3, 1, 5 }");
    inc_aval(&a, 9);
    EXPECT_EQ(show(a), "{ 2, 4, 10, 18, 1, 1, 9, 9 }");
    a.g_min = 0;
    EXPECT_EQ(dumped(a), "name:\t\tlocal-avg  = 5.00 (V=10/N=2) min(V)/max(V)=1/9, "
                         "global-avg = 4.50 (V=18/N=4) min(V)/max(V)=0/9\n");
}

TEST_F(misc_test, time_texts) {
    const std::pair<u64, const char*> rows[] = {{0, "00:00:00.000"},
                                                {3599999, "00:59:59.999"},
                                                {90061001, "25:01:01.001"},
                                                {360000000, "100:00:00.000"}};
    for (const auto& [ms, expected] : rows) {
        char text[TIMESTR_LEN];
        ms2timestr(ms, text, sizeof text);
        EXPECT_STREQ(text, expected);
    }
    char text[14];
    ms2timestr(90061001, text, 14);
    EXPECT_STREQ(text, "25:01:01.001");
    ms2timestr(90061001, text, 13); // the last byte but one ends the text
    EXPECT_STREQ(text, "25:01:01.00");
    EXPECT_ASSERT(ms2timestr(90061001, text, 12), "n < (ssize_t)slen");
}

TEST_F(misc_test, captured_lines_are_cut_then_dropped) {
    ctxt_spec c = open(40);
    add_ctxt_line(&c, "%s", "0123456789012345678"); // 19 and a newline: room for 18 is left
    add_ctxt_line(&c, "%d", 4);
    add_ctxt_line(&c, "%d", 2); // room for 16
    EXPECT_EQ(text(c), "0123456789012345678\n4\n2\n");
    expect_silence();
    add_ctxt_line(&c, "lost");
    EXPECT_EQ(c.textlen, 24);
    expect_lines({wrn("add_ctxt_line: PMT buffer may overflow, 14 bytes left")}, {});
    close_ctxt(&c);

    c = open(40);
    add_ctxt_line(&c, "%0100d", 0); // 37 digits and the NUL that ended them
    EXPECT_EQ(text(c), std::string(37, '0') + '\0' + '\n');
    add_ctxt_line(&c, "lost");
    EXPECT_EQ(c.textlen, 39);
    expect_lines({wrn("add_ctxt_line: PMT buffer may overflow, -1 bytes left")}, {});
    close_ctxt(&c);
}

} // namespace
