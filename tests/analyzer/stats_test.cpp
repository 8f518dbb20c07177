// stats_test.cpp - the human statistics, the STAT lines, and when they are due.
#include "fake_clock.h"
#include "program_test.h"

namespace {

// Puts the values in the places of '#'.
std::string fill(std::string text, const std::vector<std::string>& values) {
    std::size_t at = 0;
    for (const std::string& value : values) {
        at = text.find('#', at);
        text.replace(at, 1, value);
        at += value.size();
    }
    return text;
}

const std::string HEAD = "tsan_stats BEGIN\n"
                         "\tProcessed/analyzed             #/#\n"
                         "\tPackets start-skipped:         #\n"
                         "\tPrograms:                      # #\n\n"
                         "\tStream-scope ALERTS:\n"
                         "\t\tLOST-SYNC:         #\n"
                         "\t\tPAT-DIFF:          #\n"
                         "\t\tCC-MLR:            #\n\n";
const std::string PROGRAM = "\t---- PRG(#):# streams, PMT(#) PCR(#) ----\n"
                            "\tTracks:\n"
                            "#\n"
                            "\t++ Packets:\n"
                            "\t\tprocessed/analyzed:    #/#\n"
                            "\t\tprocessed V/A/S:       #/#/#\n"
                            "\t\tanalyzed  V/A/S:       #/#/#\n\n"
                            "\t++ Alerts:\n"
                            "\t\tAV delta:          #\n"
                            "\t\tAV zero:           #\n"
                            "\t\tPCR delta:         #\n"
                            "\t\tPCR frequency:     #\n"
                            "\t\tCC-BRK:            #\n"
                            "\t\tCC-RST:            #\n"
                            "\t\tPMT-DIFF:          #\n"
                            "\t\tPID-NDAT:          #\n\n"
                            "\t------------------------------------------\n";
const std::string END = "tsan_stats END\n";

class stats_test : public program_test {
  protected:
    stats_test() {
        start();
        s.section(0, ts::pat_section({{1, PMT}, {2, 200}}));
        s.section(PMT, ts::pmt_section(1, V, VAS));
        s.section(200, ts::pmt_section(2, 201, {{0x03, 201}}));
        feed_new(s.null().data(V).data(A, 2).data(S, 3).data(201));
        // Each its own number, so that no two can be exchanged.
        t->gac = {71, 72, 73};
        t->pre_skipped = 9;
        t->atotal = 8;
        pg(0).alert = {81, 82, 83, 84, 85, 86, 87, 88};
        pg(0).stat = {1, 2, 3, 4, 5, 6, 7, 8};
        stm(2).acount = 6;
    }
    std::string stat_lines() {
        log.clear();
        tsan_alog_stats(t);
        return log.machine();
    }
    fake_clock clock;
};

TEST_F(stats_test, human) {
    const std::string tracks =
        "\t\t[0:0] V(pid101) [H.264/14496-10 video (MPEG-4/AVC)]: P/A: 1/1\n"
        "\t\t[0:1] A(pid102) [13818-7 Audio with ADTS transport syntax]: P/A: 2/2\n"
        "\t\t[0:2] S(pid103) [13818-1 PES private data]: P/A: 3/6\n";
    const std::string first =
        fill(PROGRAM, {"0", "3", "100", "101", tracks, "1",  "2",  "3",  "5",  "7", "4",
                       "6", "8", "82",  "81",  "83",   "84", "85", "86", "87", "88"});
    const std::string second =
        fill(PROGRAM,
             {"1", "1", "200", "201", "\t\t[1:0] A(pid201) [11172-3 audio (MPEG-1)]: P/A: 1/1\n",
              "1", "1", "0",   "1",   "0",
              "0", "1", "0",   "0",   "0",
              "0", "0", "0",   "0",   "0",
              "0"});
    EXPECT_EQ(stats(),
              fill(HEAD, {"11", "8", "9", "2", "(MPTS)", "71", "72", "73"}) + first + second + END);
    EXPECT_EQ(t->last_stats_dumped, fake_clock::START_REAL.tv_sec);
    t->nprogs = 1;
    EXPECT_EQ(stats(), fill(HEAD, {"11", "8", "9", "1", "", "71", "72", "73"}) + first + END);
    t->nprogs = 0;
    EXPECT_EQ(stats(), fill(HEAD, {"11", "8", "9", "0", "", "71", "72", "73"}) + END);
}

TEST_F(stats_test, machine) {
    t->cfg.max_pdts_delta = t->cfg.max_pcr_delta = t->cfg.pcr_freq_ms = 1;
    pg(0).ref_idx = 1;
    pg(0).av_pdts_delta = {2, 4, 7, 27, 2, 0, 5, 20};
    for (aggr_val* a : {&pg(0).av_pcr_delta, &pg(0).av_pcr_freq, &pg(1).av_pdts_delta,
                        &pg(1).av_pcr_delta, &pg(1).av_pcr_freq})
        *a = {4, 8, 6, 20, 1, 0, 3, 9};
    pg(0).av_pcr_freq.max = 4;
    clock.advance_ms(1234);
    const std::string global = "STAT GLOBAL src 1234 2 9 71 72 73\n";
    const std::string pmt0 =
        "STAT PMTs src 0 100 3\n"
        "STAT PMTi src 0 101 V 1 1 [H.264/14496-10 video (MPEG-4/AVC)]\n"
        "STAT PMTi src 0 102 A 2 2 [13818-7 Audio with ADTS transport syntax]\n"
        "STAT PMTi src 0 103 S 3 6 [13818-1 PES private data]\n";
    const std::string pmt1 = "STAT PMTs src 1 200 1\n"
                             "STAT PMTi src 1 201 A 1 1 [11172-3 audio (MPEG-1)]\n";
    const std::string prg0 = "STAT PRG src # 1 2 3 4 5 6 7 8\n"
                             "STAT AV-delta src 102 -1 3.50 2 7 2 5 6.75 4 27 0 20\n"
                             "STAT PCR-delta src 101 -1 1.50 4 6 1 3 2.50 8 20 0 9\n"
                             "STAT PCR-freq src 101 -1 1.50 4 6 1 4 2.50 8 20 0 9\n"
                             "STAT ALERT-count src 0 82 81 83 84 85 86 88\n";
    const std::string prg1 = "STAT PRG src # 1 1 0 0 1 1 0 0\n"
                             "STAT AV-delta src -1 -1 1.50 4 6 1 3 2.50 8 20 0 9\n"
                             "STAT PCR-delta src 201 -1 1.50 4 6 1 3 2.50 8 20 0 9\n"
                             "STAT PCR-freq src 201 -1 1.50 4 6 1 3 2.50 8 20 0 9\n"
                             "STAT ALERT-count src 1 0 0 0 0 0 0 0\n";
    // The PCR pid is that of the last packet's program in both.
    EXPECT_EQ(stat_lines(), fill(global + pmt0 + prg0 + pmt1 + prg1, {"201", "201"}));
    feed_new(s.null()); // no current program
    for (int call = 2; call <= 256; call++)
        ASSERT_EQ(stat_lines(), fill(global + prg0 + prg1, {"0", "0"})) << call;
    EXPECT_EQ(stat_lines(), fill(global + pmt0 + prg0 + pmt1 + prg1, {"0", "0"}));
    t->cfg.max_pdts_delta = t->cfg.max_pcr_delta = t->cfg.pcr_freq_ms = 0; // not measured
    EXPECT_EQ(split_lines(stat_lines()).size(), 5U);
    tsan_reset_local_stats(t);
    EXPECT_EQ(pg(0).av_pdts_delta.count + pg(0).av_pcr_delta.count + pg(1).av_pcr_freq.count, 0U);
    EXPECT_EQ(pg(1).av_pcr_freq.g_count, 8U);
}

TEST_F(stats_test, period) {
    EXPECT_EQ(tsan_check_dump_stats(nullptr, t), 0);
    EXPECT_EQ(t->last_stats_dumped, 0);
    t->cfg.dump_stats_period = 10;
    const struct {
        long wait_ms;
        bool has_out;
        int dumped;
    } rows[] = {{0, true, 0},    {9000, true, 0},  {1000, true, 1},
                {9000, true, 0}, {2000, false, 1}, {0, false, 1}, // without a stream the time stays
                {0, true, 1},    {0, true, 0}};
    for (const auto& row : rows) {
        clock.advance_ms(row.wait_ms);
        log.clear();
        EXPECT_EQ(tsan_check_dump_stats(row.has_out ? g_log.fp : nullptr, t), row.dumped);
        EXPECT_EQ(log.human_lines("tsan_stats").size(), row.dumped && row.has_out ? 2U : 0U);
        EXPECT_EQ(log.machine().starts_with("STAT GLOBAL"), row.dumped == 1);
    }
}

} // namespace
