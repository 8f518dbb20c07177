// harness.cpp - see harness.h. The linker sends the product's allocations and failed assertions
// here.
#include "harness.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

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
struct broken_invariant {};

bool g_running;         // an input is
std::set<void*> g_held; // blocks that it has allocated and not freed
tsan_t g_quick;         // as users get it
tsan_t g_careful;       // takes no shortcut: not for packets in order, not for tables that repeat

[[noreturn]] void finding(const char* what) {
    std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
}

void* hold(void* block) {
    if (g_running && block)
        g_held.insert(block);
    return block;
}

} // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t n, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
    return hold(__real_malloc(size));
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return hold(__real_calloc(n, size));
}
char* __wrap_strdup(const char* text) {
    return static_cast<char*>(hold(__real_strdup(text)));
}
void __wrap_free(void* block) {
    if (g_running)
        g_held.erase(block);
    __real_free(block);
}

// The product has no destructors on the way, so an exception leaves it as a jump would.
[[noreturn]] void __wrap___assert_fail(const char* expression, const char*, unsigned, const char*) {
    for (const char* invariant : INVARIANTS)
        if (g_running && std::strcmp(expression, invariant) == 0)
            throw broken_invariant();
    finding(expression);
}
}

// ---- input -------------------------------------------------------------------------------------

ts_bytes input_reader::take(std::size_t most) {
    const ts_bytes taken(next_, std::min(most, left_));
    next_ += taken.size();
    left_ -= taken.size();
    return taken;
}

static void log_to(FILE* fp) {
    for (log_ctx* log : {&g_log, &g_access_log}) {
        log_default(log, fp);
        log_timefmt(log, TMF_NONE);
    }
    log_set_modules(&g_log, DEBUG_level);
}

// Everything that a context has to say at its end, but for how long it lived.
static std::string report(tsan_t t) {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* const fp = open_memstream(&text, &length);
    g_access_log.fp = fp;
    tsan_check_ndat(t);
    tsan_next_seg(t);
    tsan_dump_stats(fp, t);
    tsan_alog_stats(t);
    std::fclose(fp);
    std::string all(text, length);
    std::free(text);
    const std::size_t global = all.find("STAT GLOBAL");
    return all.erase(global, all.find('\n', global) - global);
}

static void release(tsan_t* t) {
    if (*t)
        tsan_free(*t);
    *t = nullptr;
}

int run_input(void (*body)(input_reader& in), const std::uint8_t* data, std::size_t size) {
    static FILE* const nowhere = std::fopen("/dev/null", "w");
    bool finished = true;
    log_to(nowhere);
    g_running = true;
    try {
        input_reader in(data, size);
        body(in);
        if (g_quick && report(g_quick) != report(g_careful))
            finding("a shortcut changes what is reported");
    } catch (const broken_invariant&) {
        finished = false;
    }
    log_to(nowhere);
    release(&g_quick);
    release(&g_careful);
    g_running = false;
    if (finished && !g_held.empty())
        finding("memory still held when the input was done");
    for (void* block : g_held) // the process would be gone, and its memory with it
        __real_free(block);
    g_held.clear();
    return 0;
}

// ---- the analyzer ------------------------------------------------------------------------------

void begin(std::uint8_t less) {
    const auto on = [less](unsigned bit) { return (less >> bit & 1) == 0; };
    tsan_config cfg = TSAN_DEFAULTS;
    cfg.is_enabled = on(0);
    cfg.no_rlog = !on(1);
    cfg.access_log_alerts = on(2);
    cfg.cc_track = on(3);
    cfg.max_ndat_pcount = on(4) ? 5 : 0;
    cfg.max_pdts_delta = cfg.max_pcr_delta = cfg.pcr_freq_ms = on(5) ? 1 : 0;
    if (on(6))
        cfg.trk = {true, true, true, true, true, true, true, true};
    cfg.max_skip_pkts = 20;
    cfg.cc_max_ms0_ms = 0; // what is a reset depends on when the packets come
    g_quick = tsan_init("fuzz", &cfg, nullptr);
    g_careful = tsan_init("fuzz", &cfg, nullptr);
    g_careful->counts_only = false;
}

const tsan_ctx& context() {
    return *g_quick;
}

void feed_packet(const std::uint8_t* packet) {
    const std::vector<std::uint8_t> block(packet, packet + TS_PACKET_LEN);
    g_careful->seen_pat.len = 0;
    for (program_info& pg : g_careful->pg)
        pg.seen_pmt.len = 0;
    for (tsan_t t : {g_quick, g_careful})
        if (tsan_process(t, block.data()) == -1)
            static_cast<void>(tsan_alert_lostsync(t));
}

void end_segment() {
    tsan_next_seg(g_quick);
    tsan_next_seg(g_careful);
}
