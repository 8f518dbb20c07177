// pat_test.cpp - the first PAT, every later one, and what a change says and leaves behind.
#include "program_test.h"

namespace {

class pat_test : public program_test {
  protected:
    using pids = std::vector<unsigned>;

    void restart() {
        start();
        s = {};
    }
    void give(const pids& list, const ts::table_head& head = {}) {
        std::vector<ts::program> programs;
        for (const unsigned pid : list)
            programs.push_back({static_cast<unsigned>(programs.size()), pid});
        feed_new(s.section(0, ts::pat_section(programs, head)));
    }
    pids programs() const { return {t->pmt_pid, t->pmt_pid + t->nprogs}; }
    static pids range(unsigned first, unsigned count) {
        pids list;
        for (unsigned i = 0; i < count; i++)
            list.push_back(first + i);
        return list;
    }
};

TEST_F(pat_test, two_sections_out_of_order) {
    restart();
    log.set_level(DEBUG_level);
    give({300, 400}, {.section = 1, .last = 1});
    const std::string gathering = "(" + address() + ") not all sections gathered yet";
    expect_lines({inf("[src] using PAT (pid0) at PAT[1]"), dbg("process_PAT: " + gathering)}, {});
    give({100, 200}, {.section = 0, .last = 1});
    expect_lines({inf("[src] using PAT (pid0) at PAT[2]"),
                  inf("[src] PRG[0] pmt[0] pid=100 at PAT[2]"),
                  inf("[src] PRG[1] pmt[1] pid=200 at PAT[2]"),
                  inf("[src] PRG[2] pmt[0] pid=100 at PAT[2]"), // by place, not by program
                  inf("[src] PRG[3] pmt[1] pid=200 at PAT[2]"),
                  dbg("process_PAT: [src] 4 programs read from PAT (2 sections) at PAT[2]")},
                 {});
    EXPECT_EQ(programs(), (pids{100, 200, 300, 400}));
    give({100, 200}, {.section = 0, .last = 1});
    give({300, 500}, {.section = 1, .last = 1});
    expect_lines({dbg("another_PAT: " + gathering + " at PAT[3]"),
                  wrn("[src] pid500 ADDED in new PAT"), wrn("[src] pid400 MISSING in new PAT"),
                  wrn("ALERT PAT-DIFF [src] PMTs added/deleted: 1/1 progs=4 at PAT[4]")},
                 {});
    EXPECT_EQ(t->new_pat, nullptr);
}

TEST_F(pat_test, later_pats) {
    const auto added = [](int pid) {
        return wrn("[src] pid" + std::to_string(pid) + " ADDED in new PAT");
    };
    const auto missing = [](int pid) {
        return wrn("[src] pid" + std::to_string(pid) + " MISSING in new PAT");
    };
    const std::string changed = wrn("ALERT PAT-DIFF [src] PMTs added/deleted: ");
    const struct {
        const char* name;
        std::vector<pids> given; // the first with version 0, the others with 1
        lines said;
        pids left;
        u64 alerts;
    } rows[] = {
        {"version only", {{1, 2}, {1, 2}}, {}, {1, 2}, 0},
        {"order only", {{1, 2}, {2, 1}}, {}, {1, 2}, 0},
        {"one comes, one goes, repeated",
         {{1, 2, 3}, {3, 9, 1}, {3, 9, 1}, {3, 9, 1}},
         {added(9), missing(2), changed + "1/1 progs=3 at PAT[2]"},
         {1, 3, 9},
         1},
        {"and back",
         {{1, 2}, {1}, {1}, {1, 2}, {1, 2}},
         {missing(2), changed + "0/1 progs=1 at PAT[2]", added(2),
          changed + "1/0 progs=2 at PAT[4]"},
         {1, 2},
         2},
        {"listed twice",
         {{1, 2}, {1, 2, 1}},
         {added(1), changed + "1/0 progs=3 at PAT[2]"},
         {1, 2, 1},
         1},
        {"a new one listed twice",
         {{1}, {1, 7, 7}},
         {added(7), added(7), changed + "2/0 progs=3 at PAT[2]"},
         {1, 7, 7},
         1},
        {"all go, the next one is read as a first",
         {{1, 2}, {}, {5}},
         {missing(1), missing(2), changed + "0/2 progs=0 at PAT[2]"},
         {5},
         1},
        {"more than the lists hold, for a moment",
         {range(100, 31), range(200, 31)},
         {},
         range(200, 31),
         1},
    };
    cfg.access_log_alerts = true;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        t->cfg.max_ndat_pcount = 50;
        for (const pids& list : row.given)
            give(list, {.version = &list == row.given.data() ? 0U : 1U});
        EXPECT_EQ(row.left.size() == 31 ? "" : log.human(), join_lines(row.said));
        EXPECT_EQ(programs(), row.left);
        EXPECT_EQ(t->gac.pat_diff, row.alerts);
        EXPECT_EQ(t->ndat_pcount, row.alerts != 0 ? 50U : 0U); // a change arms the scan
        setup_dat(t, row.left.back());
        EXPECT_TRUE(t->dat.is_pmt);
    }
}

