// pts_test.cpp - time stamps kept from PES headers, audio held against video.
#include "program_test.h"

namespace {

class pts_test : public program_test {};

TEST_F(pts_test, stamps_and_flags) {
    cfg.trk.pdts_update = true;
    load();
    pg().stat.acount = 1;
    log.set_level(INFO_level);
    feed_new(s.pes(A, ts::AUDIO_ID, {900000, 810000}));
    expect_lines({inf("update_pts_dts: [src] PTS=900000 [00:00:10.000] pid=102 at 0:1[3]"),
                  inf("update_pts_dts: [src] DTS=810000 [00:00:09.000] pid=102 at 0:1[3]")},
                 {});
    feed_new(s.pes(A, ts::AUDIO_ID, {900000, 810090})); // the PTS repeats and is dropped
    expect_lines({inf("update_pts_dts: [src] DTS=810090 [00:00:09.001] pid=102 at 0:1[4]")}, {});
    EXPECT_FALSE(stm(1).pts_updated);
    EXPECT_TRUE(stm(1).dts_updated);
    EXPECT_EQ(stm(1).pts_pktnum, 4U);

    s.pes(A, ts::AUDIO_ID, {{}, 5}).pes(A, 0xbb, {1});               // DTS alone; no stream's id
    s.add({.pid = A, .payload = ts::pes_header(ts::AUDIO_ID, {1})}); // no unit start
    ts::bytes cut = ts::pes_header(ts::AUDIO_ID, {1, 2});
    cut.pop_back(); // the packet ends in the DTS
    feed_new(s.add(filled(A, true, cut)));
    expect_lines({inf("update_pts_dts: [src] PTS=1 [00:00:00.000] pid=102 at 0:1[8]")}, {});
    EXPECT_EQ(stm(1).last_dts, 810090U);
    EXPECT_EQ(stm(1).dts_pktnum, 4U);
}

TEST_F(pts_test, audio_against_video) {
    cfg.max_pdts_delta = 500;
    const struct {
        u64 video, audio, total, zero, plus;
    } rows[] = {{1000050, 1000000, 0, 1, 0},   {1000000, 1000089, 0, 1, 0},
                {1000000, 1000000, 0, 0, 0},   {1000000, 1045089, 500, 0, 0},
                {1000000, 1045090, 501, 0, 1}, {1045090, 1000000, 501, 0, 1},
                {WRAP - 1, 44, 95443717, 0, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.video << " " << row.audio);
        load();
        feed_new(s.pes(V, ts::VIDEO_ID, {row.video}).pes(A, ts::AUDIO_ID, {row.audio}).data(A));
        EXPECT_EQ(pg().av_pdts_delta.count, 1U);
        EXPECT_EQ(pg().av_pdts_delta.total, row.total);
        EXPECT_EQ(pg().alert.av_delta0, row.zero);
        EXPECT_EQ(pg().alert.av_deltaplus, row.plus);
    }
}

TEST_F(pts_test, what_is_held_against_video) {
    cfg.max_pdts_delta = 500;
    load();
    feed_new(s.pes(A, ts::AUDIO_ID, {1, 2})); // no video stamp yet: both wait
    EXPECT_EQ(pg().av_pdts_delta.count, 0U);
    feed_new(s.pes(V, ts::VIDEO_ID, {9}).data(A)); // the DTS goes on waiting
    EXPECT_EQ(pg().av_pdts_delta.count, 1U);
    feed_new(s.pes(V, ts::VIDEO_ID, {99, 9}).pes(S, ts::PRIVATE_ID, {1, 2}));
    EXPECT_EQ(pg().av_pdts_delta.count, 1U); // neither video nor private data is checked
    feed_new(s.data(A, 2));
    EXPECT_EQ(pg().av_pdts_delta.count, 2U);
    load({{0x0f, A}, {0x06, S}}, S); // no video
    feed_new(s.pes(S, ts::PRIVATE_ID, {9}).pes(A, ts::AUDIO_ID, {1}));
    EXPECT_EQ(pg().av_pdts_delta.count, 0U);
}

} // namespace
