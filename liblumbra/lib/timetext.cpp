// timetext.cpp - the texts of times, and stamps read back. Called by the logging module for every
// line. Owns the zone text and the text of the last second stamped.
#include "timeop.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "log.h"

LOG_MODULE(4);

constinit volatile sig_atomic_t g_tmlock = 0;

namespace {
constexpr ssize_t TIMESTR_BUSY = -35;
} // namespace

// ---- the text of a second ----------------------------------------------------------------------

namespace {
constexpr std::size_t SECOND_TEXT_MAX = 80; // six numbers of any width

// What decides how a second reads in local time, as the C library publishes it.
struct zone_key {
    long offset;
    int has_dst;
    const char* names[2];

    static zone_key current() { return {timezone, daylight, {tzname[0], tzname[1]}}; }
    bool operator==(const zone_key&) const = default;
};

// Stamps come in order and many a second, so the last second's text is nearly always the next's.
struct second_cache {
    bool filled;
    bool gmt;
    time_t second;
    zone_key zone;
    char text[SECOND_TEXT_MAX];
};
} // namespace

static constinit second_cache g_second = {};

static bool fill_second(time_t second, bool gmt) {
    tm parts;
    g_second.filled = false;
    if ((gmt ? gmtime_r(&second, &parts) : localtime_r(&second, &parts)) == nullptr)
        return false;
    snprintf(g_second.text, sizeof(g_second.text), "%04lld-%02d-%02d %02d:%02d:%02d",
             1900LL + parts.tm_year, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
             parts.tm_sec);
    g_second.second = second;
    g_second.gmt = gmt;
    g_second.zone = zone_key::current();
    g_second.filled = true;
    return true;
}

static bool second_text(time_t second, bool gmt, char (&out)[SECOND_TEXT_MAX]) {
    const bool known = g_second.filled && g_second.second == second && g_second.gmt == gmt &&
                       g_second.zone == zone_key::current();
    if (!known && !fill_second(second, gmt))
        return false;
    memcpy(out, g_second.text, sizeof(out));
    return true;
}

// ---- texts -------------------------------------------------------------------------------------

const char* get_timezone(int refresh) {
    static char zone[16];
    if (zone[0] != '\0' && refresh == 0)
        return zone;
    const time_t now = time(nullptr);
    tm parts;
    if (localtime_r(&now, &parts) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    const std::size_t n = strftime(zone, sizeof(zone) - 1, " %Z", &parts);
    if (n == 0 || n > sizeof(zone) - 1) {
        perror("strftime");
        strcpy(zone, "#ERR#");
        return nullptr;
    }
    return zone;
}

static ssize_t mk_rawstr(const timespec* tms, char* buf, std::size_t buflen) {
    const std::size_t room = buflen > 0 ? buflen - 1 : 0;
    const int n =
        snprintf(buf, room, "%lld.%06ld", static_cast<long long>(tms->tv_sec), tms->tv_nsec / 1000);
    return n < 0 || static_cast<std::size_t>(n) >= buflen ? -1 : n;
}

// Whether a text of `n` characters passes for one that fits a buffer of `buflen` bytes.
// intended: one that needs just the byte of the NUL passes and loses its last character.
static bool passes_for_fitting(int n, std::size_t buflen) {
    return n >= 0 && static_cast<std::size_t>(n) <= buflen;
}

ssize_t mk_timestr(const timespec* tms, std::uint32_t flags, char* buf, std::size_t buflen) {
    if ((flags & TMF_RAW) != 0)
        return mk_rawstr(tms, buf, buflen);
    if (g_tmlock != 0)
        return TIMESTR_BUSY;
    char second[SECOND_TEXT_MAX];
    // The flag orders only itself: without the fences the compiler may touch the cache outside.
    g_tmlock = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const bool known = second_text(tms->tv_sec, (flags & TMF_GMT) != 0, second);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    g_tmlock = 0;
    if (!known) {
        perror("gmtime_r/localtime_r");
        return -1;
    }
    // intended: the name is the local zone's with TMF_GMT too; it tells where the log was written.
    const char* zone = get_timezone(0);
    if (zone == nullptr)
        zone = "(null)";
    const int n = (flags & TMF_SECONDS) != 0
                      ? snprintf(buf, buflen, "%s%s", second, zone)
                      : snprintf(buf, buflen, "%s.%06ld%s", second, tms->tv_nsec / 1000, zone);
    if (!passes_for_fitting(n, buflen)) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n,
                static_cast<long>(buflen));
        return -1;
    }
    return n;
}

int mk_gmt_date(time_t ut, char* buf, std::size_t buflen) {
    tm parts;
    if (gmtime_r(&ut, &parts) == nullptr) {
        perror("gmtime");
        return -1;
    }
    const int n = snprintf(buf, buflen, "%04lld-%02d-%02d", 1900LL + parts.tm_year,
                           parts.tm_mon + 1, parts.tm_mday);
    if (n == 0 || !passes_for_fitting(n, buflen)) {
        LOG(&g_log, ERR_level, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__,
            n, static_cast<long>(buflen));
        return -1;
    }
    buf[buflen - 1] = '\0';
    return 0;
}

