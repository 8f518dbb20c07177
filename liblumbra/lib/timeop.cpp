// timeop.cpp - clocks, distances and time-outs. Called by the logging module for every line and by
// the analyzer for its periods; owns nothing.
#include "timeop.h"

#include <cstdio>
#include <cstdlib>

static constexpr long NSEC_PER_SEC = 1'000'000'000;

// ---- clocks ------------------------------------------------------------------------------------

void set_clk_now(timespec* tms, clockid_t clk_id) {
    if (clock_gettime(clk_id, tms) != 0) {
        perror("clock_gettime");
        abort();
    }
}

void set_now(timespec* tms) {
    set_clk_now(tms, using_fast_clocks ? CLOCK_MONOTONIC_COARSE : CLOCK_MONOTONIC);
}

void set_real_now(timespec* tms) {
    set_clk_now(tms, using_fast_clocks ? CLOCK_REALTIME_COARSE : CLOCK_REALTIME);
}

// ---- distances ---------------------------------------------------------------------------------

long tms2ms(const timespec* tms) {
    if (tms->tv_sec == -1)
        return -1;
    // intended: wraps at the width of long; unsigned, so that the wrap is defined.
    const auto secs = static_cast<unsigned long>(tms->tv_sec);
    const auto part = static_cast<unsigned long>(tms->tv_nsec / 1'000'000);
    return static_cast<long>(secs * 1000 + part);
}

void tspec_diff(const timespec* a, const timespec* b, timespec* delta) {
    timespec now;
    if (a == nullptr || b == nullptr)
        set_now(&now);
    const timespec* pa = a != nullptr ? a : &now;
    const timespec* pb = b != nullptr ? b : &now;
    if (timespeccmp(pa, pb, <))
        timespec_distance(pb, pa, delta);
    else
        timespec_distance(pa, pb, delta);
}

long diff_ms(const timespec* a, const timespec* b) {
    timespec delta;
    tspec_diff(a, b, &delta);
    return tms2ms(&delta);
}

void calc_timespan(const timespec* from, const timespec* till, timespec* span) {
    timespec diff = {.tv_sec = till->tv_sec - from->tv_sec,
                     .tv_nsec = till->tv_nsec - from->tv_nsec};
    if (diff.tv_nsec < 0) {
        --diff.tv_sec;
        diff.tv_nsec += NSEC_PER_SEC;
    }
    *span = diff;
}

// ---- time-outs ----------------------------------------------------------------------------------

bool timed_out_as(const timespec* last_tm, const timespec* tmout, int in_real_time,
                  const timespec* clknow) {
    timespec now;
    if (clknow != nullptr)
        now = *clknow;
    else if (in_real_time != MONOTONIC)
        set_real_now(&now);
    else
        set_now(&now);

    timespec deadline;
    if (__builtin_add_overflow(last_tm->tv_sec, tmout->tv_sec, &deadline.tv_sec))
        return false; // a time-out of "for ever"
    deadline.tv_nsec = last_tm->tv_nsec + tmout->tv_nsec;
    if (deadline.tv_nsec >= NSEC_PER_SEC) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= NSEC_PER_SEC;
    }
    return timespeccmp(&now, &deadline, >);
}

bool timed_out(const timespec* last_tm, const timespec* tmout) {
    return timed_out_as(last_tm, tmout, MONOTONIC, nullptr);
}

bool timed_out_ext(const timespec* last_tm, const timespec* tmout, const timespec* clknow) {
    return timed_out_as(last_tm, tmout, MONOTONIC, clknow);
}

bool timed_out_real(const timespec* last_tm, const timespec* tmout) {
    return timed_out_as(last_tm, tmout, REAL_TIME, nullptr);
}

int set_tspan(tspan* span, int mode, const timespec* tms, std::uint32_t ticks) {
    *span = {};
    switch (mode) {
    case TSPAN_NONE:
        return 0;
    case TSPAN_TIME:
        if (tms == nullptr || tms->tv_nsec < 0 || tms->tv_nsec >= NSEC_PER_SEC)
            return -1;
        span->val.tms = *tms;
        break;
    case TSPAN_TICKS:
        span->val.ticks = ticks;
        break;
    default:
        return -1;
    }
    span->mode = mode;
    return 0;
}

bool tspan_timed_out(const tspan* span, const timespec* last_tm, std::uint32_t last_tick,
                     std::uint32_t tick) {
    switch (span->mode) {
    case TSPAN_TIME:
        return timed_out(last_tm, &span->val.tms);
    case TSPAN_TICKS:
        return tick - last_tick > span->val.ticks;
    default:
        return false;
    }
}
