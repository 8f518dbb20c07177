// pmt.cpp - the streams of a program: builds its table from the PMT, keeps the PMT's rendering,
// finds changes by comparing renderings and rebuilds the table. Called by tables for PMT sections.
// The rendering of each program is owned by its slot.
#include <algorithm>
#include <cassert>
#include <cstdlib>

#include <bitstream/mpeg/psi/pmt.h>

#include "alert.h"
#include "checks.h"
#include "syswrap.h"
#include "tables.h"

LOG_MODULE(0);

static constexpr ssize_t MAX_PMT_TXT = 4096;       // bytes of a rendering
static constexpr ssize_t RENDERING_RESERVE = 64;   // less room left: lines may have been dropped
static constexpr std::uint8_t MAX_ES_ENTRIES = 64; // entries read from one PMT

static ssize_t find_stream(const stream_info* stm, std::size_t count, unsigned pid) {
    for (std::size_t i = 0; i < count; i++)
        if (stm[i].pid == pid)
            return static_cast<ssize_t>(i);
    return -1;
}

const char* stream_type_text(std::uint8_t scode) {
    return pmt_get_streamtype_txt(scode);
}

static char code2stype(std::uint8_t scode) {
    switch (scode) {
    case 0x01: // MPEG-1
    case 0x02: // MPEG-2
    case 0x10: // MPEG-4 Visual
    case 0x1b: // H.264
    case 0x24: // H.265
    case 0x42: // AVS
        return 'V';
    case 0x03: // MPEG-1
    case 0x04: // MPEG-2
    case 0x0f: // AAC in ADTS
    case 0x11: // AAC in LATM
    case 0x81: // AC-3
    case 0x87: // E-AC-3
        return 'A';
    case 0x06: // private data in PES packets: subtitles, teletext
        return 'S';
    default:
        return '?';
    }
}

// ---- stream table ------------------------------------------------------------------------------

// intended: a rebuild without such a stream leaves the index of before.
static void note_pcr_stream(const tsan_ctx* tc, program_info* pg, const stream_info& si,
                            std::size_t idx) {
    if (si.pid != pg->pcr_pid)
        return;
    pg->pcr_idx = static_cast<ssize_t>(idx);
    LOG(&g_log, DEBUG_level, "%s: [%s] pcr_idx=%zd for %c-stream pid=%u\n", "add_stream",
        source(tc), pg->pcr_idx, si.stype, si.pid);
}

// intended: the index is set once, by the first video stream that the program ever had, and stays
// whatever stream a rebuild puts there; each further video stream, those that a rebuild adds again
// included, draws the warning.
static void note_ref_stream(const tsan_ctx* tc, program_info* pg, const stream_info& si,
                            std::size_t idx) {
    if (tc->cfg.max_pdts_delta == 0 || si.stype != 'V')
        return;
    if (pg->ref_idx >= 0) {
        LOG(&g_log, WARN_level, "%s: 1+ video: ref_idx already set (to %zd)\n", "add_stream",
            pg->ref_idx);
        return;
    }
    pg->ref_idx = static_cast<ssize_t>(idx);
    LOG(&g_log, DEBUG_level, "%s: [%s] ref_idx=%zd for %c-stream pid=%u\n", "add_stream",
        source(tc), pg->ref_idx, si.stype, si.pid);
}

static ssize_t add_stream(tsan_ctx* tc, unsigned pid, std::uint8_t scode) {
    program_info* pg = prog(tc);
    const std::size_t idx = pg->nstreams;
    const char stype = code2stype(scode);
    if (stype == '?') {
        LOG(&g_log, DEBUG_level, "%s: [%s] skipping non-AV PES at %s\n", __func__, source(tc),
            ptag(tc));
        return -1;
    }
    if (idx >= MAX_NSTREAMS) {
        LOG(&g_log, ERR_level, "%s: [%s] too many streams: %zu\n", __func__, source(tc),
            pg->nstreams);
        return -1;
    }
    // intended: the other fields keep what the slot held; a rebuild overwrites them for streams
    // that survive.
    stream_info& si = pg->stm[idx];
    si.pid = pid;
    si.stype = stype;
    si.scode = scode;
    si.last_pts = 0;
    si.last_dts = 0;
    si.cc = {-1, {}};
    note_pcr_stream(tc, pg, si, idx);
    note_ref_stream(tc, pg, si, idx);
    pg->nstreams++;
    LOG(&g_log, DEBUG_level, "%s: added stream[%d]:pid=%u (%c/%s) at %s, %zu streams total\n",
        __func__, static_cast<int>(idx), pid, stype, pid == pg->pcr_pid ? "PCR" : "-", ptag(tc),
        pg->nstreams);
    return static_cast<ssize_t>(idx);
}

static ssize_t add_pmt_stream(tsan_ctx* tc, const std::uint8_t* es) {
    const unsigned pid = pmtn_get_pid(es);
    const std::uint8_t scode = pmtn_get_streamtype(es);
    LOG(&g_log, INFO_level, "[%s] ADD (pid=%u, type=%u) [%s]\n", source(tc), pid, unsigned{scode},
        stream_type_text(scode));
    return add_stream(tc, pid, scode);
}