int mk_timespan(long total_sec, char* buf, std::size_t buflen) {
    const long days = total_sec / 86400;
    std::size_t used = 0;
    if (days > 0) {
        const int n = snprintf(buf, buflen, "%02ldd ", days);
        if (n == 0 || !passes_for_fitting(n, buflen))
            return -1;
        used = static_cast<std::size_t>(n);
    }
    const long hours = total_sec % 86400 / 3600;
    const long mins = total_sec % 3600 / 60;
    const long secs = total_sec % 60;
    const int n = snprintf(buf + used, buflen - used, "%02ldh:%02ldm:%02lds", hours, mins, secs);
    return n == 0 || !passes_for_fitting(n, buflen - used) ? -1 : 0;
}

time_t get_endofday_utime(time_t tstamp) {
    tm parts;
    if (localtime_r(&tstamp, &parts) == nullptr) {
        LOG(&g_log, ERR_level, "%s: localtime_r() FAILED\n", __func__);
        return -1;
    }
    const int was_dst = parts.tm_isdst;
    parts.tm_hour = 23;
    parts.tm_min = 59;
    parts.tm_sec = 59;
    parts.tm_isdst = -1; // the day may end in another season than tstamp's
    tm attempt = parts;
    const time_t end = mktime(&attempt);
    if (end >= tstamp)
        return end;
    parts.tm_isdst = was_dst; // the last hour came twice, and tstamp lies in its second pass
    return mktime(&parts);
}

// ---- reading a stamp back ----------------------------------------------------------------------

// Takes a number of `min` to `max` digits, and the character `end` behind it unless that is NUL.
static bool read_number(const char** text, int min, int max, char end, long long* out) {
    long long value = 0;
    int digits = 0;
    for (; digits < max && **text >= '0' && **text <= '9'; ++digits, ++*text)
        value = value * 10 + (**text - '0');
    if (digits < min || (end != '\0' && **text != end))
        return false;
    *text += end != '\0' ? 1 : 0;
    *out = value;
    return true;
}

static bool read_field(const char** text, int width, char end, int* out) {
    long long value;
    if (!read_number(text, width == 4 ? 4 : 2, width == 4 ? 9 : 2, end, &value))
        return false;
    *out = static_cast<int>(value);
    return true;
}

// Unix time of broken-down parts, refusing those that are no date (the library would carry them).
static bool parts2time(const tm& given, bool gmt, time_t* out) {
    tm parts = given;
    parts.tm_isdst = -1;
    parts.tm_wday = -1;
    *out = gmt ? timegm(&parts) : mktime(&parts);
    return parts.tm_wday != -1 && parts.tm_mon == given.tm_mon && parts.tm_mday == given.tm_mday &&
           given.tm_hour <= 23 && given.tm_min <= 59 && given.tm_sec <= 60;
}

static bool scan_raw(const char* text, timespec* tms) {
    const bool negative = *text == '-';
    text += negative ? 1 : 0;
    long long secs;
    long long micros;
    if (!read_number(&text, 1, 18, '.', &secs) || !read_number(&text, 6, 6, '\0', &micros) ||
        *text != '\0')
        return false;
    tms->tv_sec = static_cast<time_t>(negative ? -secs : secs);
    tms->tv_nsec = static_cast<long>(micros * 1000);
    return true;
}

static bool scan_date(const char* text, timespec* tms, std::uint32_t flags) {
    tm parts = {};
    long long micros = 0;
    const bool whole = (flags & TMF_SECONDS) != 0;
    if (!read_field(&text, 4, '-', &parts.tm_year) || !read_field(&text, 2, '-', &parts.tm_mon) ||
        !read_field(&text, 2, ' ', &parts.tm_mday) || !read_field(&text, 2, ':', &parts.tm_hour) ||
        !read_field(&text, 2, ':', &parts.tm_min) ||
        !read_field(&text, 2, whole ? '\0' : '.', &parts.tm_sec))
        return false;
    if (!whole && !read_number(&text, 6, 6, '\0', &micros))
        return false;
    if (*text != '\0' && *text != ' ')
        return false;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    time_t secs;
    if (!parts2time(parts, (flags & TMF_GMT) != 0, &secs))
        return false;
    tms->tv_sec = secs;
    tms->tv_nsec = static_cast<long>(micros * 1000);
    return true;
}

int scan_log_time(const char* text, timespec* tms, std::uint32_t flags) {
    timespec found;
    const bool ok =
        (flags & TMF_RAW) != 0 ? scan_raw(text, &found) : scan_date(text, &found, flags);
    if (!ok)
        return -1;
    *tms = found;
    return 0;
}
