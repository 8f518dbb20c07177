// pts.cpp - presentation and decoding time stamps (ISO/IEC 13818-1, 2.4.3.7): keeps the newest of
// each stream, holds those of audio against the PCR and against the program's video. Called by
// intake for packets in which a PES packet may start and for audio that is due; owns nothing.
//
// In quotes the transcript that shows it.
//  1. Only a payload unit start that begins a PES packet brings stamps.  "only a unit start can
//     bring stamps", "time stamps and tags"
//  2. A stamp that repeats is not new, and what an earlier header left unchecked is out of date.
//     "time stamps and tags"
//  3. Only audio is checked, and not where its pid carries the PCR.  "audio against video", "the
//     PCR's distance from audio"
//  4. A stamp goes on waiting until the video has one of its kind.  "audio against video"
//  5. A distance has no sign. More than max_pdts_delta is an AV-DELTA+; 0 ms between stamps that
//     differ is an AV-DELTA0, equal stamps are none.  "audio against video"
//  6. The PCR is looked at before the video, and a PTS before a DTS.  "order of the checks"
//  7. Without a check against video a stamp stays new: the next packet measures its distance from
//     the PCR again.  "the PCR's distance from audio"
#include "alert.h"
#include "checks.h"

LOG_MODULE(0);

// ---- the newest stamps -------------------------------------------------------------------------

static void trace_stamp(tsan_ctx* tc, const char* name, u64 value, unsigned pid) {
    if (!tc->cfg.trk.pdts_update)
        return;
    LOG(&g_log, INFO_level, "%s: [%s] %s=%llu [%s] pid=%u at %s\n", "update_pts_dts", source(tc),
        name, value, time_text(value / 90).text, pid, ptag(tc));
}

static void update_pts_dts(tsan_ctx* tc, ts_bytes pes, stream_info* si) {
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

void new_pes(tsan_ctx* tc, ts_packet pkt) {
    const ts_bytes payload = ts_get_payload(pkt);
    if (is_pes_pkt(payload))
        update_pts_dts(tc, payload, tc->dat.stream);
}

// ---- their distances ---------------------------------------------------------------------------

static void ck_tstamp(tsan_ctx* tc, stamp which, const stream_info* ref, const stream_info* si) {
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

void check_audio(tsan_ctx* tc, stream_info* si) {
    const program_info* pg = prog(tc);
    if (si->pid == pg->pcr_pid)
        return;
    if (tc->cfg.max_pcr_delta != 0 && pg->got_pcr) {
        if (si->pts_updated)
            ck_pcr(tc, stamp::pts, si);
        if (si->dts_updated)
            ck_pcr(tc, stamp::dts, si);
    }
    if (tc->cfg.max_pdts_delta == 0 || pg->ref_idx < 0)
        return;
    const stream_info* ref = &pg->stm[pg->ref_idx];
    if (si->pts_updated && ref->last_pts != 0) {
        ck_tstamp(tc, stamp::pts, ref, si);
        si->pts_updated = false;
    }
    if (si->dts_updated && ref->last_dts != 0) {
        ck_tstamp(tc, stamp::dts, ref, si);
        si->dts_updated = false;
    }
}
