// classify_test.cpp - what a packet is taken for, and the lines that tell so.
#include "program_test.h"

namespace {

class classify_test : public program_test {};

// Each line has its own switch, and no other brings it.
TEST_F(classify_test, traces) {
    const struct {
        bool tracking_opt::*own;
        void (*packets)(ts::stream&);
        lines expected;
    } rows[] = {
        {&tracking_opt::sdt_ignore,
         [](ts::stream& x) { x.add({.pid = ts::SDT_PID, .pusi = true}); },
         {inf("[src] disregarding SDT at pkt[3]")}},
        {&tracking_opt::misc_ignore,
         [](ts::stream& x) { x.pcr(999, 1).null(); },
         {inf("upsert_pkt_info: [src] ignoring pid=999 pkt[3]"),
          inf("upsert_pkt_info: [src] ignoring pid=8191 pkt[4]")}},
        {&tracking_opt::pat_pmt_pkt,
         [](ts::stream& x) { x.add({.pid = PMT}); },
         {inf("[src] found PMT (pid100) at 0:M[3]")}},
        {&tracking_opt::pcr_update,
         [](ts::stream& x) { x.pcr(V, 900); },
         {inf("[src] new PCR=900 [00:00:00.010] at 0:0[3]")}},
        {&tracking_opt::cc_track,
         [](ts::stream& x) { x.set_cc(A, 12).data(A); },
         {inf("cc_track: [src] CC=12 pid=102 at 0:1[3]")}},
        {&tracking_opt::pdts_update,
         [](ts::stream& x) {
             x.add(filled(S, true, ts::pes_header(ts::PRIVATE_ID, {450, 90})));
         },
         {inf("update_pts_dts: [src] PTS=450 [00:00:00.005] pid=103 at 0:2[3]"),
          inf("update_pts_dts: [src] DTS=90 [00:00:00.001] pid=103 at 0:2[3]")}},
    };
    for (const auto& row : rows)
        for (const auto& other : rows) {
            SCOPED_TRACE(testing::Message() << row.expected[0] << other.expected[0]);
            cfg.trk = {};
            cfg.trk.*other.own = true;
            load();
            pg().stat.acount = 1;
            log.set_level(INFO_level);
            row.packets(s);
            feed_new(s);
            lines expected = row.expected;
            if (row.own == &tracking_opt::pdts_update && other.own == &tracking_opt::cc_track)
                expected = {inf("cc_track: [src] CC=0 pid=103 at 0:2[3]")};
            else if (row.own != other.own)
                expected = {};
            expect_lines(expected, {});
        }
}

TEST_F(classify_test, the_clock_is_taken_before_the_pes_header) {
    cfg.trk.pcr_update = cfg.trk.pdts_update = true;
    load();
    pg().stat.acount = 1;
    log.set_level(INFO_level);
    feed_new(s.pcr(V, 900).pes(V, ts::VIDEO_ID, {90}, 1800));
    EXPECT_EQ(log.human_lines("[4]"),
              (lines{inf("[src] new PCR=1800 [00:00:00.020] at 0:0[4]:(pcr=900)+1"),
                     inf("update_pts_dts: [src] PTS=90 [00:00:00.001] pid=101 at "
                         "0:0[4]:(pcr=900)+1")}));
}

TEST_F(classify_test, pcr) {
    cfg.pcr_freq_ms = 40;
    load();
    ts::packet p =
        ts::make_packet({.pid = V, .has_payload = false, .adapt = ts::adaptation{900000}});
    p[3] |= 0x10; // a payload is announced that the adaptation field leaves no room for
    feed(p);
    EXPECT_TRUE(pg().got_pcr);
    EXPECT_EQ(pg().last_pcr, 900000U);
    EXPECT_EQ(pg().pcr_pktnum, 3U);
    EXPECT_EQ(pg().av_pcr_freq.count, 0U); // nothing came before it
    feed(ts::make_packet({.pid = A, .has_payload = false, .adapt = ts::adaptation{1}}));
    EXPECT_EQ(pg().last_pcr, 900000U); // not the program's pid
    feed_new(s.pcr(V, 900900));
    EXPECT_EQ(pg().av_pcr_freq.count, 1U);
}

// The SDT's pid is passed over even when a PMT lists it as a stream or the PAT as a PMT.
TEST_F(classify_test, sdt_pid) {
    load({{0x1b, ts::SDT_PID}, {0x0f, A}}, ts::SDT_PID);
    s.pes(ts::SDT_PID, ts::VIDEO_ID, {1}, 2);
    s.section(0, ts::pat_section({{1, PMT}, {2, ts::SDT_PID}}, {.version = 1}));
    feed_new(s.section(ts::SDT_PID, ts::pmt_section(2, 201, {{0x1b, 201}})));
    EXPECT_EQ(pg().stm[0].pcount, 1U); // counted all the same
    EXPECT_EQ(pg().stm[0].last_pts, 0U);
    EXPECT_FALSE(pg().got_pcr);
    EXPECT_EQ(pg(1).nstreams, 0U);
}

} // namespace
