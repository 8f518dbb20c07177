// ndat.cpp - streams that the tables list and that never receive a packet. Called by intake while a
// scan is due, by the tables when they change, and by hosts at the end. Owns nothing.
//
// In quotes the transcript that shows it.
//  1. A scan is due when the current program has received max_ndat_pcount packets more than when it
//     was armed: at the start, by a changed table, by a scan that found silence.  "no data"
//  2. It reports every stream of every program that never had a packet, as PID-NDAT.  "no data"
//  3. A scan that finds none ends the scans until the tables change.  "no data"
//  4. A host may ask for a scan at any time; it arms the next one even if max_ndat_pcount is 0.
//     "a forced scan", "an index that is set counts from the next packet on"
//  5. Without a current program (a PAT is being merged, the last packet belonged to none) its
//     packet count reads as 0.  "a forced scan"
//  6. A distance that cannot be counted is never reached.  "a deadline that is never reached"
#include "alert.h"
#include "checks.h"

LOG_MODULE(0);

static u64 program_pcount(const tsan_ctx* tc) {
    return prog(tc) ? prog(tc)->stat.pcount : 0;
}

// The packet count of the next scan.
static u64 next_scan(const tsan_ctx* tc) {
    u64 due = 0;
    const bool endless = __builtin_add_overflow(program_pcount(tc), tc->cfg.max_ndat_pcount, &due);
    return endless ? ~u64{0} : due;
}

void reset_ndat_pcount(tsan_ctx* tc) {
    if (tc->cfg.max_ndat_pcount == 0)
        return;
    tc->ndat_pcount = next_scan(tc);
    LOG(&g_log, DEBUG_level, "%s: (%p) NDAT pcount=%llu\n", __func__, static_cast<void*>(tc),
        tc->ndat_pcount);
}

void check_pcount(tsan_ctx* tc, bool force) {
    if (!force && program_pcount(tc) < tc->ndat_pcount)
        return;
    std::size_t silent = 0;
    std::size_t streams = 0;
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        const program_info& pg = tc->pg[i];
        for (std::size_t j = 0; j < pg.nstreams; j++) {
            streams++;
            if (pg.stm[j].pcount != 0)
                continue;
            silent++;
            alert_ndat_pcount(tc, i, j, pg.stm[j].pid);
        }
    }
    if (silent == 0) {
        tc->ndat_pcount = 0;
        LOG(&g_log, NORM_level, "[%s] %zu tracks receiving data\n", source(tc), streams);
        return;
    }
    LOG(&g_log, WARN_level, "[%s] %zu tracks NOT receiving data\n", source(tc), silent);
    reset_ndat_pcount(tc);
    // intended: armed again even when the deadline is switched off; the next packet then scans.
    tc->ndat_pcount = next_scan(tc);
}

void tsan_check_ndat(tsan_t tc) {
    check_pcount(tc, true);
}
