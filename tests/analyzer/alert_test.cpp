// alert_test.cpp - every alert in both renderings, under both switches, and what it counts.
#include "fake_clock.h"
#include "program_test.h"

namespace {

class alert_test : public program_test {
  protected:
    // Two programs are listed; the second one never gets a PMT.
    void load_two() {
        start();
        s = {};
        s.section(0, ts::pat_section({{1, PMT}, {2, 110}}));
        s.section(PMT, ts::pmt_section(1, V, VAS));
        feed_new(s);
    }
    void losses() { // in segment 1, on two pids alike
        feed_new(s.data(V).data(A));
        tsan_next_seg(t);
        feed_new(s.lose(V, 2).data(V).lose(A, 2).data(A));
    }

  public:
    struct scenario {
        const char* name;
        void (*prepare)(alert_test&);
        void (*trigger)(alert_test&);
        u64& (*counter)(tsan_ctx&);
        const char* human;
        const char* machine;
    };
    static const scenario SCENARIOS[];

  protected:
    fake_clock clock;
};

#define PG_COUNTER(field) [](tsan_ctx& tc) -> u64& { return tc.pg[0].alert.field; }
#define GEN_COUNTER(field) [](tsan_ctx& tc) -> u64& { return tc.gac.field; }
#define DO(...) [](alert_test& x) { __VA_ARGS__; }

const alert_test::scenario alert_test::SCENARIOS[] = {
    {"PAT-DIFF", DO((void)x),
     DO(x.feed_new(
         x.s.section(0, ts::pat_section({{1, PMT}, {3, 120}, {4, 130}}, {.version = 1})))),
     GEN_COUNTER(pat_diff), "ALERT PAT-DIFF [src] PMTs added/deleted: 2/1 progs=3 at PAT[3]",
     "ALERT PAT-DIFF src 0 3 2 1 PAT[3]"},
    {"PMT-DIFF", DO((void)x),
     DO(x.feed_new(
         x.s.section(PMT, ts::pmt_section(1, A, {{0x1b, V}, {5, 104}, {0x0f, A}, {6, S}})))),
     PG_COUNTER(pmt_diff), "ALERT PMT-DIFF [src] track-count: 3/4 pid=100 pcr-pid=102 at 0:M[3]",
     "ALERT PMT-DIFF src 100 3 4 102 0:M[3]"},
    {"CC-BRK", DO(x.feed_new(x.s.set_cc(A, 9).data(A)); tsan_next_seg(x.t)),
     DO(x.feed_new(x.s.set_cc(A, 2).data(A))), PG_COUNTER(cc_break),
     "ALERT CC-BRK [src] dgram:1 last/current=9/2 pid=102 at 0:1[4]",
     "ALERT CC-BRK src 102 1 9 2 0:1[4]"},
    {"CC-RST",
     DO(x.feed_new(x.s.set_cc(A, 5).data(A).set_cc(A, 0).data(A, 2)); tsan_next_seg(x.t);
        x.clock.advance_ms(1500)),
     DO(x.feed_new(x.s.set_cc(A, 0).data(A))), PG_COUNTER(cc_reset),
     "ALERT CC-RST [src] dgram:1 last/current=1/0 pid=102 delta_ms=1500 at 0:1[6]",
     "ALERT CC-RST src 102 1 1 0 1500 0:1[6]"},
    {"CC-MLR", DO(x.losses()), DO(tsan_next_seg(x.t)), GEN_COUNTER(cc_mlr),
     "ALERT CC-MLR [src] dgram:1 count=1 at 0:1[6]", "ALERT CC-MLR src 1 1 0:1[6]"},
    {"PCR-DELTA", DO(x.feed_new(x.s.pcr(V, 900000))),
     DO(x.feed_new(x.s.pes(A, ts::AUDIO_ID, {990090}))), PG_COUNTER(pcr_delta),
     "ALERT PCR-DELTA [src] pcr:pts <> 0:0[3]:0:1[4]:(pcr=900000)+1 V:pcr(pid101)/A:pts(pid102) = "
     "900000 [00:00:10.000]/ 990090 [00:00:11.001] delta=1001",
     "ALERT PCR-DELTA src pts 101 900000 102 990090 1001 [0:1[4]:(pcr=900000)+1]"},
    {"PCR-DELTA dts, PCR behind, no PCR stream",
     DO(x.feed_new(x.s.pcr(V, 900000)); x.pg().pcr_idx = -1; x.pg().pcr_pid = 77),
     DO(x.feed_new(x.s.pes(A, ts::AUDIO_ID, {900000, 810000}))), PG_COUNTER(pcr_delta),
     "ALERT PCR-DELTA [src] pcr:dts <> 0:0[3]:0:1[4]:(pcr=900000)+1 P:pcr(pid77)/A:dts(pid102) = "
     "900000 [00:00:10.000]/ 810000 [00:00:09.000] delta=1000",
     "ALERT PCR-DELTA src dts 77 900000 102 810000 1000 [0:1[4]:(pcr=900000)+1]"},
    {"PCR-FREQ", DO(x.feed_new(x.s.pcr(V, 90000))), DO(x.feed_new(x.s.pcr(V, 99000))),
     PG_COUNTER(pcr_freq),
     "ALERT PCR-FREQ pid=101 old/new: 90000 [00:01:30.000]/99000 [00:01:39.000] delta=100",
     "ALERT PCR-FREQ src 101 90000 99000 100 [0:0[4]:(pcr=90000)+1]"},
    {"AV-DELTA0", DO(x.feed_new(x.s.pes(V, ts::VIDEO_ID, {1000050}, 990000))),
     DO(x.feed_new(x.s.pes(A, ts::AUDIO_ID, {1000000}))), PG_COUNTER(av_delta0),
     "ALERT AV-DELTA0 [src] 0:1[4]:(pcr=990000)+1 V:pts(pid101)/A:pts(pid102) = 1000050 "
     "[00:00:11.111]/1000000 [00:00:11.111] PCR=990000 [00:00:11.000], delta=0",
     "ALERT AV-DELTA0 src pts 101 1000050 102 1000000 0 [0:1[4]:(pcr=990000)+1]"},
    {"AV-DELTA+", DO(x.feed_new(x.s.pes(V, ts::VIDEO_ID, {1000000, 1000000}, 1020000))),
     DO(x.feed_new(x.s.pes(A, ts::AUDIO_ID, {1000000, 1045090}))), PG_COUNTER(av_deltaplus),
     "ALERT AV-DELTA+ [src] 0:1[4]:(pcr=1020000)+1 V:dts(pid101)/A:dts(pid102) = 1000000 "
     "[00:00:11.111]/1045090 [00:00:11.612] PCR=1020000 [00:00:11.333], delta=501",
     "ALERT AV-DELTA+ src dts 101 1000000 102 1045090 501 [0:1[4]:(pcr=1020000)+1]"},
    {"PID-NDAT", DO(x.feed_new(x.s.data(V).data(A))), DO(tsan_check_ndat(x.t)),
     PG_COUNTER(pid_ndat), "ALERT PID-NDAT [src] 0:2 pid103 received no data 0:1[4]",
     "ALERT PID-NDAT src 103 0 2 0:1[4]"},
};

TEST_F(alert_test, both_renderings_under_both_switches) {
    cfg.max_pdts_delta = 500;
    cfg.max_pcr_delta = 500;
    cfg.pcr_freq_ms = 40;
    for (const scenario& sc : SCENARIOS)
        for (const bool no_rlog : {false, true})
            for (const bool access_log : {false, true}) {
                SCOPED_TRACE(testing::Message() << sc.name << " " << no_rlog << access_log);
                cfg.no_rlog = no_rlog;
                cfg.access_log_alerts = access_log;
                load_two();
                sc.prepare(*this);
                log.clear();
                sc.trigger(*this);
                const std::string text = log.human();
                EXPECT_EQ(text.ends_with('\n'), sc.name != std::string("CC-MLR") && !text.empty());
                expect_alerts(no_rlog ? lines{} : lines{wrn(sc.human)},
                              access_log ? lines{sc.machine} : lines{});
                EXPECT_EQ(sc.counter(*t), 1U);
            }
}

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

} // namespace
