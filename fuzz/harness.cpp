// harness.cpp - see harness.h. Owns the ledger of what an input has allocated; the linker sends the
// product's allocations and failed assertions here.
#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "internal.h"
#include "log.h"

// ---- named invariants --------------------------------------------------------------------------

namespace {

// A capture may break these; the process then ends with the expression. No others.
constexpr const char* INVARIANTS[] = {
    "tc->nprogs",
    "tc->pmt_pid[tc->nprogs]",
    "tc->nprogs < MAX_PMTS",
    "0 == tc->nprogs",
    "prog(tc)->pcr_pid",
    "i >= 0 && i < (ssize_t)prog(tc)->nstreams",
    "s->textlen < s->buflen",
    "n < (ssize_t)slen",
};

// The input that is running.
struct guard {
    bool active;
    std::jmp_buf out;
    std::size_t ended; // inputs that an invariant has ended
    void* held[4096];  // blocks allocated and not freed, the latest last
    std::size_t count;
};
guard g_guard;

[[noreturn]] void finding(const char* what, const char* detail) {
    g_guard.active = false;
    std::fprintf(stderr, "FINDING: %s: %s\n", what, detail);
    std::abort();
}

void* hold(void* block) {
    if (!g_guard.active || !block)
        return block;
    if (g_guard.count == std::size(g_guard.held))
        finding("blocks", "more than the ledger holds");
    g_guard.held[g_guard.count++] = block;
    return block;
}

void let_go(const void* block) {
    void** const begin = g_guard.held;
    for (std::size_t i = g_guard.count; i > 0; i--) {
        if (begin[i - 1] != block)
            continue;
        std::move(begin + i, begin + g_guard.count, begin + i - 1);
        g_guard.count--;
        return;
    }
}

} // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t n, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
    return hold(__real_malloc(size));
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return hold(__real_calloc(n, size));
}
void* __wrap_realloc(void* block, std::size_t size) {
    let_go(block);
    return hold(__real_realloc(block, size));
}
char* __wrap_strdup(const char* text) {
    return static_cast<char*>(hold(__real_strdup(text)));
}
void __wrap_free(void* block) {
    let_go(block);
    __real_free(block);
}

[[noreturn]] void __wrap___assert_fail(const char* expression, const char* file, unsigned line,
                                       const char*) {
    const bool named = std::any_of(
        std::begin(INVARIANTS), std::end(INVARIANTS),
        [expression](const char* invariant) { return std::strcmp(expression, invariant) == 0; });
    if (!named || !g_guard.active) {
        std::fprintf(stderr, "%s:%u\n", file, line);
        finding("assertion", expression);
    }
    std::longjmp(g_guard.out, 1);
}
}

std::size_t inputs_ended_by_invariant() {
    return g_guard.ended;
}

int run_input(void (*body)(input_reader* in), const std::uint8_t* data, std::size_t size) {
    input_reader in(data, size);
    g_guard.active = true;
    if (setjmp(g_guard.out) == 0) {
        body(&in);
        if (g_guard.count != 0)
            finding("memory", "still held when the input was done");
    } else {
        // The process would be gone here and its memory with it.
        while (g_guard.count != 0)
            __wrap_free(g_guard.held[g_guard.count - 1]);
        g_guard.ended++;
    }
    g_guard.active = false;
    return 0;
}

// ---- input -------------------------------------------------------------------------------------

std::uint8_t input_reader::byte() {
    if (left_ == 0)
        return 0;
    left_--;
    return *next_++;
}

unsigned input_reader::word() {
    const unsigned low = byte();
    return low | unsigned{byte()} << 8;
}

const std::uint8_t* input_reader::take(std::size_t* count) {
    *count = std::min(*count, left_);
    const std::uint8_t* const taken = next_;
    next_ += *count;
    left_ -= *count;
    return taken;
}

// ---- the analyzer ------------------------------------------------------------------------------

static ssize_t swallow(void*, const char*, std::size_t size) {
    return static_cast<ssize_t>(size);
}

FILE* nowhere() {
    static FILE* const stream = fopencookie(nullptr, "w", {nullptr, swallow, nullptr, nullptr});
    return stream;
}

static tsan_config noisy_settings(std::uint8_t less) {
    tsan_config cfg = {};
    cfg.is_enabled = (less & 0x01) == 0;
    cfg.no_rlog = (less & 0x02) != 0;
    cfg.access_log_alerts = (less & 0x04) == 0;
    cfg.cc_track = (less & 0x08) == 0;
    cfg.max_ndat_pcount = (less & 0x10) == 0 ? 5 : 0;
    if ((less & 0x20) == 0)
        cfg.max_pdts_delta = cfg.max_pcr_delta = cfg.pcr_freq_ms = 1;
    if ((less & 0x40) == 0)
        cfg.trk = {true, true, true, true, true, true, true, true};
    cfg.cc_max_ms0_ms = (less & 0x80) == 0 ? 1 : 0;
    cfg.max_skip_pkts = 20;
    cfg.dump_stats_period = 1;
    return cfg;
}

void log_nowhere() {
    log_default(&g_log, nowhere());
    log_default(&g_access_log, nowhere());
    log_timefmt(&g_log, TMF_NONE);
    log_timefmt(&g_access_log, TMF_NONE);
    log_set_modules(&g_log, DEBUG_level);
}

twins noisy_analyzers(std::uint8_t less) {
    log_nowhere();
    const tsan_config cfg = noisy_settings(less);
    const twins t = {tsan_init("fuzz", &cfg, nullptr), tsan_init("fuzz", &cfg, nullptr)};
    t.careful->counts_only = false;
    return t;
}

