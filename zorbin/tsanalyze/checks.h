// checks.h - what is checked on the packets of streams: counters, clocks, time stamps, silence. The
// stream `si` belongs to the current program throughout.
#pragma once

#include "context.h"

inline constexpr int MIN_CC = 0;
inline constexpr int MAX_CC = 15; // the counter is 4 bits wide

// cc.cpp: a counter that does not follow si->cc.value; a trace line.
void cc_jump(tsan_ctx* tc, stream_info* si, int cc);
void trace_cc(tsan_ctx* tc, unsigned pid, int cc);

// pcr.cpp: a packet that carries the program's PCR; a new stamp of an audio stream against it.
void new_pcr(tsan_ctx* tc, ts_packet pkt);
void ck_pcr(tsan_ctx* tc, stamp which, const stream_info* si);

// pts.cpp: a packet in which a PES packet may start; an audio stream with a new stamp.
void new_pes(tsan_ctx* tc, ts_packet pkt);
void check_audio(tsan_ctx* tc, stream_info* si);

// ndat.cpp: sets the deadline of the next scan; scans if it is reached, or by `force`.
void reset_ndat_pcount(tsan_ctx* tc);
void check_pcount(tsan_ctx* tc, bool force);
