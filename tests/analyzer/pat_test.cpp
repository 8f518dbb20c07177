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
    give(range(200, 31), {.version = 1}); // more than the lists hold, for a moment
    EXPECT_EQ(programs(), range(200, 31));
    EXPECT_ASSERT(give(range(200, 32), {.version = 2}), "tc->nprogs < MAX_PMTS");
}

} // namespace
