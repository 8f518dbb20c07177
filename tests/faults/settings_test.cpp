// settings_test.cpp - settings at the end of their range.
#include <cstdint>

#include "fixture.h"

namespace {

class extreme_test : public analyzer_test {};

// A deadline that is never reached, after a table has changed as well.
TEST_F(extreme_test, silent_streams_are_never_looked_for) {
    cfg.max_ndat_pcount = SIZE_MAX;
    start();
    ts::stream s;
    s.section(0, ts::pat_section({{1, 100}}));
    s.section(100, ts::pmt_section(1, 101, {{0x1b, 101}, {0x0f, 102}})).data(101, 5);
    s.section(100, ts::pmt_section(1, 101, {{0x1b, 101}, {0x0f, 103}})).data(101, 5);
    feed(s);
    EXPECT_EQ(log.human_lines("ALERT PMT-DIFF").size(), 1U);
    EXPECT_EQ(log.human_lines("PID-NDAT").size(), 0U);
}

} // namespace
