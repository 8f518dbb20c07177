// cc.cpp - continuity counters out of order (ISO/IEC 13818-1, 2.4.3.3): breaks, resets, and losses
// that hit several pids alike within a segment of the input. Called by intake for a counter out of
// order and by hosts that have segments; reads the clock only on an unexpected 0. Owns nothing.
//
// In quotes the transcript that shows it.
//  1. A packet without payload is not looked at, and the first counter of a stream cannot be wrong.
//     "counters out of order"
//  2. A counter that does not follow is a CC-BRK; so is one that repeats, although the standard
//     allows a packet to be sent twice.  "counters out of order"
//  3. A jump to 0 is a CC-RST, a restarted encoder, when the stream's last jump to 0 lies
//     cc_max_ms0_ms or more back; the first one is not.  "a reset needs an earlier jump to zero"
//  4. Every jump to 0 restarts that time; with cc_max_ms0_ms 0 there are no resets.  "a reset needs
//     an earlier jump to zero"
//  5. A loss is grouped with the one before it if that was in the same segment, on another pid and
//     of the same forward distance; never in segment 0.  "losses are grouped within a segment",
//     "losses are grouped within a segment of their program"
//  6. A packet in order, of any pid, ends the group until the next segment.  "losses are grouped
//     within a segment", "a plain packet ends a group, too"
//  7. The end of a segment reports the group as CC-MLR; without a current program it does nothing.
//     "losses are grouped within a segment"
#include "alert.h"
#include "checks.h"
#include "timeop.h"

LOG_MODULE(0);

// ---- groups of losses --------------------------------------------------------------------------

// Packets from `last` to `current`, 0 to 15, on a counter of 16 values.
static int forward_distance(int last, int current) {
    return (last > current ? current + MAX_CC + 1 : current) - last;
}

static bool is_cc_mlr(const tsan_ctx* tc, unsigned pid, int last, int current) {
    const cc_alert_ctx& cca = tc->last_cca;
    if (cca.seg_idx == 0 || cca.nmlr == -1)
        return false;
    if (prog(tc)->last_seg_idx != cca.seg_idx || pid == cca.pid)
        return false;
    return forward_distance(last, current) == cca.delta;
}

// Notes an alert, and counts it if it belongs to the group.
static void save_cca(tsan_ctx* tc, unsigned pid, int last, int current) {
    cc_alert_ctx& cca = tc->last_cca;
    if (is_cc_mlr(tc, pid, last, current))
        cca.nmlr++;
    cca.pid = pid;
    cca.delta = forward_distance(last, current);
    cca.seg_idx = prog(tc)->last_seg_idx;
}

void tsan_next_seg(tsan_t tc) {
    if (!prog(tc))
        return;
    if (tc->last_cca.nmlr > 0)
        alert_cc_mlr(tc);
    tc->last_cca.nmlr = 0;
    prog(tc)->last_seg_idx++;
}

// ---- counters ----------------------------------------------------------------------------------

static bool is_zero(const timespec& tm) {
    return tm.tv_sec == 0 && tm.tv_nsec == 0;
}

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
    save_cca(tc, si->pid, last, cc);
}

void trace_cc(tsan_ctx* tc, unsigned pid, int cc) {
    LOG(&g_log, INFO_level, "%s: [%s] CC=%d pid=%u at %s\n", "cc_track", source(tc), cc, pid,
        ptag(tc));
}
