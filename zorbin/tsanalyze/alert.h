// alert.h - the words of every alert: one operation for each, called by whoever has found the
// fault. Each writes the human line, then the machine line, and counts in the current program
// (PAT-DIFF and CC-MLR in the context). Distances are in ms, clock values in units of 90 kHz.
#pragma once

#include "context.h"

// `count` is that of all entries of the new PMT, the line's other one only of streams followed.
void alert_pat_diff(tsan_ctx* tc, std::size_t nadded, std::size_t ndel);
void alert_pmt_diff(tsan_ctx* tc, unsigned pid, const ctxt_spec* new_txt, std::size_t count,
                    unsigned pcr_pid);
void alert_cc_break(tsan_ctx* tc, unsigned pid, int last, int current);
void alert_cc_rst(tsan_ctx* tc, unsigned pid, int last, int current, long elapsed_ms);
void alert_cc_mlr(tsan_ctx* tc);
void alert_pcr_freq(tsan_ctx* tc, u64 pcr, u64 gap_ms);
void dump_pcr_diff(tsan_ctx* tc, stamp which, u64 delta_ms, const stream_info* si);
// AV-DELTA0 or AV-DELTA+, by `name`; the caller counts.
void dump_time_info(tsan_ctx* tc, const char* name, stamp which, u64 delta_ms,
                    const stream_info* ref, const stream_info* si);
// Without a current program the one that owns the stream counts.
void alert_ndat_pcount(tsan_ctx* tc, std::size_t ipg, std::size_t istm, unsigned pid);
