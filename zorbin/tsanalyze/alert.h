// alert.h - an operation for every alert but LOST-SYNC (tsan_alert_lostsync, tsanalyze.h), called
// by whoever has found the fault. Each writes the human line, then the machine line, and counts in
// the current program (PAT-DIFF and CC-MLR in the context). Distances are in ms, clock values in
// units of 90 kHz.
#pragma once

#include "context.h"

// PAT-DIFF
void alert_pat_diff(tsan_ctx* tc, std::size_t nadded, std::size_t ndel);

// PMT-DIFF. `count` is that of all entries of the new PMT; the count that the line sets beside it,
// the program's own, is only of streams that are followed.
void alert_pmt_diff(tsan_ctx* tc, unsigned pid, const ctxt_spec* new_txt, std::size_t count,
                    unsigned pcr_pid);

// CC-BRK, CC-RST, CC-MLR
void alert_cc_break(tsan_ctx* tc, unsigned pid, int last, int current);
void alert_cc_rst(tsan_ctx* tc, unsigned pid, int last, int current, long elapsed_ms);
void alert_cc_mlr(tsan_ctx* tc);

// PCR-FREQ; PCR-DELTA of the stamp `which` of `si`
void alert_pcr_freq(tsan_ctx* tc, u64 pcr, u64 gap_ms);
void dump_pcr_diff(tsan_ctx* tc, stamp which, u64 delta_ms, const stream_info* si);

// AV-DELTA0 or AV-DELTA+, by `name`, of the stamps `which` of `ref` and `si`; the caller counts.
void dump_time_info(tsan_ctx* tc, const char* name, stamp which, u64 delta_ms,
                    const stream_info* ref, const stream_info* si);

// PID-NDAT. Without a current program the one that owns the stream counts.
void alert_ndat_pcount(tsan_ctx* tc, std::size_t ipg, std::size_t istm, unsigned pid);
