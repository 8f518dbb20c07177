#include <gtest/gtest.h>

#include "inputs/moment.h"
#include "inputs/pace.h"

namespace quarn::inputs {
namespace {

constexpr std::int64_t ms = ns_per_ms;

TEST(StampClock, is_not_moved_by_steps_of_the_wall_clock) {
    constexpr std::int64_t wall = 1'700'000'000'000 * ms; // where the wall clock stands at 0
    StampClock clock;
    clock.sample({1000 * ms, wall + 1000 * ms});
    EXPECT_EQ(clock.monotonic_ns(wall + 990 * ms, 900 * ms, 1000 * ms), 990 * ms);
    for (const std::int64_t step : {3'600'000 * ms, -3'600'000 * ms, 500 * ms}) {
        StampClock stepped = clock;
        // The clock was set between the last turn and this one; both kinds of stamps are read.
        stepped.sample({1010 * ms, wall + 1010 * ms + step});
        EXPECT_EQ(stepped.monotonic_ns(wall + 1003 * ms, 990 * ms, 1010 * ms), 1003 * ms) << step;
        EXPECT_EQ(stepped.monotonic_ns(wall + 1007 * ms + step, 1003 * ms, 1010 * ms), 1007 * ms);
        // It was set after this turn began: the stamp is from behind a step that is not known yet.
        const std::int64_t early = clock.monotonic_ns(wall + 1007 * ms + step, 990 * ms, 1010 * ms);
        EXPECT_GE(early, 990 * ms);
        EXPECT_LE(early, 1010 * ms);
    }
}

TEST(Pace, follows_the_clock_and_no_jump_of_it) {
    constexpr Ticks tick_ms = 27'000;
    constexpr Ticks wrap = (Ticks{1} << 33) * 300;
    // Ten packets from one PCR to the next, 10 ms at first.
    const struct {
        const char* name;
        std::vector<Ticks> pcrs;   // in ms
        std::vector<Ticks> due_ms; // of the packets with them, from the first of them on
    } cases[] = {
        {"even", {1000, 1010, 1020}, {0, 10, 20}},
        {"slower", {1000, 1010, 1050, 1090}, {0, 10, 50, 90}},
        {"wraps", {wrap / tick_ms - 5, wrap / tick_ms + 5, wrap / tick_ms + 15}, {0, 10, 20}},
        {"back", {1000, 1010, 400, 410}, {0, 10, 20, 30}},
        {"ahead", {1000, 1010, 9000, 9010}, {0, 10, 20, 30}},
        {"silent_for_a_while", {1000, 1010, 1500, 1510}, {0, 10, 500, 510}},
    };
    for (const auto& one : cases) {
        Pace pace(0, tick_ms);
        std::vector<Ticks> due;
        for (const Ticks pcr : one.pcrs)
            due.push_back(pace.run(10, pcr * tick_ms % wrap).at(9));
        for (std::size_t i = 0; i < due.size(); ++i)
            EXPECT_NEAR(static_cast<double>(due[i] - due[0]),
                        static_cast<double>(one.due_ms[i] * tick_ms), 2.0)
                << one.name << " " << i;
    }
    // Packets that did not wait for a PCR are made up for at the next one.
    Pace pace(0, 2.0 * tick_ms);
    const Ticks first = pace.run(1, 0).at(0);
    pace.run(10, 10 * tick_ms);
    EXPECT_NEAR(static_cast<double>(pace.run(10, {}).at(9) - first), 20.0 * tick_ms, 2.0);
    EXPECT_NEAR(static_cast<double>(pace.run(10, 40 * tick_ms).at(9) - first), 40.0 * tick_ms, 2.0);
}

} // namespace
} // namespace quarn::inputs