TEST_F(pat_test, texts_show_the_first_pat) {
    cfg.trk.pat_diff = true;
    restart();
    give({100, 200});
    give({100}, {.version = 1});
    EXPECT_EQ(t->pmt_pid[1], 0U); // ends the list
    log.clear();
    give({100, 300}, {.version = 2}); // headings are filtered by level, the texts are not
    expect_lines({wrn("[src] pid300 ADDED in new PAT"),
                  wrn("ALERT PAT-DIFF [src] PMTs added/deleted: 1/0 progs=2 at PAT[3]"),
                  "new PAT tsid=1 version=0", "  * NIT pid=100", "  * program number=1 pid=200",
                  "end PAT", "new PAT tsid=1 version=2", "  * NIT pid=100",
                  "  * program number=1 pid=300", "end PAT"},
                 {});
    log.set_level(INFO_level);
    give({100}, {.version = 3});
    EXPECT_EQ(log.human_lines(" PAT:"), (lines{inf("[src] Older PAT:"), inf("[src] New PAT:")}));
}

TEST_F(pat_test, more_than_32_programs) {
    restart();
    for (int repetition = 0; repetition < 2; repetition++) {
        give(range(100, 20), {.section = 0, .last = 1});
        give(range(120, 20), {.section = 1, .last = 1});
    }
    expect_lines({err("process_PAT: [src] too many programs: 8 dropped, 32 kept at PAT[2]")}, {});
    EXPECT_EQ(programs(), range(100, 32));
    feed_new(s.section(131, ts::pmt_section(1, V, VAS)));
    EXPECT_EQ(pg(31).nstreams, 3U);
    restart();
    give(range(100, 40)); // from one section no more are read, which is told
    expect_lines({err("process_PAT: [src] too many programs: 8 dropped, 32 kept at PAT[1]")}, {});
    EXPECT_EQ(programs(), range(100, 32));
}

// A repetition that needs no work leaves the same lines as one that is compiled.
TEST_F(pat_test, repetitions) {
    cfg.trk.pat_pmt_pkt = true;
    restart();
    log.set_level(DEBUG_level);
    for (const unsigned change : {0U, 1U, 2U, 1U}) { // the first PAT, then merged ones
        for (int i = 0; i < 3; i++)
            give({100, 200 + change}, {.version = change});
        EXPECT_NE(t->seen_pat.len, 0U);
        std::string texts[2];
        for (std::string& text : texts) {
            tsan_set_pidx(t, 50);
            log.clear();
            give({100, 200 + change}, {.version = change});
            text = log.human();
            t->seen_pat.len = 0;
        }
        EXPECT_EQ(texts[0], texts[1]);
        EXPECT_EQ(split_lines(texts[0]).size(), 3U);
    }
    for (const unsigned change : {1U, 2U, 1U}) // what was noted does not hide a change
        give({100, 200 + change}, {.version = change});
    EXPECT_EQ(t->gac.pat_diff, 5U);
    give({100, 200}); // the first PAT is what others are compared with, so it never differs
    EXPECT_EQ(programs(), (pids{100, 201}));
}

TEST_F(pat_test, invariants) {
    restart();
    EXPECT_ASSERT(give({}), "tc->nprogs");
    EXPECT_ASSERT(give({100, 0}), "tc->pmt_pid[tc->nprogs]");
    give(range(100, 31));
    EXPECT_ASSERT(give(range(100, 32), {.version = 1}), "tc->nprogs < MAX_PMTS");
}

} // namespace
