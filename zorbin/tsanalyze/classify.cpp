// classify.cpp - what a packet is for: PAT and PMT sections to the tables, PCRs and PES time stamps
// to the program and stream they belong to. Called by intake for every packet in sync; owns
// nothing.
#include "internal.h"

LOG_MODULE(0);

bool pkt_has_pcr(const tsan_ctx* tc, unsigned pid, ts_packet pkt) {
    return tc->dat.ipg >= 0 && pid != PAT_PID_NUM && pid == tc->dat.program->pcr_pid &&
           ts_has_pcr(pkt);
}

static void take_pat(tsan_ctx* tc, const section_view& section) {
    if (tc->nprogs != 0) {
        another_PAT(tc, section);
        return;
    }
    LOG(&g_log, INFO_level, "[%s] using PAT (pid%u) at %s\n", source(tc), PAT_PID_NUM, ptag(tc));
    process_PAT(tc, section.bytes.data());
}

static void take_pmt(tsan_ctx* tc, const section_view& section) {
    const unsigned pid = tc->pmt_pid[tc->dat.ipg];
    if (prog(tc)->nstreams == 0) {
        LOG(&g_log, INFO_level, "[%s] will use PMT (pid%u) at %s\n", source(tc), pid, ptag(tc));
        std::uint8_t* pld = section_copy(tc, section);
        defuse_descriptors(pld);
        process_PMT(tc, pld, pid);
    } else {
        compare_PMT(tc, section, pid);
    }
}

// Keeps a program's clock. The check sees the previous PCR still in place.
static void new_pcr(tsan_ctx* tc, ts_packet pkt) {
    program_info* pg = prog(tc);
    const u64 pcr = ts_pcr_base(pkt);
    if (tc->cfg.pcr_freq_ms != 0 && pg->last_pcr != 0)
        pcr_freq_check(tc, pcr);
    pg->last_pcr = pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    pg->pcr_ptag = tc->tag;
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update) {
        char text[TIMESTR_LEN] = {};
        ms2timestr(pcr / 90, text, sizeof text);
        LOG(&g_log, INFO_level, "[%s] new PCR=%llu [%s] at %s\n", source(tc), pg->last_pcr, text,
            ptag(tc));
    }
}

// A packet of any pid but those of the PAT, the SDT and known PMTs.
static void take_other(tsan_ctx* tc, unsigned pid, ts_packet pkt) {
    if (tc->dat.ipg < 0) {
        if (tc->cfg.trk.misc_ignore)
            LOG(&g_log, INFO_level, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", source(tc),
                pid, ptag(tc));
        return;
    }
    if (pkt_has_pcr(tc, pid, pkt))
        new_pcr(tc, pkt);
    if (!ts_unit_start(pkt))
        return;
    const ts_bytes payload = ts_get_payload(pkt);
    if (is_pes_pkt(payload))
        update_pts_dts(tc, payload, tc->dat.stream);
}

ssize_t upsert_pkt_info(tsan_ctx* tc, ts_packet pkt) {
    const unsigned pid = ts_pid(pkt);
    const tracking_opt& trk = tc->cfg.trk;
    if (pid == SDT_PID_NUM) {
        if (trk.sdt_ignore)
            LOG(&g_log, INFO_level, "[%s] disregarding SDT at %s\n", source(tc), ptag(tc));
    } else if (pid == PAT_PID_NUM) {
        if (trk.pat_pmt_pkt)
            LOG(&g_log, INFO_level, "[%s] found PAT at %s\n", source(tc), ptag(tc));
        collect_sections(tc, &tc->pat_sections, table_kind::pat, pkt, take_pat);
    } else if (tc->dat.is_pmt) {
        if (trk.pat_pmt_pkt)
            LOG(&g_log, INFO_level, "[%s] found PMT (pid%u) at %s\n", source(tc), pid, ptag(tc));
        collect_sections(tc, &tc->pmt_sections[tc->dat.ipg], table_kind::pmt, pkt, take_pmt);
    } else {
        take_other(tc, pid, pkt);
    }
    return tc->dat.istm;
}
