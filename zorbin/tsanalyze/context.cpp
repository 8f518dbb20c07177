// context.cpp - life of an analyzer context, the packet tag's text, the pid look-up table, and the
// small operations of live hosts. Called by hosts and by every file of this folder; owns nothing.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "syswrap.h"
#include "timeop.h"

LOG_MODULE(0);

tsan_t tsan_init(const char* source_tag, const tsan_config* cfg, int* err) {
    auto* tc = static_cast<tsan_ctx*>(W_calloc(__func__, 1, sizeof(tsan_ctx)));
    if (!tc) {
        if (err)
            *err = ENOMEM;
        return nullptr;
    }
    tc->cfg = *cfg;
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
    void* const address = tc;
    if (!tc->cfg.source[0]) {
        LOG(&g_log, WARN_level, "%s: avoiding double-freeing of tsan[] (%p)\n", __func__, address);
        return;
    }
    LOG(&g_log, DEBUG_level, "%s: freeing up tsan[%s] (%p)\n", __func__, source(tc), address);
    // Programs that a merge left behind the list keep their text, so all slots are looked at.
    for (program_info& pg : tc->pg)
        close_ctxt(&pg.txt_pmt);
    free_pats(tc);
    explicit_bzero(tc, sizeof *tc); // the mark of a released context; memset here is optimised away
    std::free(tc);
}

// ---- packet tag --------------------------------------------------------------------------------

void tag_text(const tag_info* tag, char* buf) {
    constexpr std::size_t limit = PKTIDX_LEN - 1; // the text ends at 62 characters
    const ssize_t ipg = tag->ipg;
    const ssize_t istm = tag->istm;
    int n = 0;
    switch (tag->kind) {
    case tag_kind::none:
        buf[0] = '\0';
        return;
    case tag_kind::pat:
        n = std::snprintf(buf, limit, "PAT[%llu]", tag->idx);
        break;
    case tag_kind::pmt:
        n = std::snprintf(buf, limit, "%zd:M[%llu]", ipg, tag->idx);
        break;
    case tag_kind::stream:
        n = std::snprintf(buf, limit, "%zd:%zd[%llu]", ipg, istm, tag->idx);
        break;
    case tag_kind::other:
        n = std::snprintf(buf, limit, "pkt[%llu]", tag->idx);
        break;
    }
    const auto used = static_cast<std::size_t>(n);
    if (tag->has_pcr && used > 0 && used < limit)
        std::snprintf(buf + used, limit - used, ":(pcr=%llu)+%llu", tag->pcr, tag->since);
}

static tag_kind kind_of(const dgram_info& dat) {
    if (dat.is_pat)
        return tag_kind::pat;
    if (dat.is_pmt)
        return tag_kind::pmt;
    return dat.stream ? tag_kind::stream : tag_kind::other;
}

void note_tag(tsan_ctx* tc) {
    if (tc->tag_is != tag_state::stale)
        return;
    const dgram_info& dat = tc->dat;
    tag_info& tag = tc->tag;
    tag = {};
    tag.kind = kind_of(dat);
    tag.ipg = static_cast<std::int16_t>(dat.ipg);
    tag.istm = static_cast<std::int16_t>(dat.istm);
    tag.idx = tc->last_pkt_idx;
    tag.has_pcr = dat.program && dat.program->got_pcr;
    if (tag.has_pcr) {
        tag.pcr = dat.program->last_pcr;
        tag.since = tc->last_pkt_idx - dat.program->pcr_pktnum;
    }
    tc->tag_is = tag_state::noted;
}

const char* ptag(tsan_ctx* tc) {
    note_tag(tc);
    if (tc->tag_is == tag_state::noted) {
        tag_text(&tc->tag, tc->ptag);
        tc->tag_is = tag_state::text;
    }
    return tc->ptag;
}

// ---- pid look-up -------------------------------------------------------------------------------

static pid_entry make_entry(std::uint8_t kind, std::size_t ipg, std::size_t istm) {
    return {kind, static_cast<std::uint8_t>(ipg), static_cast<std::uint8_t>(istm)};
}

// Rebuilds the table after a change of pmt_pid or of a stream table. PMT pids go before streams,
// and the first of several equal pids wins.
void map_pids(tsan_ctx* tc) {
    std::memset(tc->pid_map, 0, sizeof tc->pid_map);
    for (std::size_t i = 0; i < MAX_PMTS && tc->pmt_pid[i]; i++) {
        pid_entry& entry = tc->pid_map[tc->pmt_pid[i] % PID_COUNT];
        if (!entry.kind)
            entry = make_entry(PID_IS_PMT, i, 0);
    }
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        const program_info& pg = tc->pg[i];
        for (std::size_t j = 0; j < pg.nstreams; j++) {
            pid_entry& entry = tc->pid_map[pg.stm[j].pid % PID_COUNT];
            if (!entry.kind)
                entry = make_entry(PID_IS_STREAM, i, j);
        }
    }
    tc->pid_map[PAT_PID_NUM] = {}; // the PAT's own, whatever a PMT lists
}

// ---- live hosts --------------------------------------------------------------------------------

void tsan_next_seg(tsan_t tc) {
    if (!prog(tc))
        return;
    if (tc->last_cca.nmlr > 0)
        alert_cc_mlr(tc);
    tc->last_cca.nmlr = 0;
    prog(tc)->last_seg_idx++;
}

void tsan_reset_local_stats(tsan_t tc) {
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        program_info& pg = tc->pg[i];
        reset_aval(&pg.av_pdts_delta);
        reset_aval(&pg.av_pcr_delta);
        reset_aval(&pg.av_pcr_freq);
    }
}

std::uint64_t tsan_get_pidx(tsan_t tc) {
    return tc->last_pkt_idx;
}

void tsan_set_pidx(tsan_t tc, std::uint64_t idx) {
    const u64 new_idx = idx;
    note_tag(tc); // the last packet keeps its old index
    LOG(&g_log, WARN_level, "[%s] packet index changed from %llu to %llu\n", source(tc),
        tc->last_pkt_idx, new_idx);
    tc->last_pkt_idx = new_idx;
}
