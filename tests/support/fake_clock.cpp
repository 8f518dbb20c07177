// fake_clock.cpp - see fake_clock.h. The linker option --wrap sends the calls here
// (tests/CMakeLists.txt); one fake clock at a time.
#include "fake_clock.h"

#include <cassert>
#include <cerrno>

namespace {

struct clock_state {
    bool engaged;
    timespec monotonic;
    timespec real;
    int error;
    unsigned long reads;
};
constinit clock_state g_clock{};

void add_ms(timespec& t, long ms) {
    t.tv_sec += ms / 1000;
    t.tv_nsec += ms % 1000 * 1000000;
    if (t.tv_nsec >= 1000000000) {
        t.tv_sec++;
        t.tv_nsec -= 1000000000;
    }
}

} // namespace

// On 32-bit platforms with 64-bit time the C library's own names differ from the ones in the
// source, and the linker sees only those.
#if defined(__USE_TIME_BITS64) && __WORDSIZE == 32
#define REAL_GETTIME "__real___clock_gettime64"
#define WRAP_GETTIME "__wrap___clock_gettime64"
#define REAL_TIME "__real___time64"
#define WRAP_TIME "__wrap___time64"
#else
#define REAL_GETTIME "__real_clock_gettime"
#define WRAP_GETTIME "__wrap_clock_gettime"
#define REAL_TIME "__real_time"
#define WRAP_TIME "__wrap_time"
#endif

extern "C" {
int real_clock_gettime(clockid_t id, timespec* out) __asm__(REAL_GETTIME);
time_t real_time(time_t* out) __asm__(REAL_TIME);
int wrap_clock_gettime(clockid_t id, timespec* out) __asm__(WRAP_GETTIME);
time_t wrap_time(time_t* out) __asm__(WRAP_TIME);

int wrap_clock_gettime(clockid_t id, timespec* out) {
    if (!g_clock.engaged) {
        return real_clock_gettime(id, out);
    }
    g_clock.reads++;
    if (g_clock.error != 0) {
        errno = g_clock.error;
        return -1;
    }
    const bool is_real = id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE;
    *out = is_real ? g_clock.real : g_clock.monotonic;
    return 0;
}

time_t wrap_time(time_t* out) {
    if (!g_clock.engaged) {
        return real_time(out);
    }
    g_clock.reads++;
    if (out != nullptr) {
        *out = g_clock.real.tv_sec;
    }
    return g_clock.real.tv_sec;
}
} // extern "C"

fake_clock::fake_clock() {
    assert(!g_clock.engaged);
    g_clock = {
        .engaged = true, .monotonic = START_MONOTONIC, .real = START_REAL, .error = 0, .reads = 0};
}

fake_clock::~fake_clock() {
    g_clock = {};
}

void fake_clock::set_monotonic(timespec now) {
    g_clock.monotonic = now;
}

void fake_clock::set_real(timespec now) {
    g_clock.real = now;
}

void fake_clock::advance_ms(long ms) {
    assert(ms >= 0);
    add_ms(g_clock.monotonic, ms);
    add_ms(g_clock.real, ms);
}

void fake_clock::fail(int err) {
    g_clock.error = err;
}

unsigned long fake_clock::reads() const {
    return g_clock.reads;
}
