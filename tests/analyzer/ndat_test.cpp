// ndat_test.cpp - streams that never receive a packet.
#include "program_test.h"

namespace {

class ndat_test : public program_test {};

const std::string SILENT = wrn("ALERT PID-NDAT [src] 0:2 pid103 received no data 0:1[");
const std::string ONE = wrn("[src] 1 tracks NOT receiving data");

TEST_F(ndat_test, deadline) {
    cfg.max_ndat_pcount = 10;
    load();
    feed_new(s.data(V, 5).data(A, 4).null(3));
    expect_silence();
    feed_new(s.data(A)); // the tenth packet of the program
    expect_lines({SILENT + "15]", ONE}, {});
    feed_new(s.data(A, 9));
    expect_silence();
    feed_new(s.data(A));
    expect_lines({SILENT + "25]", ONE}, {});
    EXPECT_EQ(pg().alert.pid_ndat, 2U);
    feed_new(s.data(S).data(A, 9));
    expect_lines({nrm("[src] 3 tracks receiving data")}, {});
    EXPECT_EQ(t->ndat_pcount, 0U);
    feed_new(s.data(A, 30));
    expect_silence();

    log.set_level(DEBUG_level); // a changed PMT arms it again
    feed_new(s.section(PMT, ts::pmt_section(1, V, {{0x1b, V}, {0x0f, A}, {0x0f, 104}})));
    EXPECT_EQ(log.human_lines("NDAT"),
              lines{dbg("reset_ndat_pcount: (" + address() + ") NDAT pcount=70")});
    pg().stm[2].pcount = 0; // the place had a stream before
    log.set_level(NORM_level);
    log.clear();
    feed_new(s.data(V, 10));
    expect_lines({wrn("ALERT PID-NDAT [src] 0:2 pid104 received no data 0:0[76]"), ONE}, {});
}

TEST_F(ndat_test, forced_scan) {
    load(); // no deadline is set
    feed_new(s.data(V, 30).data(A));
    expect_silence();
    tsan_check_ndat(t);
    expect_lines({SILENT + "33]", ONE}, {});
    feed_new(s.data(A)); // armed for the count of now, so the next packet scans
    expect_lines({SILENT + "34]", ONE}, {});

    start();
    tsan_check_ndat(t);
    expect_lines({nrm("[src] 0 tracks receiving data")}, {});
}

TEST_F(ndat_test, who_counts) {
    load();
    s.section(0, ts::pat_section({{1, PMT}, {2, 200}}, {.version = 1}));
    s.section(200, ts::pmt_section(2, 201, {{0x1b, 201}, {0x0f, 202}}));
    feed_new(s.data(V).data(A).data(S).data(202));
    log.clear();
    feed_new(s.data(A)); // the current program counts the silence of the other one
    tsan_check_ndat(t);
    expect_lines({wrn("ALERT PID-NDAT [src] 1:0 pid201 received no data 0:1[9]"), ONE}, {});
    EXPECT_EQ(pg(0).alert.pid_ndat, 1U);
    feed_new(s.null());
    t->cfg.max_ndat_pcount = 7;
    tsan_check_ndat(t);
    expect_lines({wrn("ALERT PID-NDAT [src] 1:0 pid201 received no data pkt[10]"), ONE}, {});
    EXPECT_EQ(pg(1).alert.pid_ndat, 1U);
    EXPECT_EQ(t->ndat_pcount, 7U); // the packet count of no program is 0
}

} // namespace