// Reads the PMT at `pld`: the PCR's pid, the streams, added to those that the table has, and the
// rendering if there is none.
static void process_PMT(tsan_ctx* tc, std::uint8_t* pld, unsigned pid) {
    program_info* pg = prog(tc);
    LOG(&g_log, INFO_level, "Adding streams from PMT (pid%u) at %s\n", pid, ptag(tc));
    pg->pcr_pid = pmt_get_pcrpid(pld);
    LOG(&g_log, INFO_level, "[%s] PMT lists PCR pid=%u at %s\n", source(tc), pg->pcr_pid, ptag(tc));
    assert(prog(tc)->pcr_pid);
    std::size_t count = 0;
    for (std::uint8_t i = 0; i < MAX_ES_ENTRIES; i++) {
        const std::uint8_t* es = pmt_get_es(pld, i);
        if (!es)
            break;
        if (add_pmt_stream(tc, es) != -1)
            count++;
    }
    LOG(&g_log, INFO_level, "Added %zu streams from PMT (pid%u) at %s\n", count, pid, ptag(tc));
    if (count != 0)
        pg->curr_pmt_pid = pid;
    if (!pg->txt_pmt.buf && open_ctxt(&pg->txt_pmt, MAX_PMT_TXT) == 0)
        render_pmt(pld, &pg->txt_pmt);
    if (tc->cfg.trk.pmt_diff) {
        LOG(&g_log, INFO_level, "%s: PMT pid=%u, %zu entries\n", __func__, pid, count);
        dump_ctxt(log_fp(&g_log), "Using PMT:", &pg->txt_pmt);
    }
    map_pids(tc);
}

void first_PMT(tsan_ctx* tc, const section_view& section, unsigned pid) {
    process_PMT(tc, printable_pmt(tc, section), pid);
}

// ---- changes -----------------------------------------------------------------------------------

// All entries that are read of a PMT, those of unknown kinds included.
static std::size_t count_entries(std::uint8_t* pld) {
    std::uint8_t n = 0;
    while (n < MAX_ES_ENTRIES && pmt_get_es(pld, n))
        n++;
    return n;
}

// A place to force a mismatch by hand.
static bool debug_pmt_cmp(const tsan_ctx*) {
    return false;
}

static void trace_comparison(const tsan_ctx* tc, const char* result, unsigned pid,
                             std::size_t count) {
    if (tc->cfg.trk.pmt_diff)
        LOG(&g_log, INFO_level, "%s: %s pid=%u %zu/%zu\n", "cmp_PMT", result, pid,
            prog(tc)->nstreams, count);
}

enum class pmt_result { same, differs, unknown }; // unknown: memory is short

// Compares the rendering of the PMT at `pld` with the one in use. Where they differ, raises the
// alert and puts the new one into use; the stream table stays as it is.
static pmt_result cmp_PMT(tsan_ctx* tc, std::uint8_t* pld, unsigned pid, std::size_t count) {
    program_info* pg = prog(tc);
    ctxt_spec new_txt;
    if (open_ctxt(&new_txt, MAX_PMT_TXT) != 0)
        return pmt_result::unknown;
    render_pmt(pld, &new_txt);
    const bool differs = cmp_ctxt(&pg->txt_pmt, &new_txt) != 0 || debug_pmt_cmp(tc);
    if (differs) {
        alert_pmt_diff(tc, pid, &new_txt, count, pmt_get_pcrpid(pld));
        replace_ctxt(&pg->txt_pmt, &new_txt);
        pg->seen_pmt.len = 0;
        reset_ndat_pcount(tc);
    }
    close_ctxt(&new_txt);
    trace_comparison(tc, differs ? "MISMATCH" : "ok", pid, count);
    return differs ? pmt_result::differs : pmt_result::same;
}

// A stream that is still listed goes on where it was: all but what the PMT says of it.
static void copy_stm_stats(stream_info* dst, const stream_info* src) {
    const stream_info named = *dst;
    *dst = *src;
    dst->pid = named.pid;
    dst->stype = named.stype;
    dst->scode = named.scode;
}

// Builds the stream table anew. When memory is short it stays that of the PMT before.
static void update_PMT(tsan_ctx* tc, std::uint8_t* pld, unsigned pid) {
    program_info* pg = prog(tc);
    const std::size_t old_count = pg->nstreams;
    auto* old = static_cast<stream_info*>(W_calloc(__func__, old_count, sizeof(stream_info)));
    if (!old)
        return;
    std::copy_n(pg->stm, old_count, old);
    pg->nstreams = 0;
    process_PMT(tc, pld, pid);
    std::size_t matches = 0;
    for (std::size_t i = 0; i < pg->nstreams; i++) {
        const ssize_t j = find_stream(old, old_count, pg->stm[i].pid);
        if (j < 0)
            continue;
        copy_stm_stats(&pg->stm[i], &old[j]);
        matches++;
        LOG(&g_log, DEBUG_level, "%s: copied stats from old[%d] to new[%zu]\n", __func__,
            static_cast<int>(j), i);
    }
    LOG(&g_log, DEBUG_level, "%s: %zu old/new entries matched\n", __func__, matches);
    std::free(old);
}

// Whether a rendering kept every line; repeating it then warns of nothing.
static bool is_whole(const ctxt_spec* txt) {
    return txt->buf && txt->buflen - txt->textlen > RENDERING_RESERVE;
}

void compare_PMT(tsan_ctx* tc, const section_view& section, unsigned pid) {
    program_info* pg = prog(tc);
    if (is_seen(&pg->seen_pmt, section)) {
        trace_comparison(tc, "ok", pid, pg->seen_pmt.count);
        return;
    }
    std::uint8_t* pld = printable_pmt(tc, section);
    const std::size_t count = count_entries(pld);
    const pmt_result result = cmp_PMT(tc, pld, pid, count);
    if (result == pmt_result::differs)
        update_PMT(tc, pld, pid);
    else if (result == pmt_result::same && is_whole(&pg->txt_pmt))
        note_seen(&pg->seen_pmt, section, count);
}
