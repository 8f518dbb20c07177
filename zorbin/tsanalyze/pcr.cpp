// pcr.cpp - the clock of a program (ISO/IEC 13818-1, 2.4.3.5): takes it from its packets, measures
// how often it comes and how far audio time stamps lie from it. Called by intake for packets that
// carry a PCR, by pts for the stamps. Integer arithmetic only; owns nothing.
//
// In quotes the transcript that shows it.
//  1. The first PCR is not measured, and neither is one that follows a PCR of 0: 0 stands for
//     "none yet".  "gaps between PCRs"
//  2. A gap of more than pcr_freq_ms is a PCR-FREQ; one of just that is not.  "gaps between PCRs"
//  3. A PCR that goes backwards measures 0, so it never is one.  "gaps between PCRs"
//  4. The distance of an audio stamp has no sign. More than max_pcr_delta is a PCR-DELTA, just that
//     is not.  "the PCR's distance from audio"
//  5. The smaller value goes first, so that a wrap of the clock between the two is a distance of
//     about 95,443,000 ms.  "the PCR's distance from audio"
//  6. Every distance counts in the aggregates, reported or not.  "gaps between PCRs"
//  7. Lines about the packet that brings a PCR still quote the one before.  "time stamps and tags"
#include <cstring>

#include "alert.h"
#include "checks.h"

LOG_MODULE(0);

static void pcr_freq_check(tsan_ctx* tc, u64 pcr) {
    program_info* pg = prog(tc);
    const u64 gap = pcr_delta_ms(pg->last_pcr, pcr);
    inc_aval(&pg->av_pcr_freq, gap);
    if (gap > tc->cfg.pcr_freq_ms)
        alert_pcr_freq(tc, pcr, gap);
}

void new_pcr(tsan_ctx* tc, ts_packet pkt) {
    program_info* pg = prog(tc);
    const u64 pcr = ts_pcr_base(pkt);
    const char* const tag = ptag(tc); // made here, as long as it says the PCR before this one
    std::memcpy(pg->pcr_ptag, tag, sizeof pg->pcr_ptag);
    if (tc->cfg.pcr_freq_ms != 0 && pg->last_pcr != 0)
        pcr_freq_check(tc, pcr);
    pg->last_pcr = pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update)
        LOG(&g_log, INFO_level, "[%s] new PCR=%llu [%s] at %s\n", source(tc), pcr,
            time_text(pcr / 90).text, ptag(tc));
}

void ck_pcr(tsan_ctx* tc, stamp which, const stream_info* si) {
    program_info* pg = prog(tc);
    const u64 value = last_stamp(si, which);
    const u64 delta = pg->last_pcr <= value ? pcr_delta_ms(pg->last_pcr, value)
                                            : pcr_delta_ms(value, pg->last_pcr);
    inc_aval(&pg->av_pcr_delta, delta);
    if (delta > tc->cfg.max_pcr_delta)
        dump_pcr_diff(tc, which, delta, si);
}
