// fake_clock.cpp - see fake_clock.h. The linker option --wrap sends the calls here.
#include "fake_clock.h"

#include <cassert>
#include <initializer_list>

static constinit fake_clock* current = nullptr;

// On 32-bit platforms with 64-bit time the C library's own names differ from the ones in the
// source, and the linker sees only those.
#if defined(__USE_TIME_BITS64) && __WORDSIZE == 32
#define GETTIME "__clock_gettime64"
#define TIME "__time64"
#else
#define GETTIME "clock_gettime"
#define TIME "time"
#endif

extern "C" {
int real_clock_gettime(clockid_t id, timespec* out) __asm__("__real_" GETTIME);
time_t real_time(time_t* out) __asm__("__real_" TIME);
int wrap_clock_gettime(clockid_t id, timespec* out) __asm__("__wrap_" GETTIME);
time_t wrap_time(time_t* out) __asm__("__wrap_" TIME);

int wrap_clock_gettime(clockid_t id, timespec* out) {
    if (current == nullptr)
        return real_clock_gettime(id, out);
    *out = current->read(id);
    return 0;
}

time_t wrap_time(time_t* out) {
    if (current == nullptr)
        return real_time(out);
    const time_t now = current->read(CLOCK_REALTIME).tv_sec;
    if (out != nullptr)
        *out = now;
    return now;
}
}

fake_clock::fake_clock() {
    assert(current == nullptr);
    current = this;
}

fake_clock::~fake_clock() {
    current = nullptr;
}

void fake_clock::advance_ms(long ms) {
    assert(ms >= 0);
    for (timespec* t : {&monotonic_, &real_}) {
        const long long ns = t->tv_nsec + ms * 1'000'000LL;
        t->tv_sec += ns / 1'000'000'000;
        t->tv_nsec = static_cast<long>(ns % 1'000'000'000);
    }
}

timespec fake_clock::read(clockid_t id) const {
    if (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE)
        return real_;
    assert(id == CLOCK_MONOTONIC || id == CLOCK_MONOTONIC_COARSE);
    return monotonic_;
}
