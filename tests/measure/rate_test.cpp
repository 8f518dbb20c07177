// Constant or variable, and which rate: rows of intervals between PCRs.
#include <cmath>
#include <cstdint>
#include <functional>

#include <gtest/gtest.h>

#include "measure/rate.h"

namespace quarn {
namespace {

struct Interval {
    double packets = 0;
    double ticks = 0;
    double copies = 0; // that a network has added
};
using Intervals = std::function<Interval(int)>;

constexpr double tpp = 13'536; // 3 Mbit/s

void feed(Rate& rate, int from, int to, const Intervals& intervals) {
    for (int i = from; i < to; ++i) {
        const Interval one = intervals(i);
        rate.add(static_cast<std::uint64_t>(one.packets + one.copies),
                 static_cast<std::uint64_t>(one.packets), std::llround(one.ticks));
    }
}

/// 20 to 49 packets, in no order.
double some(int i) {
    return 20 + i % 30 * 7919 % 30;
}
Interval even(int i) {
    return {some(i), some(i) * tpp};
}
Intervals even_of(double ticks_per_packet) {
    return [=](int i) { return Interval{some(i), some(i) * ticks_per_packet}; };
}
/// Every 33 ms, however many packets there are.
Interval uneven(int i) {
    return {some(i), 33.0 * ticks_per_ms};
}
/// So many of each ten are even, the others off by some ms: early and late in turns, or all late.
Intervals off(int even_ones, double ms, bool in_turns) {
    return [=](int i) {
        Interval one = even(i);
        if (i % 10 >= even_ones)
            one.ticks += ms * ticks_per_ms * (in_turns && i % 2 == 0 ? -1 : 1);
        return one;
    };
}

TEST(Rate, IsConstantOrVariable) {
    enum Answer { open, constant, variable };
    const struct {
        const char* name;
        Intervals intervals;
        int count;
        bool at_end; // nothing more comes
        Answer answer;
        double ticks; // a packet, within what fits; 0: whatever
    } rows[] = {
        {"none", even, 0, true, open, 0},
        {"too few", even, 39, false, open, tpp},
        {"enough", even, 40, false, constant, tpp},
        {"few, and no more", even, 8, true, constant, tpp},
        {"too few for anything", even, 7, true, variable, tpp},
        {"varies", uneven, 40, false, variable, 0},
        {"varies for long", uneven, 5000, false, variable, 33.0 * ticks_per_ms / 34},
        {"few that vary", uneven, 20, true, variable, 0},
        {"some late", off(7, 20, false), 1000, false, constant, tpp},
        {"half of them late", off(5, 20, false), 1000, false, variable, 0},
        {"jitter to both sides", off(4, 3, true), 1000, false, constant, tpp},
        {"jitter, too short to tell", off(4, 3, true), 99, false, variable, 0},
        {"jitter to one side", off(4, 3, false), 1000, false, variable, 0},
        {"jitter beyond networks", off(4, 9, true), 1000, false, variable, 0},
        {"copies",
         [](int i) {
             Interval one = even(i);
             one.copies = i % 2;
             return one;
         },
         1000, false, constant, tpp},
        {"a PCR a packet, and crowds between",
         [](int i) {
             return Interval{i % 10 == 0 ? 400.0 : 1.0, tpp};
         },
         1000, false, variable, 0},
        {"the same in few",
         [](int i) {
             return Interval{i % 10 == 0 ? 400.0 : 1.0, tpp};
         },
         30, true, variable, 0},
        {"a crowd now and then",
         [](int i) {
             return Interval{i % 50 == 0 ? 400.0 : 1.0, tpp};
         },
         1000, false, constant, tpp},
        {"no time or no packets between",
         [](int i) {
             return i % 2 == 0 ? even(i / 2) : Interval{i % 3 * 30.0, i % 3 ? -9.0 : 9.0};
         },
         80, false, constant, tpp},
        // By 1 % over ten million packets: no interval is off by a twentieth of a packet from what
        // the last million say.
        {"slow drift",
         [](int i) {
             Interval one = even(i);
             one.ticks *= 1 + i * 34.5e-9;
             return one;
         },
         290'000, false, constant, tpp * 1.01},
    };
    for (const auto& row : rows)
        for (const bool live : {false, true}) {
            Rate rate(live);
            feed(rate, 0, row.count, row.intervals);
            if (row.at_end)
                rate.decide_now();
            const Answer answer = !rate.decided() ? open : rate.constant() ? constant : variable;
            EXPECT_EQ(answer, row.answer) << row.name;
            EXPECT_EQ(rate.known(), row.count > 0) << row.name;
            if (row.ticks != 0) {
                EXPECT_NEAR(rate.ticks_per_packet() / row.ticks, 1, 0.05 / 34.5) << row.name;
            }
        }
}

TEST(Rate, FollowsAnotherRate) {
    const struct {
        const char* name;
        int before; // intervals at the first rate
        bool live;
        bool segment; // the clock goes on in a new one
        int behind;   // intervals at twice the rate
        bool constant;
        double ticks;
    } rows[] = {
        {"in a new segment", 5000, false, true, 50, true, tpp / 2},
        {"not of a few in a new segment", 5000, false, true, 9, true, tpp},
        {"live", 5000, true, false, 110, true, tpp / 2},
        {"live after days", 300'000, true, false, 110, true, tpp / 2},
    };
    for (const auto& row : rows) {
        Rate rate(row.live);
        feed(rate, 0, row.before, even);
        EXPECT_TRUE(rate.certain()) << row.name;
        if (row.segment)
            rate.new_segment();
        feed(rate, 0, row.behind, even_of(tpp / 2));
        EXPECT_EQ(rate.constant(), row.constant) << row.name;
        EXPECT_NEAR(rate.ticks_per_packet() / row.ticks, 1, 0.001) << row.name;
    }
}

TEST(Rate, IsCertainWhileNearlyAllOfTheLastIntervalsFit) {
    for (const int late : {3, 4}) {
        Rate rate;
        feed(rate, 0, 1000, even);
        feed(rate, 0, late, [](int i) { return Interval{some(i), some(i) * tpp * 2}; });
        feed(rate, 0, 40 - late, even);
        EXPECT_EQ(rate.certain(), late == 3);
        feed(rate, 0, 1, even); // the first of the late ones is long ago
        EXPECT_TRUE(rate.certain());
    }
}

TEST(Rate, KeepsTheUsualFiguresForAnotherClock) {
    Rate rate;
    feed(rate, 0, 500, [](int i) {
        return Interval{i % 5 == 0 ? 90.0 : 30.0, (i % 5 == 0 ? 90.0 : 30.0) * tpp};
    });
    EXPECT_EQ(rate.usual_distance(), std::llround(30 * tpp));
    rate.anew();
    EXPECT_FALSE(rate.decided() || rate.constant() || rate.certain());
    EXPECT_NEAR(rate.ticks_per_packet(), tpp, 1);
    EXPECT_EQ(rate.usual_distance(), std::llround(30 * tpp));
    feed(rate, 0, 40, even_of(2 * tpp));
    EXPECT_TRUE(rate.constant());
    EXPECT_NEAR(rate.ticks_per_packet(), 2 * tpp, 1);
}

TEST(Rate, RemembersThePeakForAWhile) {
    Rate rate;
    feed(rate, 0, 100, even);
    feed(rate, 0, 1, even_of(tpp / 4));
    EXPECT_NEAR(rate.fewest_ticks_per_packet(), tpp / 4, 1);
    feed(rate, 0, 40, even);
    EXPECT_LT(rate.fewest_ticks_per_packet(), tpp / 3);
    feed(rate, 0, 300, even);
    EXPECT_NEAR(rate.fewest_ticks_per_packet(), tpp, 1);
}

} // namespace
} // namespace quarn
