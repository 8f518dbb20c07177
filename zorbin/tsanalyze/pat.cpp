// pat.cpp - the programs of the stream: reads the first complete PAT, compares every later one with
// it and merges what changed. Called by tables for PAT sections and by context at the end. The
// sections in `pat` and `new_pat` are allocated here and released by free_pats.
#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <bitstream/mpeg/psi/pat.h>
#include <bitstream/mpeg/psi/pat_print.h>

#include "alert.h"
#include "checks.h"
#include "syswrap.h"
#include "tables.h"

LOG_MODULE(0);

static constexpr std::uint8_t MAX_ENTRIES = 32; // program entries read from one section

// A copy of a section that the caller owns, or null when memory is short.
static std::uint8_t* dup_psi_sec(const std::uint8_t* pld) {
    const std::size_t len = psi_get_length(pld) + std::size_t{PSI_HEADER_SIZE};
    auto* copy = static_cast<std::uint8_t*>(W_calloc(__func__, 1, len));
    if (copy)
        std::memcpy(copy, pld, len);
    return copy;
}

// Adds a copy of the section to the block. False when memory is short: the section is lost.
static bool gather(psi_block* block, const std::uint8_t* pld) {
    std::uint8_t* copy = dup_psi_sec(pld);
    if (!copy)
        return false;
    block->is_complete = psi_table_section(block->sec, copy);
    return true;
}

// Calls visit(entry, pid) for every program entry that is read of a complete table.
template <class Visitor>
static void for_each_program(std::uint8_t** sec, unsigned last_section, Visitor visit) {
    for (unsigned i = 0; i <= last_section; i++) {
        for (std::uint8_t k = 0; k < MAX_ENTRIES; k++) {
            const std::uint8_t* entry = pat_get_program(sec[i], k);
            if (!entry)
                break;
            visit(k, unsigned{patn_get_pid(entry)});
        }
    }
}

// All program entries of a complete table, those that are not read included.
static std::size_t listed_programs(std::uint8_t** sec, unsigned last_section) {
    std::size_t count = 0;
    for (unsigned i = 0; i <= last_section; i++)
        for (std::uint8_t k = 0; k < UINT8_MAX && pat_get_program(sec[i], k); k++)
            count++;
    return count;
}

static ssize_t find_pid(const unsigned* pids, std::size_t count, unsigned pid) {
    for (std::size_t i = 0; i < count; i++)
        if (pids[i] == pid)
            return static_cast<ssize_t>(i);
    return -1;
}

// ---- first PAT ---------------------------------------------------------------------------------

static void add_program(tsan_ctx* tc, unsigned entry, unsigned pid) {
    tc->pmt_pid[tc->nprogs] = pid;
    assert(tc->pmt_pid[tc->nprogs]);
    // intended: the pid shown is the one at the entry's place in the list, which is the entry's own
    // for the first section only.
    LOG(&g_log, INFO_level, "[%s] PRG[%zu] pmt[%u] pid=%u at %s\n", source(tc), tc->nprogs, entry,
        tc->pmt_pid[entry], ptag(tc));
    tc->nprogs++;
}

void process_PAT(tsan_ctx* tc, const section_view& section) {
    if (!gather(&tc->pat, section.bytes.data()))
        return;
    if (!tc->pat.is_complete) {
        LOG(&g_log, DEBUG_level, "%s: (%p) not all sections gathered yet\n", __func__,
            static_cast<void*>(tc));
        return;
    }
    assert(0 == tc->nprogs);
    const unsigned last_section = psi_get_lastsection(section.bytes.data());
    for_each_program(tc->pat.sec, last_section, [tc](unsigned k, unsigned pid) {
        if (tc->nprogs < MAX_PMTS)
            add_program(tc, k, pid);
    });
    const std::size_t dropped = listed_programs(tc->pat.sec, last_section) - tc->nprogs;
    if (dropped != 0)
        LOG(&g_log, ERR_level, "%s: [%s] too many programs: %zu dropped, %zu kept at %s\n",
            __func__, source(tc), dropped, tc->nprogs, ptag(tc));
    LOG(&g_log, DEBUG_level, "%s: [%s] %zu programs read from PAT (%u sections) at %s\n", __func__,
        source(tc), tc->nprogs, last_section + 1, ptag(tc));
    assert(tc->nprogs);
    tc->seen_pat.len = 0;
    map_pids(tc);
}

// ---- merge -------------------------------------------------------------------------------------

// Lists of a merge. They may outgrow MAX_PMTS until the missing programs are taken out.
struct merge_lists {
    unsigned* pids;  // the new list
    unsigned* mark;  // old pids not found in the new PAT yet, 0: found
    std::size_t old; // old programs
    std::size_t n;   // entries of pids
    std::size_t nadded;
    std::size_t ndel;
};

// intended: what is left of `mark` is searched, so a pid that is listed again is added again, and a
// pid 0 passes for an old one as soon as any was found or added.
static void merge_entry(tsan_ctx* tc, merge_lists* m, unsigned pid) {
    const ssize_t j = find_pid(m->mark, m->n, pid);
    if (j >= 0) {
        m->mark[j] = 0;
        return;
    }
    m->pids[m->n++] = pid;
    m->nadded++;
    LOG(&g_log, WARN_level, "[%s] pid%u ADDED in new PAT\n", source(tc), pid);
}

