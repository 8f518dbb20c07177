// intake_test.cpp - the road of one packet: sync, counters, the order of the checks, idling.
#include "fake_clock.h"
#include "program_test.h"

namespace {

class intake_test : public program_test {
  protected:
    std::string counters() {
        const sa_stats& n = pg().stat;
        return testing::PrintToString(std::vector<u64>{n.pcount, n.acount, n.v_pcount, n.v_acount,
                                                       n.a_pcount, n.a_acount, n.s_pcount,
                                                       n.s_acount});
    }
};

TEST_F(intake_test, out_of_sync) {
    load();
    for (const unsigned pid : {ts::NULL_PID, A}) {
        ts::packet p = ts::make_packet({.pid = pid, .cc = 3});
        p[0] = 0x46;
        EXPECT_EQ(process(p), -1);
    }
    expect_lines({err("tsan_process: [src] out of sync at pkt[3]"),
                  err("tsan_process: [src] out of sync at 0:1[4]")},
                 {});
    EXPECT_EQ(t->ptotal, 4U); // counted, and nothing else
    EXPECT_EQ(stm(1).pcount, 0U);
    EXPECT_EQ(t->gac.lost_sync, 0U);
}

TEST_F(intake_test, counting) {
    load({{0x1b, V}, {0x0f, A}, {0x06, S}, {0x06, 104}});
    log.set_level(INFO_level);
    feed_new(s.null(2).data(V, 5).data(A, 3).data(S).data(104).pcr(V, 1));
    expect_lines({inf("analyze_pkt: 4 skipped before analysis")}, {});
    EXPECT_EQ(counters(), "{ 11, 11, 6, 6, 3, 3, 2, 2 }");
    EXPECT_TRUE(stm(0).pcount == 6 && stm(0).acount == 6 && stm(3).pcount == 1);
    EXPECT_TRUE(t->ptotal == 15 && t->atotal == 11);
    // The first packet of a further program notes anew what was skipped.
    s.section(0, ts::pat_section({{1, PMT}, {2, 200}}, {.version = 1}));
    feed_new(s.section(200, ts::pmt_section(2, 201, {{0x1b, 201}})).data(201));
    EXPECT_EQ(log.human_lines("skipped"), lines{inf("analyze_pkt: 17 skipped before analysis")});
    EXPECT_EQ(t->pre_skipped, 17U);
}

TEST_F(intake_test, disabled) {
    cfg.is_enabled = false;
    cfg.max_pcr_delta = cfg.max_pdts_delta = 1;
    load();
    feed_new(s.null().data(V).lose(V).pes(V, ts::VIDEO_ID, {1000000}, 1));
    feed_new(s.pes(A, ts::AUDIO_ID, {1}).lose(A, 3).pes(A, ts::AUDIO_ID, {500000}));
    expect_silence();
    EXPECT_EQ(counters(), "{ 4, 4, 2, 2, 2, 2, 0, 0 }");
    EXPECT_TRUE(t->atotal == 4 && t->pre_skipped == 3);
    EXPECT_EQ(pg().av_pcr_delta.count + pg().av_pdts_delta.count, 0U);
    feed_new(s.section(PMT, ts::pmt_section(1, V, {{0x1b, V}}))); // tables are followed
    EXPECT_EQ(pg().nstreams, 1U);
}

TEST_F(intake_test, order_of_the_checks) {
    cfg.max_pcr_delta = cfg.max_pdts_delta = 500;
    cfg.max_ndat_pcount = 3;
    cfg.access_log_alerts = cfg.no_rlog = true;
    load();
    feed_new(s.pes(V, ts::VIDEO_ID, {180000, 180000}, 900000).data(A).lose(A));
    feed_new(s.pes(A, ts::AUDIO_ID, {360000, 270000}));
    const std::string at = "[0:1[5]:(pcr=900000)+2]";
    expect_lines({wrn("[src] 1 tracks NOT receiving data")},
                 {"ALERT CC-BRK src 102 0 0 2 0:1[5]:(pcr=900000)+2",
                  "ALERT PCR-DELTA src pts 101 900000 102 360000 6000 " + at,
                  "ALERT PCR-DELTA src dts 101 900000 102 270000 7000 " + at,
                  "ALERT AV-DELTA+ src pts 101 180000 102 360000 2000 " + at,
                  "ALERT AV-DELTA+ src dts 101 180000 102 270000 1000 " + at,
                  "ALERT PID-NDAT src 103 0 2 0:1[5]:(pcr=900000)+2"});
}

TEST_F(intake_test, idling_is_told_every_eleven_seconds) {
    EXPECT_IN_CHILD([this] {
        fake_clock clock;
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
