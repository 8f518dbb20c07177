// timeop.h - reading clocks, distances and time-outs, and the texts of times.
//
// Intervals are measured on the monotonic clock:
//
//     timespec started;
//     set_now(&started);
//     ...
//     const long elapsed_ms = diff_ms(&started, nullptr); // null: now
//
// and a time-out is a test, not a timer:
//
//     const timespec tmout = {.tv_sec = 5, .tv_nsec = 0};
//     if (timed_out(&started, &tmout))
//         ...
//
// A stamp as log lines carry it:
//
//     timespec now;
//     set_real_now(&now);
//     char text[64];
//     if (mk_timestr(&now, TMF_REAL | TMF_SECONDS, text, sizeof(text)) > 0)
//         puts(text); // 2024-03-31 01:59:59 CET
//
// No function keeps or owns its arguments.
#pragma once

#include <cassert>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include <sys/types.h>

// A host must agree with the library on the width of times.
static_assert(sizeof(time_t) == 8, "compile with the flags that quarn's package names");

// ---- clocks ------------------------------------------------------------------------------------

// The coarse clocks cost less and count milliseconds only.
inline constexpr bool using_fast_clocks = false;

// Clock of a time-out test.
inline constexpr int MONOTONIC = 0;
inline constexpr int REAL_TIME = 1;

// Reads a clock. Every interval depends on it, so a clock that cannot be read ends the process.
void set_clk_now(timespec* tms, clockid_t clk_id);
void set_now(timespec* tms);      // monotonic clock
void set_real_now(timespec* tms); // real-time clock

// ---- distances ---------------------------------------------------------------------------------

#define timespeccmp(a, b, op)                                                                      \
    (((a)->tv_sec == (b)->tv_sec) ? ((a)->tv_nsec op(b)->tv_nsec) : ((a)->tv_sec op(b)->tv_sec))

inline void cpy_timespec(const timespec* from, timespec* to) {
    *to = *from;
}

// delta = later - earlier; `delta` may be either of them. Static, so that a host with NDEBUG and
// the library each have their own.
static inline void timespec_distance(const timespec* later, const timespec* earlier,
                                     timespec* delta) {
    const timespec subtrahend = *earlier;
    const timespec* pb = &subtrahend;
    *delta = *later;
    assert(timespeccmp(delta, pb, >=));
    delta->tv_sec -= pb->tv_sec;
    delta->tv_nsec -= pb->tv_nsec;
    if (delta->tv_nsec < 0) {
        --delta->tv_sec;
        delta->tv_nsec += 1'000'000'000;
    }
}

// Milliseconds, truncated; -1 if tv_sec is -1. Wraps at the width of long: on a 32-bit platform
// that is good for spans of 24 days, not for the time of day.
long tms2ms(const timespec* tms);

// delta = the distance of a and b, never negative. A null operand stands for the monotonic now.
void tspec_diff(const timespec* a, const timespec* b, timespec* delta);

// The same in milliseconds.
long diff_ms(const timespec* a, const timespec* b);

// span = till - from; a negative span has a negative tv_sec.
void calc_timespan(const timespec* from, const timespec* till, timespec* span);

// ---- time-outs ----------------------------------------------------------------------------------

// Whether now lies strictly behind last_tm + tmout. `in_real_time` is MONOTONIC or REAL_TIME and
// picks the clock unless the caller brings its own `clknow`.
bool timed_out_as(const timespec* last_tm, const timespec* tmout, int in_real_time,
                  const timespec* clknow);
bool timed_out(const timespec* last_tm, const timespec* tmout); // monotonic clock
bool timed_out_ext(const timespec* last_tm, const timespec* tmout, const timespec* clknow);
bool timed_out_real(const timespec* last_tm, const timespec* tmout); // real-time clock

enum tspan_mode : int { TSPAN_NONE = 0, TSPAN_TIME = 1, TSPAN_TICKS = 2 };

// A span that is a time or a number of a loop's ticks.
struct tspan {
    int mode; // a tspan_mode; TSPAN_NONE never times out
    union {
        timespec tms;
        std::uint32_t ticks;
    } val;
};

// Sets a span from the one of `tms` and `ticks` that `mode` asks for.
// Returns 0, or -1 with the span set to TSPAN_NONE: unknown mode, null or malformed `tms`.
int set_tspan(tspan* span, int mode, const timespec* tms, std::uint32_t ticks);

// Whether the span has passed since `last_tm` (TSPAN_TIME, monotonic clock) or, for TSPAN_TICKS,
// more than the span's ticks lie between `last_tick` and `tick`, counters that may wrap.
bool tspan_timed_out(const tspan* span, const timespec* last_tm, std::uint32_t last_tick,
                     std::uint32_t tick);

// ---- texts -------------------------------------------------------------------------------------

// Flags of a time's text, of the time stamps of log lines too (log_timefmt). The two low bits
// choose the clock that those are read from.
inline constexpr std::uint32_t TMF_REAL = 0;         // real-time clock
inline constexpr std::uint32_t TMF_MONOTONIC = 1;    // monotonic clock
inline constexpr std::uint32_t TMF_CLOCK_MASK = 3;   // 2 and 3 are refused
inline constexpr std::uint32_t TMF_SECONDS = 0x10;   // no microseconds
inline constexpr std::uint32_t TMF_NONE = 0x100;     // no time stamp, and no process id either
inline constexpr std::uint32_t TMF_GMT = 0x200;      // UTC digits; the zone name stays local
inline constexpr std::uint32_t TMF_RAW = 0x400;      // seconds and microseconds of the clock
inline constexpr std::uint32_t TMF_BAD = 0x40000000; // a format name that cannot be parsed

// Non-zero while mk_timestr is at work on what a signal handler must not touch.
extern volatile sig_atomic_t g_tmlock;

// Text of a time as its TMF_ flags want it: "%04d-%02d-%02d %02d:%02d:%02d", microseconds, a blank
// and the local zone's name, or raw seconds and microseconds. TMF_NONE and the clock bits make no
// difference. 64 bytes hold any of these texts.
// Returns the length; -1 if the text is longer than `buflen` or the time has no date; -35 from a
// signal handler that interrupted a call under way. A text of just `buflen` characters (a raw one:
// of one less) passes, but its last character is cut off.
ssize_t mk_timestr(const timespec* tms, std::uint32_t flags, char* buf, std::size_t buflen);

// Reads a text of mk_timestr with the same flags back. The zone name may be missing and is not
// looked at: the digits are UTC with TMF_GMT and local time otherwise. Returns 0, or -1 with `tms`
// untouched for any other text.
int scan_log_time(const char* text, timespec* tms, std::uint32_t flags);

// A blank and the name of the local time zone, as it was when first asked for; `refresh` non-zero
// asks the C library again. Null if it has none that fits; calls after that one give "#ERR#". The
// text is static.
const char* get_timezone(int refresh);

// "%04d-%02d-%02d" of the UTC date of Unix time `ut`. Returns 0; -1 if it has no date or the text
// is longer than `buflen`. A text of just `buflen` characters passes, cut by the last one.
int mk_gmt_date(time_t ut, char* buf, std::size_t buflen);

// "01d 02h:03m:04s" for a number of seconds, not negative; without the days if there are none.
// Returns 0, or -1 for a text longer than `buflen`. One of just `buflen` characters passes, cut by
// the last one.
int mk_timespan(long total_sec, char* buf, std::size_t buflen);

// 23:59:59 local time on the day of `tstamp`, in Unix seconds, or -1.
time_t get_endofday_utime(time_t tstamp);
