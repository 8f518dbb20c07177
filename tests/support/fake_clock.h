// fake_clock.h - sets the clocks that the code under test reads.
//
// While a fake_clock lives, clock_gettime (real-time and monotonic, coarse variants included) and
// time return what the test has set; without one they are the real clocks. The linker redirects
// the calls of everything that is linked into the test program, so shared libraries keep real time.
#pragma once

#include <ctime>

class fake_clock { // one at a time
  public:
    // Both clocks start at a value that is neither zero nor round.
    static constexpr timespec START_MONOTONIC{5000, 250000000};
    static constexpr timespec START_REAL{1700000000, 123456789};

    fake_clock();
    ~fake_clock();
    fake_clock(const fake_clock&) = delete;

    void set_monotonic(timespec now) { monotonic_ = now; }
    void set_real(timespec now) { real_ = now; }
    void advance_ms(long ms); // both clocks, forward

    timespec read(clockid_t id) const; // what the code under test gets

  private:
    timespec monotonic_ = START_MONOTONIC;
    timespec real_ = START_REAL;
};
