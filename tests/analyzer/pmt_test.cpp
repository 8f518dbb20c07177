// pmt_test.cpp - stream tables: built, compared, rebuilt.
#include <cstring>

#include "program_test.h"

namespace {

class pmt_test : public program_test {
  protected:
    void give(const std::vector<ts::elementary>& streams, unsigned pcr_pid = V,
              unsigned version = 0) {
        feed_new(s.sections(PMT, {ts::pmt_section(1, pcr_pid, streams, {.version = version})}));
    }
    std::string table() { // "V101=5 A102=3": class, pid and packets
        std::string text;
        for (std::size_t i = 0; i < pg().nstreams; i++)
            text += (i == 0 ? "" : " ") + std::string(1, stm(i).stype) +
                    std::to_string(stm(i).pid) + "=" + std::to_string(stm(i).pcount);
        return text;
    }
};

TEST_F(pmt_test, stream_classes) {
    const std::string video("\x01\x02\x10\x1b\x24\x42"), audio("\x03\x04\x0f\x11\x81\x87");
    for (unsigned code = 0; code < 256; code++) {
        const char c = static_cast<char>(code);
        const char expected = video.find(c) != std::string::npos   ? 'V'
                              : audio.find(c) != std::string::npos ? 'A'
                              : code == 6                          ? 'S'
                                                                   : '?';
        EXPECT_EQ(code2stype(static_cast<std::uint8_t>(code)), expected) << code;
    }
}

TEST_F(pmt_test, what_a_change_says) {
    cfg.max_pdts_delta = 1;
    cfg.trk.pmt_diff = true;
    load({{0x0f, A}}, 999);
    log.set_level(DEBUG_level);
    give({{5, 104}, {0x1b, V}, {0x02, 105}, {0x0f, A}});
    const std::string audio = "  * ES pid=102 streamtype=0x0f streamtype_txt="
                              "\"13818-7 Audio with ADTS transport syntax\"\n";
    const std::string changed =
        "new PMT program=1 version=0 pcrpid=101\n"
        "  * ES pid=104 streamtype=0x05 streamtype_txt=\"13818-1 private sections\"\n"
        "  * ES pid=101 streamtype=0x1b streamtype_txt=\"H.264/14496-10 video (MPEG-4/AVC)\"\n"
        "  * ES pid=105 streamtype=0x02 streamtype_txt=\"13818-2 video (MPEG-2)\"\n" +
        audio + "end PMT";
    expect_lines({wrn("ALERT PMT-DIFF [src] track-count: 1/4 pid=100 pcr-pid=101 at 0:M[3]"),
                  "Older PMT:\nnew PMT program=1 version=0 pcrpid=999\n" + audio + "end PMT",
                  "New PMT:",
                  changed,
                  inf("cmp_PMT: MISMATCH pid=100 1/4"),
                  inf("Adding streams from PMT (pid100) at 0:M[3]"),
                  inf("[src] PMT lists PCR pid=101 at 0:M[3]"),
                  inf("[src] ADD (pid=104, type=5) [13818-1 private sections]"),
                  dbg("add_stream: [src] skipping non-AV PES at 0:M[3]"),
                  inf("[src] ADD (pid=101, type=27) [H.264/14496-10 video (MPEG-4/AVC)]"),
                  dbg("add_stream: [src] pcr_idx=0 for V-stream pid=101"),
                  dbg("add_stream: [src] ref_idx=0 for V-stream pid=101"),
                  dbg("add_stream: added stream[0]:pid=101 (V/PCR) at 0:M[3], 1 streams total"),
                  inf("[src] ADD (pid=105, type=2) [13818-2 video (MPEG-2)]"),
                  wrn("add_stream: 1+ video: ref_idx already set (to 0)"),
                  dbg("add_stream: added stream[1]:pid=105 (V/-) at 0:M[3], 2 streams total"),
                  inf("[src] ADD (pid=102, type=15) [13818-7 Audio with ADTS transport syntax]"),
                  dbg("add_stream: added stream[2]:pid=102 (A/-) at 0:M[3], 3 streams total"),
                  inf("Added 3 streams from PMT (pid100) at 0:M[3]"),
                  inf("process_PMT: PMT pid=100, 3 entries"),
                  "Using PMT:",
                  changed,
                  dbg("update_PMT: copied stats from old[0] to new[2]"),
                  dbg("update_PMT: 1 old/new entries matched")},
                 {});
}

TEST_F(pmt_test, nothing_to_follow) {
    load({{5, 104}}, 200);
    log.set_level(INFO_level);
    give({{5, 104}}, 201);
    expect_lines({inf("[src] will use PMT (pid100) at 0:M[3]"),
                  inf("Adding streams from PMT (pid100) at 0:M[3]"),
                  inf("[src] PMT lists PCR pid=201 at 0:M[3]"),
                  inf("[src] ADD (pid=104, type=5) [13818-1 private sections]"),
                  inf("Added 0 streams from PMT (pid100) at 0:M[3]")},
                 {});
    EXPECT_TRUE(pg().curr_pmt_pid == 0 && pg().pcr_pid == 201);
    EXPECT_ASSERT(give({{5, 104}}, 0), "prog(tc)->pcr_pid");
}

TEST_F(pmt_test, counters_follow_the_pid) {
    load();
    feed_new(s.data(V, 5).data(A, 3).data(S, 2));
    give({{0x0f, A}, {0x1b, V}, {0x06, S}});
    EXPECT_EQ(table(), "A102=3 V101=5 S103=2");
    feed_new(s.pes(A, ts::AUDIO_ID, {5, 6}).data(V));
    EXPECT_EQ(pg().alert.cc_break, 0U);
    // A new stream begins with the count of its place's former one; a new type keeps a pid's.
    give({{0x1b, 110}, {0x1b, V}, {0x04, A}}, 110);
    EXPECT_EQ(table(), "V110=4 V101=6 A102=4");
    EXPECT_TRUE(stm(0).cc.value == -1 && stm(0).last_pts == 0 && stm(0).last_dts == 0);
    EXPECT_TRUE(stm(2).last_pts == 5 && stm(2).last_dts == 6);
    EXPECT_EQ(stm(2).scode, 4U);
    give({{0x1b, V}, {0x06, S}}); // what S once had is lost
    EXPECT_EQ(table(), "V101=6 S103=6");
    EXPECT_EQ(pg().alert.pmt_diff, 3U);

    stream_info src, dst;
    memset(static_cast<void*>(&src), 1, sizeof src);
    memset(static_cast<void*>(&dst), 2, sizeof dst);
    copy_stm_stats(&dst, &src);
    EXPECT_TRUE(dst.pid == 0x02020202 && dst.stype == 2 && dst.scode == 2);
    EXPECT_TRUE(dst.last_pts == src.last_pts && dst.pts_pktnum == src.pts_pktnum &&
                dst.last_dts == src.last_dts && dst.dts_pktnum == src.dts_pktnum);
    EXPECT_TRUE(dst.cc.value == src.cc.value && dst.cc.ms0_tm.tv_nsec == src.cc.ms0_tm.tv_nsec &&
                dst.pcount == src.pcount && dst.acount == src.acount);
}

TEST_F(pmt_test, reference_and_pcr_stream) {
    load();
    EXPECT_EQ(pg().ref_idx, -1); // no threshold, no reference
    cfg.max_pdts_delta = 1;
    load({{0x0f, A}, {0x1b, V}, {0x1b, 110}}, 999);
    EXPECT_TRUE(pg().ref_idx == 1 && pg().pcr_idx == -1);
    give({{0x0f, A}, {0x06, S}}, A);
    EXPECT_TRUE(pg().ref_idx == 1 && pg().pcr_idx == 0);
    give({{0x1b, V}}, 999); // neither is given up once it is set
    EXPECT_TRUE(pg().ref_idx == 1 && pg().pcr_idx == 0 && pg().pcr_pid == 999);
}

// A PMT that was known not to change anything does not hide a change.
TEST_F(pmt_test, there_and_back) {
    cfg.trk.pmt_diff = true;
    const std::vector<ts::elementary> other{{0x1b, V}}, none{{5, 104}};
    load();
    const struct {
        const std::vector<ts::elementary>* streams;
        unsigned version;
        u64 alerts;
        std::size_t followed;
    } rows[] = {
        {&VAS, 0, 0, 3},  {&VAS, 0, 0, 3}, {&other, 0, 1, 1}, {&VAS, 0, 2, 3}, {&VAS, 0, 2, 3},
        {&none, 0, 3, 0}, {&VAS, 0, 3, 3}, // fills an empty table, which is not a comparison
        {&VAS, 0, 4, 3},  {&VAS, 0, 4, 3}, {&VAS, 1, 5, 3},   {&VAS, 1, 5, 3}, {&VAS, 1, 5, 3}};
    for (const auto& row : rows) {
        give(*row.streams, V, row.version);
        EXPECT_EQ(pg().alert.pmt_diff, row.alerts) << &row - rows;
        EXPECT_EQ(pg().nstreams, row.followed);
    }
    log.set_level(DEBUG_level); // the short way says what the long one does
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(pg().seen_pmt.len == 0, i == 1);
        log.clear();
        t->work[0] = 0x55; // nothing is copied on the short way
        give(VAS, V, 1);
        EXPECT_EQ(t->work[0] == 0x55, i == 0);
        expect_lines({inf("cmp_PMT: ok pid=100 3/3")}, {});
        pg().seen_pmt.len = 0;
    }
}

