// alloc_test.cpp - memory that runs out. The linker sends every allocation of the analyzer through
// here; the tests let one of them fail, each in turn, or all from one on.
#include <cerrno>
#include <fstream>

#include "analyzer_test.h"

namespace {

struct {
    bool armed;          // allocations are counted and may fail
    bool for_ever;       // those after the failing one fail as well
    std::size_t calls;   // allocations since arming
    std::size_t fail_at; // the one that fails, 1-based; 0: none
    long held;           // blocks allocated and not released since arming
    tsan_ctx* leaving;   // the context that is being released
} g_memory;

// Makes an allocation or lets it fail.
template <class Make>
auto allocate(Make make) -> decltype(make()) {
    if (!g_memory.armed)
        return make();
    const std::size_t call = ++g_memory.calls, at = g_memory.fail_at;
    if (at != 0 && (call == at || (g_memory.for_ever && call > at)))
        return errno = ENOMEM, nullptr;
    g_memory.held++;
    return make();
}

} // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t n, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
    return allocate([=] { return __real_malloc(size); });
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return allocate([=] { return __real_calloc(n, size); });
}
char* __wrap_strdup(const char* text) {
    return allocate([=] { return __real_strdup(text); });
}
void __wrap_free(void* block) {
    g_memory.held -= g_memory.armed && block;
    if (block && block == g_memory.leaving) {
        EXPECT_STREQ(g_memory.leaving->cfg.source, "") << "without the mark of a released context";
    }
    __real_free(block);
}
}

namespace {

class alloc_test : public analyzer_test {
  protected:
    alloc_test() {
        cfg.max_ndat_pcount = 4;
        cfg.max_pdts_delta = 100;
        cfg.access_log_alerts = true;
        cfg.trk = {true, true, true, true, true, true, true, true};
        std::ifstream in(TROUBLED_STREAM);
        for (std::string line; std::getline(in, line);)
            EXPECT_TRUE(ts::add_step(troubled, ts::split_words(line))) << line;
    }

    // One life of a context, with the reports that a host asks for. Returns what it has counted:
    // packets, those of video and of audio, breaks, changes of the PAT and of the PMT.
    std::vector<u64> live(std::size_t fail_at, bool for_ever) {
        int error = 0;
        std::vector<u64> counted(6);
        log.clear();
        g_memory = {true, for_ever, 0, fail_at, 0, nullptr};
        t = tsan_init(nullptr, &cfg, &error);
        EXPECT_EQ(error, fail_at == 1 ? ENOMEM : 0);
        if (t != nullptr) {
            for (const ts::packet& p : troubled.packets())
                EXPECT_EQ(tsan_process(t, p.data()), 0);
            const program_info& pg = t->pg[0];
            tsan_check_ndat(t);
            tsan_alog_stats(t);
            const u64 values[] = {tsan_get_pidx(t),  pg.stat.v_pcount, pg.stat.a_pcount,
                                  pg.alert.cc_break, t->gac.pat_diff,  pg.alert.pmt_diff};
            std::copy(std::begin(values), std::end(values), counted.begin());
            g_memory.leaving = t;
            release();
        }
        g_memory.armed = false;
        EXPECT_EQ(g_memory.held, 0);
        return counted;
    }

    ts::stream troubled; // tables that come, change, span sections, go and return
};

// What one failure costs is made good by the next repetition of the table, so that nothing is
// counted less often; where memory is gone for good, packets go on being counted.
TEST_F(alloc_test, each_allocation_fails) {
    const std::vector<u64> sound = live(0, false);
    const std::size_t all = g_memory.calls;
    EXPECT_GT(all, 50U);
    EXPECT_EQ(std::vector<u64>(sound.begin() + 3, sound.end()), (std::vector<u64>{1, 4, 6}));
    for (std::size_t n = 2; n <= all; n++) {
        SCOPED_TRACE(n);
        std::vector<u64> counted = live(n, false);
        EXPECT_EQ(log.human_lines("ERROR(12)").size(), 1U);
        EXPECT_GE(counted[5], sound[5]); // a text that was never kept is new
        counted[5] = sound[5];
        EXPECT_EQ(counted, sound);
        EXPECT_EQ(live(n, true)[0], sound[0]);
    }
    EXPECT_EQ(live(1, false)[0], 0U);
}

TEST_F(alloc_test, setting) {
    tsan_config changed = cfg;
    g_memory = {true, false, 0, 1, 0, nullptr};
    EXPECT_EQ(tsan_cli_opt("pcr_delta=77", &changed), ENOMEM);
    g_memory.armed = false;
    EXPECT_EQ(changed.max_pcr_delta, 0U);
    EXPECT_EQ(log.human_lines("tsan_cli_opt: strdup() ERROR(12): ").size(), 1U);
}

} // namespace
