// alert.cpp - the words of every alert. Called by the checks, which decide; each operation writes
// the human line, then the machine line, then counts, unless it says otherwise. Field orders differ
// between the two renderings on purpose: scripts rely on both. LOST-SYNC is different: hosts find
// it, and when they should give up is decided here, by a period and a count that all contexts
// share.
#include <ctime>

#include "alert.h"
#include "checks.h"
#include "tables.h"

LOG_MODULE(0);

// The channels of an alert, by the settings; LOST-SYNC alone has a machine line of its own.
#define ALERT_HUMAN(tc, ...)                                                                       \
    do {                                                                                           \
        if (!(tc)->cfg.no_rlog)                                                                    \
            LOG(&g_log, WARN_level, __VA_ARGS__);                                                  \
    } while (false)
#define ALERT_MACHINE(tc, ...)                                                                     \
    do {                                                                                           \
        if ((tc)->cfg.access_log_alerts)                                                           \
            log_machine(&g_access_log, __VA_ARGS__);                                               \
    } while (false)

static constexpr std::size_t LOSTSYNC_LIMIT = 9; // cases that a period may hold
static constexpr long LOSTSYNC_PERIOD = 2;       // seconds

// intended: the machine line is written whatever the settings say, and the case is counted before
// either line.
int tsan_alert_lostsync(tsan_t tc) {
    static time_t period_start = 0; // both shared by all contexts of the process
    static std::size_t count = 0;
    const time_t now = std::time(nullptr);
    if (period_start == 0) {
        period_start = now;
    } else if (now - period_start > LOSTSYNC_PERIOD && count <= LOSTSYNC_LIMIT) {
        count = 0;
        period_start = now;
    }
    count++;
    tc->gac.lost_sync++;
    ALERT_HUMAN(tc, "ALERT LOST-SYNC [%s] seq=%zu at %s\n", source(tc), count, ptag(tc));
    log_machine(&g_access_log, "ALERT LOST-SYNC %s %zu [%s]\n", source(tc), count, ptag(tc));
    if (count <= LOSTSYNC_LIMIT)
        return 0;
    LOG(&g_log, ERR_level, "%s: bailing out after %zu cases within %ld sec\n", __func__, count,
        static_cast<long>(now - period_start));
    return -1;
}

// ---- tables ------------------------------------------------------------------------------------

void alert_pat_diff(tsan_ctx* tc, std::size_t nadded, std::size_t ndel) {
    ALERT_HUMAN(tc, "ALERT PAT-DIFF [%s] PMTs added/deleted: %zu/%zu progs=%zu at %s\n", source(tc),
                nadded, ndel, tc->nprogs, ptag(tc));
    if (tc->cfg.trk.pat_diff) {
        dump_pat(tc, "Older PAT:", tc->pat.sec);
        dump_pat(tc, "New PAT:", tc->new_pat->sec);
    }
    ALERT_MACHINE(tc, "ALERT PAT-DIFF %s 0 %zu %zu %zu %s\n", source(tc), tc->nprogs, nadded, ndel,
                  ptag(tc));
    tc->gac.pat_diff++;
}

void alert_pmt_diff(tsan_ctx* tc, unsigned pid, const ctxt_spec* new_txt, std::size_t count,
                    unsigned pcr_pid) {
    program_info* pg = prog(tc);
    ALERT_HUMAN(tc, "ALERT PMT-DIFF [%s] track-count: %zu/%zu pid=%u pcr-pid=%u at %s\n",
                source(tc), pg->nstreams, count, pid, pcr_pid, ptag(tc));
    if (tc->cfg.trk.pmt_diff) {
        dump_ctxt(log_fp(&g_log), "Older PMT:", &pg->txt_pmt);
        dump_ctxt(log_fp(&g_log), "New PMT:", new_txt);
    }
    ALERT_MACHINE(tc, "ALERT PMT-DIFF %s %u %zu %zu %u %s\n", source(tc), pid, pg->nstreams, count,
                  pcr_pid, ptag(tc));
    pg->alert.pmt_diff++;
}

// ---- continuity --------------------------------------------------------------------------------

void alert_cc_break(tsan_ctx* tc, unsigned pid, int last, int current) {
    program_info* pg = prog(tc);
    ALERT_HUMAN(tc, "ALERT CC-BRK [%s] dgram:%llu last/current=%d/%d pid=%u at %s\n", source(tc),
                pg->last_seg_idx, last, current, pid, ptag(tc));
    ALERT_MACHINE(tc, "ALERT CC-BRK %s %u %llu %d %d %s\n", source(tc), pid, pg->last_seg_idx, last,
                  current, ptag(tc));
    pg->alert.cc_break++;
}

void alert_cc_rst(tsan_ctx* tc, unsigned pid, int last, int current, long elapsed_ms) {
    program_info* pg = prog(tc);
    ALERT_HUMAN(tc, "ALERT CC-RST [%s] dgram:%llu last/current=%d/%d pid=%u delta_ms=%ld at %s\n",
                source(tc), pg->last_seg_idx, last, current, pid, elapsed_ms, ptag(tc));
    ALERT_MACHINE(tc, "ALERT CC-RST %s %u %llu %d %d %ld %s\n", source(tc), pid, pg->last_seg_idx,
                  last, current, elapsed_ms, ptag(tc));
    pg->alert.cc_reset++;
}

