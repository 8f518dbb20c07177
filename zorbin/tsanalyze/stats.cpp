// stats.cpp - what was counted: the human statistics and the STAT lines of the access log. Called
// by hosts between packets; owns nothing.
#include <ctime>

#include "context.h"
#include "tables.h"
#include "timeop.h"

// ---- human statistics --------------------------------------------------------------------------

static void dump_totals(FILE* out, const tsan_ctx* tc) {
    std::fprintf(out, "\tProcessed/analyzed             %llu/%llu\n", tc->ptotal, tc->atotal);
    std::fprintf(out, "\tPackets start-skipped:         %llu\n", tc->pre_skipped);
    std::fprintf(out, "\tPrograms:                      %zu %s\n\n", tc->nprogs,
                 tc->nprogs >= 2 ? "(MPTS)" : "");
    std::fprintf(out,
                 "\tStream-scope ALERTS:\n"
                 "\t\tLOST-SYNC:         %llu\n"
                 "\t\tPAT-DIFF:          %llu\n"
                 "\t\tCC-MLR:            %llu\n\n",
                 tc->gac.lost_sync, tc->gac.pat_diff, tc->gac.cc_mlr);
}

static void dump_tracks(FILE* out, std::size_t i, const program_info& pg) {
    std::fprintf(out, "\t---- PRG(%zu):%zu streams, PMT(%u) PCR(%u) ----\n", i, pg.nstreams,
                 pg.curr_pmt_pid, pg.pcr_pid);
    std::fprintf(out, "\tTracks:\n");
    for (std::size_t j = 0; j < pg.nstreams; j++) {
        const stream_info& si = pg.stm[j];
        std::fprintf(out, "\t\t[%zu:%zu] %c(pid%u) [%s]: P/A: %llu/%llu\n", i, j, si.stype, si.pid,
                     stream_type_text(si.scode), si.pcount, si.acount);
    }
    std::fprintf(out, "\n");
}

static void dump_packets(FILE* out, const sa_stats& stat) {
    std::fprintf(out,
                 "\t++ Packets:\n"
                 "\t\tprocessed/analyzed:    %llu/%llu\n"
                 "\t\tprocessed V/A/S:       %llu/%llu/%llu\n"
                 "\t\tanalyzed  V/A/S:       %llu/%llu/%llu\n\n",
                 stat.pcount, stat.acount, stat.v_pcount, stat.a_pcount, stat.s_pcount,
                 stat.v_acount, stat.a_acount, stat.s_acount);
}

static void dump_alerts(FILE* out, const pg_alert_count& alert) {
    std::fprintf(out,
                 "\t++ Alerts:\n"
                 "\t\tAV delta:          %llu\n"
                 "\t\tAV zero:           %llu\n"
                 "\t\tPCR delta:         %llu\n"
                 "\t\tPCR frequency:     %llu\n"
                 "\t\tCC-BRK:            %llu\n"
                 "\t\tCC-RST:            %llu\n"
                 "\t\tPMT-DIFF:          %llu\n"
                 "\t\tPID-NDAT:          %llu\n\n",
                 alert.av_deltaplus, alert.av_delta0, alert.pcr_delta, alert.pcr_freq,
                 alert.cc_break, alert.cc_reset, alert.pmt_diff, alert.pid_ndat);
    std::fprintf(out, "\t------------------------------------------\n");
}

void tsan_dump_stats(FILE* out, tsan_t tc) {
    std::fprintf(out, "tsan_stats BEGIN\n");
    dump_totals(out, tc);
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        const program_info& pg = tc->pg[i];
        dump_tracks(out, i, pg);
        dump_packets(out, pg.stat);
        dump_alerts(out, pg.alert);
    }
    std::fprintf(out, "tsan_stats END\n");
    tc->last_stats_dumped = std::time(nullptr);
}

// ---- STAT lines --------------------------------------------------------------------------------

static void log_global_stats(const tsan_ctx* tc) {
    log_machine(&g_access_log, "STAT GLOBAL %s %ld %zu %llu %llu %llu %llu\n", source(tc),
                diff_ms(&tc->start_tm, nullptr), tc->nprogs, tc->pre_skipped, tc->gac.lost_sync,
                tc->gac.pat_diff, tc->gac.cc_mlr);
}

