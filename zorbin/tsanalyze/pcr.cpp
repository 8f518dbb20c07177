// pcr.cpp - the program clock: how far audio time stamps lie from it, how often it comes. Called by
// intake and classify; integer arithmetic only, owns nothing.
#include "internal.h"

void ck_pcr(tsan_ctx* tc, stamp which, const stream_info* si) {
    program_info* pg = prog(tc);
    const u64 value = last_stamp(si, which);
    const u64 delta = pg->last_pcr <= value ? pcr_delta_ms(pg->last_pcr, value)
                                            : pcr_delta_ms(value, pg->last_pcr);
    inc_aval(&pg->av_pcr_delta, delta);
    if (delta > tc->cfg.max_pcr_delta)
        dump_pcr_diff(tc, which, delta, si);
}

// A PCR that goes backwards measures 0 and so never alerts.
void pcr_freq_check(tsan_ctx* tc, u64 pcr) {
    program_info* pg = prog(tc);
    const u64 gap = pcr_delta_ms(pg->last_pcr, pcr);
    inc_aval(&pg->av_pcr_freq, gap);
    if (gap > tc->cfg.pcr_freq_ms)
        alert_pcr_freq(tc, pcr, gap);
}