void alert_cc_mlr(tsan_ctx* tc) {
    // intended: no line feed, the next line of the log continues behind it.
    ALERT_HUMAN(tc, "ALERT CC-MLR [%s] dgram:%llu count=%d at %s", source(tc),
                prog(tc)->last_seg_idx, tc->last_cca.nmlr, ptag(tc));
    ALERT_MACHINE(tc, "ALERT CC-MLR %s %llu %d %s\n", source(tc), prog(tc)->last_seg_idx,
                  tc->last_cca.nmlr, ptag(tc));
    tc->gac.cc_mlr++;
}

// ---- PCR ---------------------------------------------------------------------------------------

// intended: the packet that carried the PCR is quoted in front of the current one.
void dump_pcr_diff(tsan_ctx* tc, stamp which, u64 delta_ms, const stream_info* si) {
    program_info* pg = prog(tc);
    const stream_info* pcr_stream = pg->pcr_idx >= 0 ? &pg->stm[pg->pcr_idx] : nullptr;
    const char* name = stamp_name(which);
    const u64 value = last_stamp(si, which);
    ALERT_HUMAN(tc,
                "ALERT PCR-DELTA [%s] pcr:%s <> %s:%s %c:pcr(pid%u)/%c:%s(pid%u) = %llu [%s]/ "
                "%llu [%s] delta=%llu\n",
                source(tc), name, pg->pcr_ptag, ptag(tc), pcr_stream ? pcr_stream->stype : 'P',
                pcr_stream ? pcr_stream->pid : pg->pcr_pid, si->stype, name, si->pid, pg->last_pcr,
                time_text(pg->last_pcr / 90).text, value, time_text(value / 90).text, delta_ms);
    ALERT_MACHINE(tc, "ALERT PCR-DELTA %s %s %u %llu %u %llu %llu [%s]\n", source(tc), name,
                  pg->pcr_pid, pg->last_pcr, si->pid, value, delta_ms, ptag(tc));
    pg->alert.pcr_delta++;
}

// intended: the time texts are made of the 90 kHz values as if they were milliseconds.
void alert_pcr_freq(tsan_ctx* tc, u64 pcr, u64 gap_ms) {
    program_info* pg = prog(tc);
    ALERT_HUMAN(tc, "ALERT PCR-FREQ pid=%u old/new: %llu [%s]/%llu [%s] delta=%llu\n", pg->pcr_pid,
                pg->last_pcr, time_text(pg->last_pcr).text, pcr, time_text(pcr).text, gap_ms);
    ALERT_MACHINE(tc, "ALERT PCR-FREQ %s %u %llu %llu %llu [%s]\n", source(tc), pg->pcr_pid,
                  pg->last_pcr, pcr, gap_ms, ptag(tc));
    pg->alert.pcr_freq++;
}

// ---- time stamps -------------------------------------------------------------------------------

// The caller counts: here only `name` tells AV-DELTA0 from AV-DELTA+.
void dump_time_info(tsan_ctx* tc, const char* name, stamp which, u64 delta_ms,
                    const stream_info* ref, const stream_info* si) {
    const program_info* pg = prog(tc);
    const char* word = stamp_name(which);
    const u64 ref_value = last_stamp(ref, which);
    const u64 value = last_stamp(si, which);
    ALERT_HUMAN(tc,
                "ALERT %s [%s] %s %c:%s(pid%u)/%c:%s(pid%u) = %llu [%s]/%llu [%s] PCR=%llu [%s], "
                "delta=%llu\n",
                name, source(tc), ptag(tc), ref->stype, word, ref->pid, si->stype, word, si->pid,
                ref_value, time_text(ref_value / 90).text, value, time_text(value / 90).text,
                pg->last_pcr, time_text(pg->last_pcr / 90).text, delta_ms);
    ALERT_MACHINE(tc, "ALERT %s %s %s %u %llu %u %llu %llu [%s]\n", name, source(tc), word,
                  ref->pid, ref_value, si->pid, value, delta_ms, ptag(tc));
}

// ---- no data -----------------------------------------------------------------------------------

// intended: counted in the program of the current packet, not in the one that owns the stream;
// only without a current program does the owner count it.
void alert_ndat_pcount(tsan_ctx* tc, std::size_t ipg, std::size_t istm, unsigned pid) {
    ALERT_HUMAN(tc, "ALERT PID-NDAT [%s] %zu:%zu pid%u received no data %s\n", source(tc), ipg,
                istm, pid, ptag(tc));
    ALERT_MACHINE(tc, "ALERT PID-NDAT %s %u %zu %zu %s\n", source(tc), pid, ipg, istm, ptag(tc));
    (prog(tc) ? prog(tc) : &tc->pg[ipg])->alert.pid_ndat++;
}