static void compact(tsan_ctx* tc, merge_lists* m) {
    for (std::size_t i = 0; i < m->n; i++) {
        if (i < m->old && m->mark[i] != 0) {
            LOG(&g_log, WARN_level, "[%s] pid%u MISSING in new PAT\n", source(tc), m->mark[i]);
            m->ndel++;
        } else {
            m->pids[i - m->ndel] = m->pids[i];
        }
    }
}

// `pld` is the section that completed new_pat. The first PAT stays what later ones are compared
// with, and the program slots stay as they are: the next PMT on a moved pid shows as PMT-DIFF.
// False when memory is short: the next repetition has to tell.
static bool merge_PATs(tsan_ctx* tc, const std::uint8_t* pld) {
    const unsigned last_section = psi_get_lastsection(pld);
    std::size_t room = tc->nprogs;
    for_each_program(tc->new_pat->sec, last_section, [&](unsigned, unsigned) { room++; });
    auto* lists = static_cast<unsigned*>(W_calloc(__func__, 2 * room + 1, sizeof(unsigned)));
    if (!lists)
        return false;
    merge_lists m = {lists, lists + room, tc->nprogs, tc->nprogs, 0, 0};
    std::copy_n(tc->pmt_pid, tc->nprogs, m.pids);
    std::copy_n(tc->pmt_pid, tc->nprogs, m.mark);
    for_each_program(tc->new_pat->sec, last_section,
                     [&](unsigned, unsigned pid) { merge_entry(tc, &m, pid); });
    compact(tc, &m);
    tc->nprogs = m.n - m.ndel;
    assert(tc->nprogs < MAX_PMTS);
    std::copy_n(m.pids, tc->nprogs, tc->pmt_pid);
    tc->pmt_pid[tc->nprogs] = 0;
    std::free(lists);
    if (m.nadded == 0 && m.ndel == 0)
        return true;
    tc->seen_pat.len = 0;
    map_pids(tc);
    alert_pat_diff(tc, m.nadded, m.ndel);
    reset_ndat_pcount(tc);
    return true;
}

// ---- later PATs --------------------------------------------------------------------------------

static void free_new_pat(tsan_ctx* tc) {
    if (!tc->new_pat)
        return;
    psi_table_free(tc->new_pat->sec);
    std::free(tc->new_pat);
    tc->new_pat = nullptr;
}

// The completed PAT in new_pat against the first one of the run.
static void compare_pats(tsan_ctx* tc, const section_view& section) {
    const bool single = psi_get_lastsection(section.bytes.data()) == 0;
    const u64 changes = tc->gac.pat_diff;
    const bool known =
        psi_table_compare(tc->pat.sec, tc->new_pat->sec) || merge_PATs(tc, section.bytes.data());
    if (known && single && tc->gac.pat_diff == changes)
        note_seen(&tc->seen_pat, section, 0);
}

static void trace_compiling(tsan_ctx* tc) {
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG(&g_log, INFO_level, "%s: (%p) new PAT is being compiled at %s\n", "another_PAT",
            static_cast<void*>(tc), ptag(tc));
}

static void trace_ready(tsan_ctx* tc) {
    if (tc->cfg.trk.pat_pmt_pkt)
        LOG(&g_log, INFO_level, "%s: new PAT ready for comparison at %s\n", "another_PAT",
            ptag(tc));
}

// Each repetition is compiled afresh, unless its only section is the one that changed nothing.
void another_PAT(tsan_ctx* tc, const section_view& section) {
    if (!tc->new_pat && is_seen(&tc->seen_pat, section)) {
        trace_compiling(tc);
        trace_ready(tc);
        return;
    }
    if (!tc->new_pat)
        tc->new_pat = static_cast<psi_block*>(W_calloc(__func__, 1, sizeof(psi_block)));
    trace_compiling(tc);
    if (!tc->new_pat || !gather(tc->new_pat, section.bytes.data()))
        return;
    if (!tc->new_pat->is_complete) {
        LOG(&g_log, DEBUG_level, "%s: (%p) not all sections gathered yet at %s\n", __func__,
            static_cast<void*>(tc), ptag(tc));
        return;
    }
    trace_ready(tc);
    compare_pats(tc, section);
    free_new_pat(tc);
}

// ---- texts and release -------------------------------------------------------------------------

// Print callback of bitstream; `opaque` is the stream.
// intended: lines are cut at 127 characters; the PMT's texts are not.
[[gnu::format(printf, 2, 3)]] static void m_print(void* opaque, const char* fmt, ...) {
    char line[128];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    std::fprintf(static_cast<FILE*>(opaque), "%s\n", line);
}

// intended: the text goes straight to the log's stream, whatever the levels say of its heading.
void dump_pat(tsan_ctx* tc, const char* msg, std::uint8_t** psec) {
    if (msg)
        LOG(&g_log, INFO_level, "[%s] %s\n", source(tc), msg);
    FILE* out = log_fp(&g_log);
    if (out)
        pat_table_print(psec, m_print, out, PRINT_TEXT);
}

void free_pats(tsan_ctx* tc) {
    psi_table_free(tc->pat.sec);
    free_new_pat(tc);
}
