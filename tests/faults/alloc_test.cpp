// alloc_test.cpp - memory that runs out. The linker sends every allocation of the analyzer through
// here; the tests let one of them fail, each in turn, or all from one on.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "fixture.h"
#include "internal.h"

namespace {

struct {
    bool armed;          // allocations are counted and may fail
    bool for_ever;       // those after the failing one fail as well
    std::size_t calls;   // allocations since arming
    std::size_t fail_at; // the one that fails, 1-based; 0: none
    long held;           // blocks allocated and not released since arming
} g_memory;

bool runs_out() {
    if (!g_memory.armed)
        return false;
    const std::size_t call = ++g_memory.calls;
    const bool fails = g_memory.fail_at != 0 &&
                       (call == g_memory.fail_at || (g_memory.for_ever && call > g_memory.fail_at));
    if (fails)
        errno = ENOMEM;
    else
        g_memory.held++;
    return fails;
}

// Lets allocation `n` fail while it lives.
struct shortage {
    shortage(std::size_t n, bool for_ever) { g_memory = {true, for_ever, 0, n, 0}; }
    ~shortage() { g_memory.armed = false; }
};

} // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t n, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
    return runs_out() ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return runs_out() ? nullptr : __real_calloc(n, size);
}
void* __wrap_realloc(void* block, std::size_t size) {
    return runs_out() ? nullptr : __real_realloc(block, size);
}
char* __wrap_strdup(const char* text) {
    return runs_out() ? nullptr : __real_strdup(text);
}
void __wrap_free(void* block) {
    if (g_memory.armed && block)
        g_memory.held--;
    __real_free(block);
}
}

namespace {

constexpr unsigned PMT_PID = 100; // of program 1
constexpr unsigned VIDEO = 101;
constexpr unsigned AUDIO = 102;
constexpr unsigned OTHER_PMT = 200; // of program 2

ts::bytes text_of(std::initializer_list<std::uint8_t> chars) {
    ts::bytes text(1 + chars.size(), static_cast<std::uint8_t>(chars.size()));
    std::copy(chars.begin(), chars.end(), text.begin() + 1);
    return text;
}

// A service descriptor: its provider's name goes through conversion, its own name does not.
ts::bytes service(std::uint8_t letter) {
    ts::bytes data{1};
    for (const ts::bytes& text : {text_of({letter, 'b'}), text_of({0x1f, 1, letter, 'd'})})
        data.insert(data.end(), text.begin(), text.end());
    ts::bytes all = ts::descriptor(0x48, data);
    const ts::bytes unnamed = ts::descriptor(0x40, {});
    all.insert(all.end(), unnamed.begin(), unnamed.end());
    return all;
}

ts::bytes pmt(unsigned version) {
    const auto letter = static_cast<std::uint8_t>('k' + version);
    return ts::pmt_section(1, VIDEO, {{0x1b, VIDEO, service(letter)}, {0x0f, AUDIO}}, {version});
}

// Tables that come, change, span sections, go and return, each of them twice, and media in between.
ts::stream troubled_stream() {
    ts::stream s;
    const auto pat = [&s](const std::vector<ts::program>& programs, const ts::table_head& head) {
        s.section(0, ts::pat_section(programs, head));
    };
    for (unsigned round = 0; round < 3; round++) {
        for (int twice = 0; twice < 2; twice++)
            pat({{1, PMT_PID}, {2, OTHER_PMT}}, {round});
        for (unsigned version = 0; version < 2; version++) {
            s.section(PMT_PID, pmt(version)).section(PMT_PID, pmt(version));
            s.pes(VIDEO, ts::VIDEO_ID, {}).data(AUDIO);
        }
        for (int twice = 0; twice < 2; twice++) {
            pat({{1, PMT_PID}}, {round, 0, 1});
            pat({{3, OTHER_PMT + round}}, {round, 1, 1});
        }
    }
    for (int twice = 0; twice < 2; twice++)
        pat({{1, PMT_PID}}, {9});
    s.section(PMT_PID, pmt(5)).section(PMT_PID, pmt(5));
    s.data(VIDEO).data(AUDIO, 20).lose(AUDIO).data(AUDIO, 3);
    return s;
}

// What a life has counted.
struct tally {
    u64 packets, video, audio, breaks, pat_changes, pmt_changes;
};

class alloc_test : public analyzer_test {
  protected:
    alloc_test() {
        cfg.max_ndat_pcount = 4;
        cfg.max_pdts_delta = 100;
        cfg.access_log_alerts = true;
        cfg.trk = {true, true, true, true, true, true, true, true};
    }

