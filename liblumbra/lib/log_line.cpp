// The line: building it in the one shared buffer, and writing it to every destination of a
// context. Called through LOG and log_machine by every module that logs. Owns g_outbuf.
#include "log.h"

#include <cassert>
#include <charconv>
#include <cstring>
#include <string_view>
#include <syslog.h>

#include "log_internal.h"
#include "timeop.h"

constinit char g_outbuf[LOG_OUTBUF_MAX] = {};

namespace {
// Errors in building a line are told under the name of the operation, whichever step met them.
constexpr const char* PREPARE = "logbuf_prepare";

// The free end of g_outbuf.
struct line_end {
    char* pos;
    std::size_t room; // bytes from pos on
};
} // namespace

void logbuf_reset() {
    g_outbuf[0] = '\0';
}

bool logbuf_empty() {
    return g_outbuf[0] == '\0';
}

// ---- building ----------------------------------------------------------------------------------

static int flags2clock(std::uint32_t flags, clockid_t* clk) {
    const unsigned timer = flags & TMF_CLOCK_MASK;
    switch (timer) {
    case TMF_REAL:
        *clk = CLOCK_REALTIME;
        return 0;
    case TMF_MONOTONIC:
        *clk = CLOCK_MONOTONIC;
        return 0;
    default:
        fprintf(stderr, "%s: unsupported timer value: %u\n", __func__, timer);
        return -1;
    }
}

// Adds a field and two blanks: the field ends in one, the other takes the place of its NUL.
static int put_field(line_end* line, const char* what, std::string_view text) {
    const std::size_t len = text.size() + 1;
    if (len >= line->room) {
        const int n = static_cast<int>(len);
        fprintf(stderr, "%s: %s buffer error (n=%d)", PREPARE, what, n);
        return -1;
    }
    memcpy(line->pos, text.data(), text.size());
    memcpy(line->pos + text.size(), "  ", sizeof("  "));
    line->pos += len + 1;
    line->room -= len + 1;
    return 0;
}

static int put_time(line_end* line, const log_ctx* log) {
    clockid_t clk;
    if (flags2clock(log->time_format, &clk) != 0)
        return -1;
    timespec now;
    if (clock_gettime(clk, &now) != 0) {
        perror("clock_gettime");
        return -1;
    }
    const ssize_t len = mk_timestr(&now, log->time_format, line->pos, line->room);
    if (len < 1 || static_cast<std::size_t>(len) >= line->room) {
        const int n = static_cast<int>(len);
        fprintf(stderr, "%s: time buffer error (n=%d)\n", PREPARE, n);
        logbuf_reset();
        return -1;
    }
    line->pos += len;
    *line->pos++ = ' ';
    *line->pos = '\0';
    line->room -= static_cast<std::size_t>(len) + 1;
    return 0;
}

static int put_pid(line_end* line, pid_t pid) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), pid).ptr;
    return put_field(line, "pid", {digits, static_cast<std::size_t>(end - digits)});
}

static int put_group(line_end* line, const log_ctx* log) {
    // clang-format off
    assert(0 == log->group.sym8[sizeof(log->group.sym8)-1]);
    // clang-format on
    return put_field(line, "group", log->group.sym8);
}

// Adds everything that stands before the message.
static int put_prefix(line_end* line, const log_ctx* log, int level) {
    if ((log->time_format & TMF_NONE) == 0) {
        if (put_time(line, log) != 0)
            return -1;
        if (log->pid >= 1 && put_pid(line, log->pid) != 0)
            return -1;
    }
    if (level > MIN_level && put_field(line, "level", level_tag(level)) != 0)
        return -1;
    return log->group.num64 != 0 ? put_group(line, log) : 0;
}

int logbuf_vprepare(log_ctx* log, int level, const char* fmt, va_list ap) {
    line_end line = {g_outbuf, sizeof(g_outbuf) - 1};
    if (put_prefix(&line, log, level) != 0)
        return -1;
    const int n = vsnprintf(line.pos, line.room, fmt, ap);
    if (n <= 0 || static_cast<std::size_t>(n) >= line.room) {
        perror("fprintf/vfprintf");
        return -1;
    }
    return n;
}

int logbuf_prepare(log_ctx* log, int level, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = logbuf_vprepare(log, level, fmt, ap);
    va_end(ap);
    return n;
}

// ---- writing -----------------------------------------------------------------------------------

// Streams without a descriptor (memory streams) are told apart by themselves.
static bool same_output(FILE* a, FILE* b) {
    if (a == b)
        return true;
    const int fd = fileno(a);
    return fd != -1 && fd == fileno(b);
}

// A stream that takes no more (full, closed, reader gone) loses the line and nothing else.
static void write_streams(log_ctx* log) {
    if (log->fp != nullptr) {
        const sigpipe_guard guard(log->is_pipe);
        fputs(g_outbuf, log->fp);
        log->total_out += strlen(g_outbuf);
    }
    if (log->mirror_fp != nullptr && (log->fp == nullptr || !same_output(log->mirror_fp, log->fp)))
        fputs(g_outbuf, log->mirror_fp);
}

void log_flush(log_ctx* log, int level) {
    if (logbuf_empty())
        return;
    write_streams(log);
    if (g_sigctx != 0) // neither syslog nor rotation is safe in a signal handler
        return;
    if (level < 0 && log->syslg.enabled)
        syslog(syslog_priority(level) | log->syslg.facility, "%s", g_outbuf);
    if (log->fp != nullptr && !is_std_stream(log->fp))
        rotate_if_due(log);
}

void log_lard(log_ctx* log, int level) {
    if (!lard_enabled(log) || logbuf_empty())
        return;
    log->lh->lard_puts(log->lh->opaque, g_outbuf);
    if (level < 0)
        log->lh->lard_set_temp(log->lh->opaque, -level);
}

// ---- emission ----------------------------------------------------------------------------------

void log_emit(log_ctx* log, const loglevel_ctx& ll, int level, const char* fmt, ...) {
    va_list ap;
    logbuf_reset();
    if (lard_enabled(log)) {
        va_start(ap, fmt);
        logbuf_vprepare(log, level, fmt, ap);
        va_end(ap);
        log_lard(log, level);
    }
    if (!log_level_passes(ll, level))
        return;
    if (logbuf_empty()) {
        va_start(ap, fmt);
        logbuf_vprepare(log, level, fmt, ap);
        va_end(ap);
    }
    log_flush(log, level); // a line that was cut is still worth having
}

void log_machine(log_ctx* log, const char* fmt, ...) {
    logbuf_reset();
    va_list ap;
    va_start(ap, fmt);
    const int n = logbuf_vprepare(log, MIN_level, fmt, ap);
    va_end(ap);
    if (n > 0)
        log_flush(log, MIN_level);
}
