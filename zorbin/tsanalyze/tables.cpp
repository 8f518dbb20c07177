// tables.cpp - the way to the tables: sections of the PAT go to pat, those of a PMT to pmt, in each
// case apart for the table that is read and those that are compared with it. Called by intake; owns
// nothing.
#include "tables.h"

LOG_MODULE(0);

static void use_pat(tsan_ctx* tc, const section_view& section) {
    if (tc->nprogs != 0) {
        another_PAT(tc, section);
        return;
    }
    LOG(&g_log, INFO_level, "[%s] using PAT (pid%u) at %s\n", source(tc), PAT_PID_NUM, ptag(tc));
    process_PAT(tc, section);
}

// A PMT that lists no stream of a known kind leaves the program without streams, so its next
// repetition is read again.
static void use_pmt(tsan_ctx* tc, const section_view& section) {
    const unsigned pid = tc->pmt_pid[tc->dat.ipg];
    if (prog(tc)->nstreams != 0) {
        compare_PMT(tc, section, pid);
        return;
    }
    LOG(&g_log, INFO_level, "[%s] will use PMT (pid%u) at %s\n", source(tc), pid, ptag(tc));
    first_PMT(tc, section, pid);
}

void table_packet(tsan_ctx* tc, unsigned pid, ts_packet pkt) {
    const bool traced = tc->cfg.trk.pat_pmt_pkt;
    if (tc->dat.is_pat) {
        if (traced)
            LOG(&g_log, INFO_level, "[%s] found PAT at %s\n", source(tc), ptag(tc));
        collect_sections(tc, &tc->pat_sections, table_kind::pat, pkt, use_pat);
    } else {
        if (traced)
            LOG(&g_log, INFO_level, "[%s] found PMT (pid%u) at %s\n", source(tc), pid, ptag(tc));
        collect_sections(tc, &tc->pmt_sections[tc->dat.ipg], table_kind::pmt, pkt, use_pmt);
    }
}
