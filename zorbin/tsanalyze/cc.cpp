// cc.cpp - continuity counters out of order: breaks, resets, and losses that hit several pids
// alike. Called by the per-packet path; reads the clock only on an unexpected 0. Owns nothing.
#include "internal.h"
#include "timeop.h"

LOG_MODULE(0);

// Packets from `last` to `current`, 0 to 15, on a counter of 16 values.
static int forward_distance(int last, int current) {
    return (last > current ? current + MAX_CC + 1 : current) - last;
}

bool is_cc_mlr(const tsan_ctx* tc, unsigned pid, int last, int current) {
    const cc_alert_ctx& cca = tc->last_cca;
    if (cca.seg_idx == 0 || cca.nmlr == -1)
        return false;
    if (tc->dat.program->last_seg_idx != cca.seg_idx || pid == cca.pid)
        return false;
    return forward_distance(last, current) == cca.delta;
}

void save_cca(tsan_ctx* tc, unsigned pid, int last, int current) {
    cc_alert_ctx& cca = tc->last_cca;
    if (is_cc_mlr(tc, pid, last, current))
        cca.nmlr++;
    cca.pid = pid;
    cca.delta = forward_distance(last, current);
    cca.seg_idx = prog(tc)->last_seg_idx;
}

static bool is_zero(const timespec& tm) {
    return tm.tv_sec == 0 && tm.tv_nsec == 0;
}

// A counter out of order. A jump to 0 long enough after the stream's last one is a restarted
// encoder, anything else is loss.
void cc_jump(tsan_ctx* tc, stream_info* si, int cc) {
    const long limit = tc->cfg.cc_max_ms0_ms;
    const int last = si->cc.value;
    long elapsed = 0;
    bool reset = false;
    if (cc == MIN_CC && limit != 0) {
        timespec now;
        set_now(&now);
        if (!is_zero(si->cc.ms0_tm)) {
            elapsed = diff_ms(&now, &si->cc.ms0_tm);
            reset = elapsed >= limit;
        }
        cpy_timespec(&now, &si->cc.ms0_tm);
    }
    if (reset)
        alert_cc_rst(tc, si->pid, last, cc, elapsed);
    else
        alert_cc_break(tc, si->pid, last, cc);
}

void trace_cc(tsan_ctx* tc, unsigned pid, int cc) {
    LOG(&g_log, INFO_level, "%s: [%s] CC=%d pid=%u at %s\n", "cc_track", source(tc), cc, pid,
        ptag(tc));
}
