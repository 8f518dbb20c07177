// intake.cpp - the road of one packet, in order, and what of it is rare; packet.h holds the steps
// that every packet takes. tsan_process is called by hosts for every packet; nothing is owned,
// nothing allocated, and nothing is formatted unless it is to be reported.
#include <cassert>
#include <ctime>

#include "internal.h"
#include "timeop.h"

LOG_MODULE(0);

static constexpr int RES_OUT_OF_SYNC = -1;
static constexpr int RES_IDLE = -16;

// The time stamps of an audio stream against the PCR and against the video stream.
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

// intended: every program's first analysed packet sets this anew, the last one stays.
void analysis_begins(tsan_ctx* tc) {
    tc->pre_skipped = tc->ptotal - 1;
    LOG(&g_log, INFO_level, "%s: %llu skipped before analysis\n", "analyze_pkt", tc->pre_skipped);
}

// Analysis has not started within max_skip_pkts packets. The notice is rare, the result is not.
static int idle(tsan_ctx* tc) {
    static time_t last_notice = 0; // shared by all contexts of the process
    const time_t now = std::time(nullptr);
    if (now - last_notice <= MAX_IDLE_SEC)
        return RES_IDLE;
    LOG(&g_log, ERR_level, "[%s] has been idling for too long (%llu/%zu packets)\n", source(tc),
        tc->last_pkt_idx, tc->cfg.max_skip_pkts);
    last_notice = now;
    return RES_IDLE;
}

static int out_of_sync(tsan_ctx* tc) {
    LOG(&g_log, ERR_level, "%s: [%s] out of sync at %s\n", "tsan_process", source(tc), ptag(tc));
    return RES_OUT_OF_SYNC;
}

PER_PACKET void stream_packet(tsan_ctx* tc, ts_packet pkt, unsigned pid) {
    program_info* const pg = tc->dat.program;
    stream_info* const si = tc->dat.stream;
    if (pid != SDT_PID_NUM) [[likely]]
        take_clocks(tc, pkt, pid);
    else
        upsert_pkt_info(tc, pid, pkt);
    if (pg->stat.acount == 0) [[unlikely]]
        analysis_begins(tc);
    tc->atotal++;
    count_packet(pg, si);
    analyze_pkt(tc, pkt, si);
    if (tc->ndat_pcount != 0) [[unlikely]]
        check_pcount(tc, false);
}

[[gnu::noinline]] static int any_packet(tsan_ctx* tc, ts_packet pkt) {
    const unsigned pid = ts_pid(pkt);
    setup_dat(tc, pid);
    if (tc->start_tm.tv_sec == 0 && tc->start_tm.tv_nsec == 0) [[unlikely]]
        set_now(&tc->start_tm);
    tc->last_pkt_idx++;
    tc->ptotal++;
    mk_ptag(tc);
    if (pkt[0] != MPEG_TS_SYNC) [[unlikely]]
        return out_of_sync(tc);
    if (tc->dat.stream) [[likely]]
        stream_packet(tc, pkt, pid);
    else
        upsert_pkt_info(tc, pid, pkt);
    if (tc->atotal != 0) [[likely]]
        return 0;
    if (tc->last_pkt_idx < tc->cfg.max_skip_pkts)
        return 0;
    return idle(tc);
}

int tsan_process(tsan_t tc, const std::uint8_t* data) {
    const ts_packet pkt(data, TS_PACKET_LEN);
    return take_plain_packet(tc, pkt) ? 0 : any_packet(tc, pkt);
}
