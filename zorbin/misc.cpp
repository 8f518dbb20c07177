// misc.cpp - aggregates, captured text and time texts. Called by every part of the analyzer that
// measures, renders a table or writes an alert. Owns nothing: callers own the structures.
#include "misc.h"

#include <cassert>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "syswrap.h"

LOG_MODULE(0);

static constexpr ssize_t MIN_LEFT = 16; // bytes that must be free for a further line

void inc_aval(aggr_val* a, u64 v) {
    if (a->g_count == 0) {
        a->min = a->max = a->g_min = a->g_max = v;
    } else if (a->count == 0) {
        // intended: a value that opens a period leaves the run's extremes to its successor.
        a->min = a->max = v;
    } else {
        if (v < a->min)
            a->min = v;
        if (v > a->max)
            a->max = v;
        if (a->min < a->g_min)
            a->g_min = a->min;
        if (a->max > a->g_max)
            a->g_max = a->max;
    }
    a->count++;
    a->g_count++;
    a->total += v;
    a->g_total += v;
}

void reset_aval(aggr_val* a) {
    a->count = a->total = a->min = a->max = 0;
}

void dump_aval(FILE* out, const char* name, const aggr_val* a) {
    const double avg = static_cast<double>(a->total) / static_cast<double>(a->count);
    const double g_avg = static_cast<double>(a->g_total) / static_cast<double>(a->g_count);
    std::fprintf(out,
                 "%s:\t\tlocal-avg  = %.02f (V=%llu/N=%llu) min(V)/max(V)=%llu/%llu, "
                 "global-avg = %.02f (V=%llu/N=%llu) min(V)/max(V)=%llu/%llu\n",
                 name, avg, a->total, a->count, a->min, a->max, g_avg, a->g_total, a->g_count,
                 a->g_min, a->g_max);
}

int open_ctxt(ctxt_spec* s, ssize_t size) {
    s->buf = static_cast<char*>(W_calloc(__func__, 1, static_cast<std::size_t>(size)));
    if (!s->buf)
        return -1;
    s->buflen = size;
    s->textlen = 0;
    return 0;
}

void close_ctxt(ctxt_spec* s) {
    std::free(s->buf);
    *s = {};
}

void replace_ctxt(ctxt_spec* dst, ctxt_spec* src) {
    close_ctxt(dst);
    *dst = *src;
    *src = {};
}

void add_ctxt_line(void* opaque, const char* fmt, ...) {
    auto* s = static_cast<ctxt_spec*>(opaque);
    const ssize_t room = s->buflen - s->textlen - 2; // a newline and one byte more stay free
    if (room < MIN_LEFT) {
        LOG(&g_log, WARN_level, "%s: PMT buffer may overflow, %zd bytes left\n", __func__, room);
        return;
    }
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(s->buf + s->textlen, static_cast<std::size_t>(room), fmt, args);
    va_end(args);
    // intended: a line that is cut keeps the NUL that ended it, in front of its line feed.
    if (n > 0)
        s->textlen += n < room ? n : room;
    assert(s->textlen < s->buflen);
    s->buf[s->textlen++] = '\n';
}

int cmp_ctxt(const ctxt_spec* a, const ctxt_spec* b) {
    if (a->textlen != b->textlen)
        return 1;
    if (!a->buf || !b->buf)
        return 0;
    return std::memcmp(a->buf, b->buf, static_cast<std::size_t>(a->textlen));
}

void dump_ctxt(FILE* fp, const char* msg, const ctxt_spec* s) {
    if (!fp || !s->buf || s->textlen < 1)
        return;
    if (msg)
        std::fprintf(fp, "%s\n", msg);
    std::fwrite(s->buf, 1, static_cast<std::size_t>(s->textlen), fp);
    std::fflush(fp);
}

void ms2timestr(u64 ms, char* buf, std::size_t slen) {
    // intended: the last byte but one ends the text, and what is cut there passes the assertion.
    const ssize_t n = std::snprintf(buf, slen - 1, "%02llu:%02llu:%02llu.%03llu", ms / 3600000,
                                    ms % 3600000 / 60000, ms % 60000 / 1000, ms % 1000);
    assert(n < (ssize_t)slen);
}