    // One life of a context, with the reports that a host asks for. `calls` gets the number of
    // allocations.
    tally live(std::size_t fail_at, bool for_ever, std::size_t* calls) {
        const ts::stream s = troubled_stream();
        int error = 0;
        const shortage memory(fail_at, for_ever);
        t = tsan_init(nullptr, &cfg, &error);
        EXPECT_EQ(t == nullptr, fail_at == 1);
        EXPECT_EQ(error, fail_at == 1 ? ENOMEM : 0);
        tally counted{};
        if (t != nullptr) {
            feed(s);
            const program_info& pg = t->pg[0];
            counted = {tsan_get_pidx(t),  pg.stat.v_pcount, pg.stat.a_pcount,
                       pg.alert.cc_break, t->gac.pat_diff,  pg.alert.pmt_diff};
            tsan_check_ndat(t);
            tsan_alog_stats(t);
            tsan_free(t);
            t = nullptr;
        }
        EXPECT_EQ(g_memory.held, 0);
        *calls = g_memory.calls;
        return counted;
    }
};

// One allocation fails, each in turn. What it cost is made good by the next repetition of the
// table, so that nothing is counted less often.
TEST_F(alloc_test, one_fails) {
    std::size_t calls = 0;
    const tally sound = live(0, false, &calls);
    EXPECT_EQ(sound.breaks, 1U);
    EXPECT_EQ(sound.pat_changes, 4U);
    EXPECT_EQ(sound.pmt_changes, 6U);
    const std::size_t all = calls;
    ASSERT_GT(all, 50U);
    RecordProperty("allocations", static_cast<int>(all));
    for (std::size_t n = 2; n <= all; n++) {
        SCOPED_TRACE(n);
        log.clear();
        const tally counted = live(n, false, &calls);
        EXPECT_EQ(log.human_lines("ERROR(12)").size(), 1U);
        EXPECT_EQ(counted.packets, sound.packets);
        EXPECT_EQ(counted.video, sound.video);
        EXPECT_EQ(counted.audio, sound.audio);
        EXPECT_EQ(counted.breaks, sound.breaks);
        EXPECT_EQ(counted.pat_changes, sound.pat_changes);
        EXPECT_GE(counted.pmt_changes, sound.pmt_changes); // a text that was never kept is new
    }
}

// Memory is gone from one allocation on: packets go on being counted.
TEST_F(alloc_test, all_fail) {
    std::size_t calls = 0;
    const tally sound = live(0, false, &calls);
    const std::size_t all = calls;
    for (std::size_t n = 1; n <= all; n++) {
        SCOPED_TRACE(n);
        const tally counted = live(n, true, &calls);
        EXPECT_EQ(counted.packets, n == 1 ? 0 : sound.packets);
        EXPECT_LE(counted.breaks, sound.breaks);
    }
}

TEST_F(alloc_test, setting) {
    tsan_config changed = cfg;
    const shortage memory(1, false);
    EXPECT_EQ(tsan_cli_opt("pcr_delta=77", &changed), ENOMEM);
    EXPECT_EQ(changed.max_pcr_delta, 0U);
    EXPECT_EQ(log.human_lines("tsan_cli_opt: strdup() ERROR(12): ").size(), 1U);
}

} // namespace
