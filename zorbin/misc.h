// misc.h - tools of the analyzer: running aggregates, captured text, millisecond time texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

using u64 = unsigned long long; // counters; "%llu" on every platform

// ---- aggregates --------------------------------------------------------------------------------

// A running aggregate: plain fields for the current local period, g_ fields for the whole run.
struct aggr_val {
    u64 count, g_count; // values added
    u64 total, g_total; // their sum
    u64 min, g_min;
    u64 max, g_max;
};

// Adds a value. The first value of a local period other than the first reaches g_min and g_max
// only through the next value of that period.
void inc_aval(aggr_val* a, u64 v);

// Begins a new local period.
void reset_aval(aggr_val* a);

// Writes one line with averages and extremes; averages of nothing print as the C library prints a
// NaN.
void dump_aval(FILE* out, const char* name, const aggr_val* a);

// ---- captured text -----------------------------------------------------------------------------

// Text of bounded size that a printer fills line by line. All zero: closed.
struct ctxt_spec {
    char* buf;       // owned; null when closed
    ssize_t buflen;  // capacity in bytes
    ssize_t textlen; // bytes held; no NUL is kept
};

// Allocates `size` bytes. Returns 0, or -1 when memory is short.
[[nodiscard]] int open_ctxt(ctxt_spec* s, ssize_t size);
void close_ctxt(ctxt_spec* s);

// Moves the text of `src` into `dst`, whose own is released; `src` is closed after it.
void replace_ctxt(ctxt_spec* dst, ctxt_spec* src);

// Appends one formatted line (the newline is added). `s` is a ctxt_spec: the type fits the print
// callbacks of bitstream. A line without room is dropped with a warning.
[[gnu::format(printf, 2, 3)]] void add_ctxt_line(void* s, const char* fmt, ...);

// 0 when both hold the same text or one is closed at the same length, else non-zero.
[[nodiscard]] int cmp_ctxt(const ctxt_spec* a, const ctxt_spec* b);

// Writes a heading line (may be null) and the text, and flushes. Nothing for an empty text or a
// null stream.
void dump_ctxt(FILE* fp, const char* msg, const ctxt_spec* s);

// ---- time text ---------------------------------------------------------------------------------

inline constexpr std::size_t TIMESTR_LEN = 64; // enough for every millisecond count

// Writes `ms` as hours (at least two digits, not reduced to days), minutes, seconds and
// milliseconds: "25:01:01.001". The buffer must hold the text.
void ms2timestr(u64 ms, char* buf, std::size_t slen);

// The time text of a millisecond count, for use within one statement.
struct time_text {
    char text[TIMESTR_LEN] = {};
    explicit time_text(u64 ms) { ms2timestr(ms, text, sizeof text); }
};
