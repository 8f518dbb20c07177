// ndat_test.cpp - streams that never receive a packet.
#include "program_test.h"

namespace {

class ndat_test : public program_test {
  protected:
    // The lines of a scan that finds one silent stream.
    static lines silent(const std::string& where) {
        return {wrn("ALERT PID-NDAT [src] " + where), wrn("[src] 1 tracks NOT receiving data")};
    }
};

TEST_F(ndat_test, deadline) {
    cfg.max_ndat_pcount = 10;
    load();
    feed_new(s.data(V, 5).data(A, 4).null(3));
    expect_silence();
    feed_new(s.data(A)); // the tenth packet of the program
    expect_lines(silent("0:2 pid103 received no data 0:1[15]"), {});
    feed_new(s.data(A, 9));
    expect_silence();
    feed_new(s.data(A));
    expect_lines(silent("0:2 pid103 received no data 0:1[25]"), {});
    feed_new(s.data(S).data(A, 9));
    expect_lines({nrm("[src] 3 tracks receiving data")}, {});
    feed_new(s.data(A, 30));
    expect_silence();

    log.set_level(DEBUG_level); // a changed PMT arms it again
    feed_new(s.section(PMT, ts::pmt_section(1, V, {{0x1b, V}, {0x0f, A}, {0x0f, 104}})));
    EXPECT_EQ(log.human_lines("NDAT"),
              lines{dbg("reset_ndat_pcount: (" + address() + ") NDAT pcount=70")});
    stm(2).pcount = 0; // the place had a stream before
    log.set_level(NORM_level);
    log.clear();
    feed_new(s.data(V, 10));
    expect_lines(silent("0:2 pid104 received no data 0:0[76]"), {});
}

TEST_F(ndat_test, forced_scan_and_who_counts) {
    start();
    tsan_check_ndat(t);
    expect_lines({nrm("[src] 0 tracks receiving data")}, {});
    load(); // no deadline is set
    s.section(0, ts::pat_section({{1, PMT}, {2, 200}}, {.version = 1}));
    s.section(200, ts::pmt_section(2, 201, {{0x1b, 201}, {0x0f, 202}}));
    feed_new(s.data(V).data(S).data(202).data(A, 30));
    log.clear();
    tsan_check_ndat(t); // the current program counts the silence of the other one
    expect_lines(silent("1:0 pid201 received no data 0:1[37]"), {});
    feed_new(s.data(A)); // the next scan is due at the count of now
    expect_lines(silent("1:0 pid201 received no data 0:1[38]"), {});
    EXPECT_EQ(pg(0).alert.pid_ndat, 2U);
    feed_new(s.null());
    t->cfg.max_ndat_pcount = 7;
    tsan_check_ndat(t);
    expect_lines(silent("1:0 pid201 received no data pkt[39]"), {});
    EXPECT_EQ(pg(1).alert.pid_ndat, 1U);
    EXPECT_EQ(t->ndat_pcount, 7U); // the packet count of no program is 0
}

} // namespace
