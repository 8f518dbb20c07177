// stats_test.cpp - when statistics are due.
#include "fake_clock.h"
#include "program_test.h"

namespace {

class stats_test : public program_test {
  protected:
    stats_test() { load(); }
    fake_clock clock;
};

TEST_F(stats_test, pmt_lines_come_every_256_calls) {
    for (int call = 0; call <= 256; call++) {
        log.clear();
        tsan_alog_stats(t);
        const bool has_them = log.machine().find("STAT PMTs") != std::string::npos;
        EXPECT_EQ(has_them, call % 256 == 0) << call;
    }
}

TEST_F(stats_test, period) {
    EXPECT_EQ(tsan_check_dump_stats(nullptr, t), 0);
    EXPECT_EQ(t->last_stats_dumped, 0);
    t->cfg.dump_stats_period = 10;
    const struct {
        long wait_ms;
        bool has_out;
        int dumped;
    } rows[] = {{0, true, 0},    {9000, true, 0},  {1000, true, 1},
                {9000, true, 0}, {2000, false, 1}, {0, false, 1}, // without a stream the time stays
                {0, true, 1},    {0, true, 0}};
    for (const auto& row : rows) {
        clock.advance_ms(row.wait_ms);
        log.clear();
        EXPECT_EQ(tsan_check_dump_stats(row.has_out ? g_log.fp : nullptr, t), row.dumped);
        EXPECT_EQ(log.human_lines("tsan_stats").size(), row.dumped && row.has_out ? 2U : 0U);
        EXPECT_EQ(log.machine().starts_with("STAT GLOBAL"), row.dumped == 1);
    }
}

} // namespace