// A descriptor that reaches behind its section makes what follows there part of the text.
TEST_F(pmt_test, what_a_descriptor_claims_counts) {
    load();
    ts::bytes payload = ts::pointed(ts::pmt_section(1, V, {{0x1b, V, ts::descriptor(0xc0, {1})}}));
    payload[payload.size() - 6] = 9; // its byte, the CRC and four bytes behind
    const struct {
        std::uint8_t tail;
        u64 alerts;
    } rows[] = {{1, 1}, {1, 1}, {1, 1}, {2, 2}, {2, 2}, {2, 2}, {1, 3}};
    for (const auto& row : rows) {
        ts::bytes filled_up = payload;
        filled_up.resize(184, row.tail);
        feed_new(s.add({.pid = PMT, .pusi = true, .payload = filled_up}));
        EXPECT_EQ(pg().alert.pmt_diff, row.alerts);
    }
}

// A rendering without room warns for each dropped line of each repetition.
TEST_F(pmt_test, more_streams_than_places_and_room) {
    std::vector<ts::elementary> many;
    for (unsigned i = 0; i < 70; i++)
        many.push_back({3, 1000 + i});
    start();
    s.section(0, ts::pat_section({{1, PMT}}));
    give(many);
    EXPECT_EQ(pg().nstreams, MAX_NSTREAMS);
    const std::string said = log.human();
    EXPECT_GT(split_lines(said).size(), 5U);
    for (const std::string& line : split_lines(said))
        EXPECT_TRUE(line.starts_with(wrn("add_ctxt_line: PMT buffer may overflow, "))) << line;
    for (int repetition = 0; repetition < 3; repetition++) {
        log.clear();
        give(many);
        EXPECT_EQ(log.human(), said);
    }
    log.clear();
    setup_dat(t, PMT);
    EXPECT_EQ(add_stream(t, 2000, 3), -1);
    expect_lines({err("add_stream: [src] too many streams: 64")}, {});
}

} // namespace
