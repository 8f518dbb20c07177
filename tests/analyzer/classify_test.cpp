// classify_test.cpp - what a packet is taken for, and the lines that tell so.
#include "program_test.h"

namespace {

class classify_test : public program_test {};

TEST_F(classify_test, each_line_has_its_own_switch) {
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
         [](ts::stream& x) { x.add({.pid = 0}).add({.pid = PMT}); },
         {inf("[src] found PAT at PAT[3]"), inf("[src] found PMT (pid100) at 0:M[4]")}},
        {&tracking_opt::pcr_update,
         [](ts::stream& x) { x.pcr(V, 900); },
         {inf("[src] new PCR=900 [00:00:00.010] at 0:0[3]")}},
        {&tracking_opt::cc_track,
         [](ts::stream& x) { x.set_cc(A, 12).data(A, 2); },
         {inf("cc_track: [src] CC=12 pid=102 at 0:1[3]"),
          inf("cc_track: [src] CC=13 pid=102 at 0:1[4]")}},
        {&tracking_opt::pdts_update,
         [](ts::stream& x) {
             x.pes(V, ts::VIDEO_ID, {450, 90});
         },
         {inf("update_pts_dts: [src] PTS=450 [00:00:00.005] pid=101 at 0:0[3]"),
          inf("update_pts_dts: [src] DTS=90 [00:00:00.001] pid=101 at 0:0[3]")}},
    };
    for (const auto& row : rows)
        for (const bool on : {true, false}) {
            cfg.trk = {true, true, true, true, true, true, false, false};
            if (on)
                cfg.trk = {};
            cfg.trk.*row.own = on;
            load();
            pg().stat.acount = 1;
            log.set_level(INFO_level);
            row.packets(s);
            feed_new(s);
            for (const std::string& line : row.expected)
                EXPECT_EQ(log.human_lines(line).size(), on ? 1U : 0U) << line;
            EXPECT_TRUE(!on || log.human() == join_lines(row.expected)) << log.human();
            log.clear();
        }
}

// The SDT's pid is passed over even when a PMT lists it as a stream or the PAT as a PMT.
TEST_F(classify_test, sdt_pid) {
    cfg.trk.sdt_ignore = true;
    load({{0x1b, ts::SDT_PID}, {0x0f, A}}, ts::SDT_PID);
    log.set_level(INFO_level);
    s.pes(ts::SDT_PID, ts::VIDEO_ID, {1}, 2).data(ts::SDT_PID, 2);
    s.section(0, ts::pat_section({{1, PMT}, {2, ts::SDT_PID}}, {.version = 1}));
    feed_new(s.section(ts::SDT_PID, ts::pmt_section(2, 201, {{0x1b, 201}})));
    EXPECT_EQ(log.human_lines("disregarding SDT").size(), 4U);
    EXPECT_EQ(stm(0).pcount, 3U); // counted all the same
    EXPECT_EQ(stm(0).last_pts, 0U);
    EXPECT_FALSE(pg().got_pcr);
    EXPECT_EQ(pg(1).nstreams, 0U);
}

} // namespace