static void log_pmt_stats(const tsan_ctx* tc, std::size_t i) {
    const program_info& pg = tc->pg[i];
    log_machine(&g_access_log, "STAT PMTs %s %zu %u %zu\n", source(tc), i, pg.curr_pmt_pid,
                pg.nstreams);
    for (std::size_t j = 0; j < pg.nstreams; j++) {
        const stream_info& si = pg.stm[j];
        log_machine(&g_access_log, "STAT PMTi %s %zu %u %c %llu %llu [%s]\n", source(tc), i, si.pid,
                    si.stype, si.pcount, si.acount, stream_type_text(si.scode));
    }
}

// intended: the pid is that of the current packet's program, the counts are those of program i.
static void log_prg_stats(const tsan_ctx* tc, std::size_t i) {
    const sa_stats& s = tc->pg[i].stat;
    const unsigned pcr_pid = prog(tc) ? prog(tc)->pcr_pid : 0;
    log_machine(&g_access_log, "STAT PRG %s %u %llu %llu %llu %llu %llu %llu %llu %llu\n",
                source(tc), pcr_pid, s.pcount, s.acount, s.v_pcount, s.v_acount, s.a_pcount,
                s.a_acount, s.s_pcount, s.s_acount);
}

static void log_aval_stats(const char* name, const char* src, int pid, int pid2,
                           const aggr_val* a) {
    const double avg = static_cast<double>(a->total) / static_cast<double>(a->count);
    const double g_avg = static_cast<double>(a->g_total) / static_cast<double>(a->g_count);
    log_machine(&g_access_log,
                "STAT %s %s %d %d %.02f %llu %llu %llu %llu %.02f %llu %llu %llu %llu\n", name, src,
                pid, pid2, avg, a->count, a->total, a->min, a->max, g_avg, a->g_count, a->g_total,
                a->g_min, a->g_max);
}

// The pid of a program's stream, -1 when the index names none.
static int pid_of(const program_info& pg, ssize_t idx) {
    return idx < 0 ? -1 : static_cast<int>(pg.stm[idx].pid);
}

static void log_prg_deltas(const tsan_ctx* tc, std::size_t i) {
    const program_info& pg = tc->pg[i];
    const int ref_pid = pid_of(pg, pg.ref_idx);
    const int pcr_pid = pid_of(pg, pg.pcr_idx);
    if (tc->cfg.max_pdts_delta != 0)
        log_aval_stats("AV-delta", source(tc), ref_pid, -1, &pg.av_pdts_delta);
    if (tc->cfg.max_pcr_delta != 0)
        log_aval_stats("PCR-delta", source(tc), pcr_pid, -1, &pg.av_pcr_delta);
    if (tc->cfg.pcr_freq_ms != 0)
        log_aval_stats("PCR-freq", source(tc), pcr_pid, -1, &pg.av_pcr_freq);
}

static void log_alert_counters(const tsan_ctx* tc, std::size_t i) {
    const pg_alert_count& a = tc->pg[i].alert;
    log_machine(&g_access_log, "STAT ALERT-count %s %zu %llu %llu %llu %llu %llu %llu %llu\n",
                source(tc), i, a.av_deltaplus, a.av_delta0, a.pcr_delta, a.pcr_freq, a.cc_break,
                a.cc_reset, a.pid_ndat);
}

void tsan_alog_stats(tsan_t tc) {
    log_global_stats(tc);
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        if (tc->pg[i].skip_pmt_out == 0)
            log_pmt_stats(tc, i);
        tc->pg[i].skip_pmt_out++; // intended: wraps, so the PMT lines come every 256 calls
        log_prg_stats(tc, i);
        log_prg_deltas(tc, i);
        log_alert_counters(tc, i);
    }
}

// intended: without an output stream the time of the last dump stays, and every later call writes
// the STAT lines again.
int tsan_check_dump_stats(FILE* out, tsan_t tc) {
    if (tc->cfg.dump_stats_period == 0)
        return 0;
    const time_t now = std::time(nullptr);
    if (tc->last_stats_dumped == 0) {
        tc->last_stats_dumped = now;
        return 0;
    }
    if (now - tc->last_stats_dumped < static_cast<time_t>(tc->cfg.dump_stats_period))
        return 0;
    if (out)
        tsan_dump_stats(out, tc);
    tsan_alog_stats(tc);
    return 1;
}

void tsan_reset_local_stats(tsan_t tc) {
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        program_info& pg = tc->pg[i];
        reset_aval(&pg.av_pdts_delta);
        reset_aval(&pg.av_pcr_delta);
        reset_aval(&pg.av_pcr_freq);
    }
}
