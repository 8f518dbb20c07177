// context.cpp - life of an analyzer context, and its packet index. Called by hosts; the context
// belongs to them from tsan_init to tsan_free.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "context.h"
#include "syswrap.h"
#include "tables.h"

LOG_MODULE(0);

tsan_t tsan_init(const char* source_tag, const tsan_config* cfg, int* err) {
    auto* tc = static_cast<tsan_ctx*>(W_calloc(__func__, 1, sizeof(tsan_ctx)));
    if (!tc) {
        if (err)
            *err = ENOMEM;
        return nullptr;
    }
    tc->cfg = *cfg;
    // A packet of a stream may be on the SDT's pid, too, and then has a line of its own.
    tc->counts_only =
        cfg->is_enabled && cfg->cc_track && !cfg->trk.cc_track && !cfg->trk.sdt_ignore;
    tc->checks_audio = cfg->max_pcr_delta != 0 || cfg->max_pdts_delta != 0;
    if (source_tag)
        std::snprintf(tc->cfg.source, sizeof tc->cfg.source, "%s", source_tag);
    for (program_info& pg : tc->pg)
        pg.pcr_idx = pg.ref_idx = -1;
    tc->dat.ipg = tc->dat.istm = -1;
    tc->ndat_pcount = cfg->max_ndat_pcount;
    LOG(&g_log, DEBUG_level, "%s: tsan[%s] (%p) created\n", __func__, source(tc),
        static_cast<void*>(tc));
    return tc;
}

void tsan_free(tsan_t tc) {
    if (!tc->cfg.source[0]) {
        LOG(&g_log, WARN_level, "%s: avoiding double-freeing of tsan[] (%p)\n", __func__,
            static_cast<void*>(tc));
        return;
    }
    LOG(&g_log, DEBUG_level, "%s: freeing up tsan[%s] (%p)\n", __func__, source(tc),
        static_cast<void*>(tc));
    // Programs that a merge left behind the list keep their text, so all slots are looked at.
    for (program_info& pg : tc->pg)
        close_ctxt(&pg.txt_pmt);
    free_pats(tc);
    explicit_bzero(tc, sizeof *tc); // the mark of a released context; memset here is optimised away
    std::free(tc);
}

std::uint64_t tsan_get_pidx(tsan_t tc) {
    return tc->last_pkt_idx;
}

void tsan_set_pidx(tsan_t tc, std::uint64_t idx) {
    ptag(tc); // made here, so that the last packet keeps its old index
    LOG(&g_log, WARN_level, "[%s] packet index changed from %llu to %llu\n", source(tc),
        tc->last_pkt_idx, static_cast<u64>(idx));
    tc->last_pkt_idx = idx;
}