static void forget_tables(tsan_t t) {
    t->seen_pat.len = 0;
    for (program_info& pg : t->pg)
        pg.seen_pmt.len = 0;
}

// Where a pid belongs by the tables alone, without the analyzer's look-up table.
static dgram_info look_up(tsan_t t, unsigned pid) {
    if (pid == PAT_PID_NUM)
        return {-1, -1, true, false, nullptr, nullptr};
    for (std::size_t i = 0; i < MAX_PMTS && t->pmt_pid[i] != 0; i++)
        if (t->pmt_pid[i] == pid)
            return {static_cast<ssize_t>(i), -1, false, true, &t->pg[i], nullptr};
    for (std::size_t i = 0; i < t->nprogs; i++)
        for (std::size_t j = 0; j < t->pg[i].nstreams; j++)
            if (t->pg[i].stm[j].pid == pid)
                return {static_cast<ssize_t>(i), static_cast<ssize_t>(j), false, false, &t->pg[i],
                        &t->pg[i].stm[j]};
    return {-1, -1, false, false, nullptr, nullptr};
}

static bool is_same(const dgram_info& a, const dgram_info& b) {
    return a.ipg == b.ipg && a.istm == b.istm && a.is_pat == b.is_pat && a.is_pmt == b.is_pmt &&
           a.program == b.program && a.stream == b.stream;
}

void feed_packet(const twins& t, const std::uint8_t* packet) {
    auto* block = static_cast<std::uint8_t*>(std::malloc(TS_PACKET_LEN));
    std::memcpy(block, packet, TS_PACKET_LEN);
    forget_tables(t.careful);
    const dgram_info belongs = look_up(t.quick, (packet[1] & 0x1fU) << 8 | packet[2]);
    const int rc = tsan_process(t.quick, block);
    if (!is_same(t.quick->dat, belongs))
        finding("shortcut", "where a packet belongs");
    if (tsan_process(t.careful, block) != rc)
        finding("shortcut", "result");
    if (rc == -1) {
        static_cast<void>(tsan_alert_lostsync(t.quick));
        static_cast<void>(tsan_alert_lostsync(t.careful));
    }
    std::free(block);
}

void end_segment(const twins& t) {
    tsan_next_seg(t.quick);
    tsan_next_seg(t.careful);
}

// ---- comparison --------------------------------------------------------------------------------

template <class T>
static void compare(const char* what, const T& a, const T& b) {
    if (std::memcmp(&a, &b, sizeof(T)) != 0)
        finding("shortcut", what);
}

static void compare_streams(const stream_info& a, const stream_info& b) {
    compare("pid", a.pid, b.pid);
    compare("stream type", a.scode, b.scode);
    compare("PTS", a.last_pts, b.last_pts);
    compare("DTS", a.last_dts, b.last_dts);
    compare("unchecked PTS", a.pts_updated, b.pts_updated);
    compare("unchecked DTS", a.dts_updated, b.dts_updated);
    compare("continuity counter", a.cc.value, b.cc.value);
    compare("packets", a.pcount, b.pcount);
    compare("packets analysed", a.acount, b.acount);
}

static void compare_programs(const program_info& a, const program_info& b) {
    compare("streams", a.nstreams, b.nstreams);
    for (std::size_t i = 0; i < a.nstreams; i++)
        compare_streams(a.stm[i], b.stm[i]);
    compare("program's packets", a.stat, b.stat);
    // Whether a jump of the counter is a reset depends on the time.
    pg_alert_count alerts[] = {a.alert, b.alert};
    for (pg_alert_count& alert : alerts) {
        alert.cc_break += alert.cc_reset;
        alert.cc_reset = 0;
    }
    compare("program's alerts", alerts[0], alerts[1]);
    compare("PTS/DTS delta", a.av_pdts_delta, b.av_pdts_delta);
    compare("PCR delta", a.av_pcr_delta, b.av_pcr_delta);
    compare("PCR interval", a.av_pcr_freq, b.av_pcr_freq);
    compare("PCR", a.last_pcr, b.last_pcr);
}

static void compare_contexts(const tsan_ctx& a, const tsan_ctx& b) {
    compare("programs", a.nprogs, b.nprogs);
    compare("PMT pids", a.pmt_pid, b.pmt_pid);
    for (std::size_t i = 0; i < MAX_PMTS; i++)
        compare_programs(a.pg[i], b.pg[i]);
    compare("all packets", a.ptotal, b.ptotal);
    compare("all packets analysed", a.atotal, b.atotal);
    compare("packets skipped", a.pre_skipped, b.pre_skipped);
    compare("packet index", a.last_pkt_idx, b.last_pkt_idx);
    compare("alerts", a.gac, b.gac);
    compare("deadline", a.ndat_pcount, b.ndat_pcount);
    compare("grouping", a.last_cca.nmlr, b.last_cca.nmlr);
}

static void close_analyzer(tsan_t t) {
    tsan_check_ndat(t);
    tsan_alog_stats(t);
    tsan_check_dump_stats(nowhere(), t);
    tsan_dump_stats(nowhere(), t);
    tsan_reset_local_stats(t);
    tsan_free(t);
}

void close_analyzers(const twins& t) {
    compare_contexts(*t.quick, *t.careful);
    end_segment(t);
    compare_contexts(*t.quick, *t.careful);
    close_analyzer(t.quick);
    close_analyzer(t.careful);
}
