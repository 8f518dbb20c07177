// intake.cpp - the road of one packet: where its pid belongs, its tag, the sync byte, the counters,
// the order of the checks, and the end of a run in which analysis never starts. tsan_process is
// called by hosts for every packet, the rest from here; nothing is owned, nothing allocated, and
// nothing is formatted unless it is to be reported.
#include <cassert>
#include <ctime>

#include "internal.h"
#include "timeop.h"

LOG_MODULE(0);

static constexpr int RES_OUT_OF_SYNC = -1;
static constexpr int RES_IDLE = -16;

void setup_dat(tsan_ctx* tc, unsigned pid) {
    dgram_info& dat = tc->dat;
    dat = {-1, -1, pid == PAT_PID_NUM, false, nullptr, nullptr};
    if (dat.is_pat)
        return;
    const pid_entry entry = tc->pid_map[pid];
    if (!entry.kind)
        return;
    dat.ipg = entry.ipg;
    dat.program = &tc->pg[entry.ipg];
    if (entry.kind == PID_IS_PMT) {
        dat.is_pmt = true;
    } else {
        dat.istm = entry.istm;
        dat.stream = &dat.program->stm[entry.istm];
    }
}

static tag_kind kind_of(const dgram_info& dat) {
    if (dat.is_pat)
        return tag_kind::pat;
    if (dat.is_pmt)
        return tag_kind::pmt;
    return dat.stream ? tag_kind::stream : tag_kind::other;
}

void mk_ptag(tsan_ctx* tc) {
    const dgram_info& dat = tc->dat;
    tag_info& tag = tc->tag;
    tag.kind = kind_of(dat);
    tag.ipg = static_cast<std::int8_t>(dat.ipg);
    tag.istm = static_cast<std::int8_t>(dat.istm);
    tag.idx = tc->last_pkt_idx;
    tag.has_pcr = dat.program && dat.program->got_pcr;
    if (tag.has_pcr) {
        tag.pcr = dat.program->last_pcr;
        tag.since = tc->last_pkt_idx - dat.program->pcr_pktnum;
    }
    tc->ptag_ready = false;
}

void inc_pkt_stat(tsan_ctx* tc, ssize_t istm, bool processed) {
    program_info* pg = prog(tc);
    stream_info& si = pg->stm[istm];
    sa_stats& stat = pg->stat;
    (processed ? si.pcount : si.acount)++;
    (processed ? stat.pcount : stat.acount)++;
    switch (si.stype) {
    case 'S':
        (processed ? stat.s_pcount : stat.s_acount)++;
        break;
    case 'V':
        (processed ? stat.v_pcount : stat.v_acount)++;
        break;
    case 'A':
        (processed ? stat.a_pcount : stat.a_acount)++;
        break;
    default:
        break;
    }
}

void mark_processed(tsan_ctx* tc, ssize_t istm) {
    inc_pkt_stat(tc, istm, true);
}

// The time stamps of an audio stream against the PCR and against the video stream.
static void check_audio(tsan_ctx* tc, stream_info* si) {
    const program_info* pg = prog(tc);
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

int analyze_pkt(tsan_ctx* tc, ts_packet pkt, ssize_t istm) {
    program_info* pg = prog(tc);
    stream_info* si = &pg->stm[istm];
    if (pg->stat.acount == 0) {
        // intended: every program's first analysed packet sets this anew, the last one stays.
        tc->pre_skipped = tc->ptotal - 1;
        LOG(&g_log, INFO_level, "%s: %llu skipped before analysis\n", __func__, tc->pre_skipped);
    }
    tc->atotal++;
    inc_pkt_stat(tc, istm, false);
    if (!tc->cfg.is_enabled)
        return 0;
    const unsigned pid = ts_pid(pkt);
    const bool has_payload = ts_has_payload(pkt);
    if (tc->cfg.cc_track && has_payload)
        cc_track(tc, pid, ts_cc(pkt));
    const bool stamped = si->pts_updated || si->dts_updated;
    if (stamped && si->stype == 'A' && pid != pg->pcr_pid && has_payload)
        check_audio(tc, si);
    return 0;
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

int tsan_process(tsan_t tc, const std::uint8_t* data) {
    const ts_packet pkt(data, TS_PACKET_LEN);
    setup_dat(tc, ts_pid(pkt));
    if (tc->start_tm.tv_sec == 0 && tc->start_tm.tv_nsec == 0)
        set_now(&tc->start_tm);
    tc->last_pkt_idx++;
    tc->ptotal++;
    mk_ptag(tc);
    if (pkt[0] != MPEG_TS_SYNC) {
        LOG(&g_log, ERR_level, "%s: [%s] out of sync at %s\n", __func__, source(tc), ptag(tc));
        return RES_OUT_OF_SYNC;
    }
    const ssize_t idx = upsert_pkt_info(tc, pkt);
    if (idx >= 0) {
        mark_processed(tc, idx);
        if (tc->dat.program && tc->dat.stream) {
            const int rc = analyze_pkt(tc, pkt, idx);
            if (rc != 0)
                return RES_OUT_OF_SYNC;
        }
        if (tc->ndat_pcount != 0)
            check_pcount(tc, false);
    }
    if (tc->atotal != 0 || tc->last_pkt_idx < tc->cfg.max_skip_pkts)
        return 0;
    return idle(tc);
}
