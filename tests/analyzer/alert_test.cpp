// alert_test.cpp - what the whole process shares: loss of sync and the idle notice.
#include "fake_clock.h"
#include "program_test.h"

namespace {

class alert_test : public program_test {
  protected:
    fake_clock clock;
};

// Case numbers, period and limit are shared by all contexts of the process.
TEST_F(alert_test, lost_sync) {
    EXPECT_IN_CHILD([this] {
        load();
        const struct {
            long wait_ms; // before the first of these calls
            unsigned seq, calls;
            const char* bailing_out;
        } rows[] = {{0, 1, 4, ""},    {2000, 5, 1, ""},   {1000, 1, 9, ""},
                    {3000, 1, 9, ""}, {1000, 10, 1, "1"}, {60000, 11, 1, "61"}};
        u64 calls = 0;
        for (const auto& row : rows)
            for (unsigned i = 0; i < row.calls; i++) {
                clock.advance_ms(i == 0 ? row.wait_ms : 0);
                t->cfg.no_rlog = calls % 2 != 0;
                t->cfg.access_log_alerts = calls % 4 > 1;
                const bool stop = row.bailing_out[0] != '\0';
                EXPECT_EQ(tsan_alert_lostsync(t), stop ? -1 : 0);
                const std::string n = std::to_string(row.seq + i);
                lines human;
                if (!t->cfg.no_rlog)
                    human.push_back(wrn("ALERT LOST-SYNC [src] seq=" + n + " at 0:M[2]"));
                if (stop)
                    human.push_back(err("tsan_alert_lostsync: bailing out after " + n +
                                        " cases within " + row.bailing_out + " sec"));
                // The machine line does not ask for the switch.
                expect_lines(human, {"ALERT LOST-SYNC src " + n + " [0:M[2]]"});
                EXPECT_EQ(t->gac.lost_sync, ++calls);
            }
    });
}

TEST_F(alert_test, idling_is_told_every_eleven_seconds) {
    EXPECT_IN_CHILD([this] {
        cfg.max_skip_pkts = 3;
        const ts::packet p = ts::make_packet({});
        const auto idle = [&](int packets) { // so many went by
            EXPECT_EQ(process(p), -16);
            expect_lines(packets == 0 ? lines{}
                                      : lines{err("[src] has been idling for too long (" +
                                                  std::to_string(packets) + "/3 packets)")},
                         {});
        };
        start();
        EXPECT_EQ(process(p) + process(p), 0);
        idle(3);
        clock.advance_ms(10000);
        idle(0);
        clock.advance_ms(1000);
        idle(5);
        load(); // tables alone do not end it, one stream packet does
        idle(0);
        EXPECT_EQ(t->start_tm.tv_sec, fake_clock::START_MONOTONIC.tv_sec + 11);
        EXPECT_EQ(process(ts::make_packet({.pid = A})) + process(p), 0);
    });
}

} // namespace
