// pts.cpp - presentation and decoding time stamps: keeps the newest of each stream, compares audio
// with the program's video. Called by classify for PES starts and by intake; owns nothing.
#include "internal.h"

LOG_MODULE(0);

static void trace_stamp(tsan_ctx* tc, const char* name, u64 value, unsigned pid) {
    if (!tc->cfg.trk.pdts_update)
        return;
    LOG(&g_log, INFO_level, "%s: [%s] %s=%llu [%s] pid=%u at %s\n", "update_pts_dts", source(tc),
        name, value, time_text(value / 90).text, pid, ptag(tc));
}

// A stamp that repeats clears the flag: what an earlier header left unchecked is out of date.
void update_pts_dts(tsan_ctx* tc, ts_bytes pes, stream_info* si) {
    if (pes_has_PTS(pes)) {
        const u64 pts = pes_get_PTS(pes);
        si->pts_updated = pts != si->last_pts;
        si->last_pts = pts;
        si->pts_pktnum = tc->last_pkt_idx;
        if (si->pts_updated)
            trace_stamp(tc, "PTS", pts, si->pid);
    }
    if (pes_has_DTS(pes)) {
        const u64 dts = pes_get_DTS(pes);
        si->dts_updated = dts != si->last_dts;
        si->last_dts = dts;
        si->dts_pktnum = tc->last_pkt_idx;
        if (si->dts_updated)
            trace_stamp(tc, "DTS", dts, si->pid);
    }
}

void ck_tstamp(tsan_ctx* tc, stamp which, const stream_info* ref, const stream_info* si) {
    program_info* pg = prog(tc);
    const u64 a = last_stamp(ref, which);
    const u64 b = last_stamp(si, which);
    const u64 delta = a <= b ? pcr_delta_ms(a, b) : pcr_delta_ms(b, a);
    inc_aval(&pg->av_pdts_delta, delta);
    if (delta == 0 && a != b) {
        dump_time_info(tc, "AV-DELTA0", which, delta, ref, si);
        pg->alert.av_delta0++;
    } else if (delta > tc->cfg.max_pdts_delta) {
        dump_time_info(tc, "AV-DELTA+", which, delta, ref, si);
        pg->alert.av_deltaplus++;
    }
}
