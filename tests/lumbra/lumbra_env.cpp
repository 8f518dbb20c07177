// Stand-ins for the clock and syslog, put in place by the linker, and the shared fixture.
#include "lumbra_env.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "timeop.h"

fake_clock g_clock;
fake_syslog g_syslog;

static const std::optional<timespec>& fake_of(clockid_t id) {
    static const std::optional<timespec> none;
    if (id == CLOCK_REALTIME)
        return g_clock.real;
    return id == CLOCK_MONOTONIC ? g_clock.mono : none;
}

// The names under which calls of these reach the linker: on 32-bit platforms not those they have in
// the source, because time_t has 64 bits there too.
#if __WORDSIZE == 32
#define LINKED_GETTIME "__clock_gettime64"
#define LINKED_TIME "__time64"
#else
#define LINKED_GETTIME "clock_gettime"
#define LINKED_TIME "time"
#endif

extern "C" {
int real_clock_gettime(clockid_t id, timespec* tms) __asm__("__real_" LINKED_GETTIME);
time_t real_time(time_t* out) __asm__("__real_" LINKED_TIME);
int wrap_clock_gettime(clockid_t id, timespec* tms) __asm__("__wrap_" LINKED_GETTIME);
time_t wrap_time(time_t* out) __asm__("__wrap_" LINKED_TIME);

int wrap_clock_gettime(clockid_t id, timespec* tms) {
    if (!fake_of(id))
        return real_clock_gettime(id, tms);
    *tms = *fake_of(id);
    return 0;
}

time_t wrap_time(time_t* out) {
    if (!g_clock.real)
        return real_time(out);
    if (out != nullptr)
        *out = g_clock.real->tv_sec;
    return g_clock.real->tv_sec;
}

[[gnu::format(printf, 2, 0)]] static void take_syslog(int priority, const char* fmt, va_list ap) {
    char text[4096];
    vsnprintf(text, sizeof(text), fmt, ap);
    g_syslog.lines.emplace_back(priority, text);
}

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    take_syslog(priority, fmt, ap);
    va_end(ap);
}

[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    take_syslog(priority, fmt, ap);
    va_end(ap);
}

void __wrap_openlog(const char* ident, int option, int facility) {
    g_syslog.ident = ident;
    g_syslog.option = option;
    g_syslog.facility = facility;
}

void __wrap_closelog() {
    ++g_syslog.closed;
}

// A refused allocation must reach the wrapper under test instead of ending the process.
const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
}

std::string stderr_of(const std::function<void()>& call) {
    fflush(stderr);
    const int kept = dup(STDERR_FILENO);
    const int captured = memfd_create("stderr", 0);
    dup2(captured, STDERR_FILENO);
    call();
    fflush(stderr);
    dup2(kept, STDERR_FILENO);
    close(kept);
    std::string text(static_cast<std::size_t>(lseek(captured, 0, SEEK_END)), '\0');
    const ssize_t got = pread(captured, text.data(), text.size(), 0);
    close(captured);
    EXPECT_EQ(static_cast<std::size_t>(got), text.size());
    return text;
}

void use_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
    get_timezone(1);
}

void lumbra_test::SetUp() {
    char name[] = "/tmp/lumbraXXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir = name;
    g_clock = {};
    g_syslog = {};
    for (log_ctx* log : {&g_log, &g_access_log, &g_stats_log})
        *log = {};
    g_logmod = {};
    log_pop_mlevels();
    std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), int{NORM_level});
    std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), 0);
    g_sigctx = 0;
    g_tmlock = 0;
    use_zone("UTC0");
}

void lumbra_test::TearDown() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

std::vector<std::string> lumbra_test::files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}
