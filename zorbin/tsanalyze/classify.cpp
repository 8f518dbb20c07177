// classify.cpp - packets that belong to no stream: PAT and PMT sections go to the tables, the rest
// is passed over; and the PCRs of those that do. Called by the per-packet path; owns nothing.
#include "internal.h"

LOG_MODULE(0);

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
void new_pcr(tsan_ctx* tc, ts_packet pkt) {
    program_info* pg = prog(tc);
    note_tag(tc);
    const u64 pcr = ts_pcr_base(pkt);
    if (tc->cfg.pcr_freq_ms != 0 && pg->last_pcr != 0)
        pcr_freq_check(tc, pcr);
    pg->last_pcr = pcr;
    pg->pcr_pktnum = tc->last_pkt_idx;
    pg->pcr_ptag = tc->tag;
    pg->got_pcr = true;
    if (tc->cfg.trk.pcr_update)
        LOG(&g_log, INFO_level, "[%s] new PCR=%llu [%s] at %s\n", source(tc), pg->last_pcr,
            time_text(pcr / 90).text, ptag(tc));
}

// A PES packet may start here, and bring time stamps.
void unit_start(tsan_ctx* tc, ts_packet pkt) {
    const ts_bytes payload = ts_get_payload(pkt);
    if (is_pes_pkt(payload))
        update_pts_dts(tc, payload, tc->dat.stream);
}

// A packet that belongs to no stream.
void upsert_pkt_info(tsan_ctx* tc, unsigned pid, ts_packet pkt) {
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
    } else if (trk.misc_ignore) {
        LOG(&g_log, INFO_level, "%s: [%s] ignoring pid=%u %s\n", __func__, source(tc), pid,
            ptag(tc));
    }
}
