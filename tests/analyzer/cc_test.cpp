// cc_test.cpp - continuity counters: sequences, resets by the clock, losses grouped over pids.
#include "fake_clock.h"
#include "program_test.h"

namespace {

class cc_test : public program_test {
  protected:
    // Feeds packets of a pid with these counters and returns "last/current" of every break, "R"
    // before a reset.
    std::string jumps(unsigned pid, const std::vector<unsigned>& counters) {
        for (const unsigned cc : counters)
            feed_new(s.set_cc(pid, cc).data(pid));
        std::string found;
        for (const std::string& line : log.human_lines("last/current=")) {
            const std::size_t at = line.find("last/current=") + 13;
            found += line.find("CC-RST") == std::string::npos ? " " : " R";
            found += line.substr(at, line.find(' ', at) - at);
        }
        log.clear();
        return found;
    }
    // Loses packets before the next one (15: the counter repeats) and returns the group:
    // segment, pid, distance, members after the first.
    std::string loss(unsigned pid, unsigned count) {
        feed_new(s.lose(pid, count).data(pid));
        const cc_alert_ctx& c = t->last_cca;
        return std::to_string(c.seg_idx) + " " + std::to_string(c.pid) + " " +
               std::to_string(c.delta) + " " + std::to_string(c.nmlr);
    }
    fake_clock clock;
};

TEST_F(cc_test, sequences) {
    const struct {
        std::vector<unsigned> counters;
        const char* expected;
        int delta;
    } rows[] = {{{14, 15, 0, 1}, "", 0}, {{9}, "", 0},           {{3, 5}, " 3/5", 2},
                {{9, 2}, " 9/2", 9},     {{7, 7}, " 7/7", 0},    {{0, 15}, " 0/15", 15},
                {{15, 1}, " 15/1", 2},   {{5, 0, 1}, " 5/0", 11}};
    for (const auto& row : rows) {
        load();
        EXPECT_EQ(jumps(A, row.counters), row.expected);
        EXPECT_EQ(t->last_cca.delta, row.delta) << row.expected;
    }
    feed(ts::make_packet({.pid = A, .cc = 9, .has_payload = false})); // is not looked at
    EXPECT_EQ(jumps(A, {2}), "");
    feed_new(s.null());
    EXPECT_ASSERT(cc_track(t, &stm(0), 0), "i >= 0 && i < (ssize_t)prog(tc)->nstreams");
    cfg.cc_track = false;
    load();
    EXPECT_EQ(jumps(A, {1, 5}), "");
}

TEST_F(cc_test, a_reset_needs_an_earlier_jump_to_zero) {
    cfg.cc_max_ms0_ms = 1000;
    load();
    EXPECT_EQ(jumps(A, {5, 0}), " 5/0");
    clock.advance_ms(1500);
    EXPECT_EQ(jumps(A, {1, 0}), " R1/0");
    EXPECT_EQ(t->last_cca.delta, 15); // a reset counts for grouping too
    clock.advance_ms(200);
    EXPECT_EQ(jumps(A, {1, 0}), " 1/0"); // and starts the time again
    clock.advance_ms(999);
    EXPECT_EQ(jumps(A, {1, 0}), " 1/0");
    clock.advance_ms(1000);
    EXPECT_EQ(jumps(A, {0}), " R0/0");
    clock.advance_ms(5000);
    EXPECT_EQ(jumps(A, {15, 0, 2}), " 0/15 0/2"); // an expected 0 is nothing, 2 never a reset
    EXPECT_EQ(jumps(V, {3, 0}), " 3/0");          // each pid for itself
    const unsigned long reads = clock.reads();
    feed_new(s.data(V, 20));
    EXPECT_EQ(clock.reads(), reads);
    cfg.cc_max_ms0_ms = 0;
    load();
    EXPECT_EQ(jumps(A, {5, 0}), " 5/0");
    EXPECT_EQ(stm(1).cc.ms0_tm.tv_sec, 0);
    clock.advance_ms(100000);
    EXPECT_EQ(jumps(A, {5, 0}), " 0/5 5/0");
}

TEST_F(cc_test, losses_are_grouped_within_a_segment) {
    load();
    feed_new(s.data(V).data(A).data(S));
    loss(V, 2);
    EXPECT_EQ(loss(A, 2), "0 102 3 0"); // never in segment 0
    tsan_next_seg(t);
    EXPECT_EQ(loss(V, 2), "1 101 3 0"); // the last one belongs to another segment
    EXPECT_EQ(loss(A, 2), "1 102 3 1");
    EXPECT_EQ(loss(A, 2), "1 102 3 1"); // the same pid
    EXPECT_EQ(loss(S, 3), "1 103 4 1"); // another distance
    EXPECT_EQ(loss(V, 3), "1 101 4 2");
    log.clear();
    tsan_next_seg(t);
    EXPECT_EQ(log.human(), wrn("ALERT CC-MLR [src] dgram:1 count=2 at 0:0[12]"));
    loss(V, 15);
    EXPECT_EQ(loss(A, 15), "2 102 0 1");
    feed_new(s.data(S)); // in order, on any pid
    EXPECT_EQ(loss(V, 15), "2 101 0 -1");
    tsan_next_seg(t);
    loss(V, 1);
    EXPECT_EQ(loss(A, 1), "3 102 2 1");
    EXPECT_EQ(t->gac.cc_mlr, 1U);
    feed_new(s.null());
    tsan_next_seg(t); // no current program: nothing happens
    EXPECT_EQ(t->last_cca.nmlr, 1);
    EXPECT_EQ(pg().last_seg_idx, 3U);
}

} // namespace
