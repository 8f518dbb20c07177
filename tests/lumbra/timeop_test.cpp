// Distances, time-outs, and the texts of times in several zones.
#include "lumbra_env.h"

#include <climits>

#include "timeop.h"

namespace {

using timeop_test = lumbra_test;

constexpr time_t BEFORE_SUMMER = 1711846799; // 2024-03-31 01:59:59 CET
constexpr time_t BEFORE_WINTER = 1729990799; // 2024-10-27 02:59:59 CEST

std::string stamp(timespec tms, std::uint32_t flags) {
    char buf[64];
    const ssize_t n = mk_timestr(&tms, flags, buf, sizeof(buf));
    return n < 0 ? "error " + std::to_string(n) : std::string(buf, static_cast<std::size_t>(n));
}

TEST_F(timeop_test, distance_is_never_negative) {
    const struct {
        timespec a, b, delta;
        long ms;
    } rows[] = {
        {{5, 100}, {3, 900}, {1, 999'999'200}, 1999},
        {{3, 0}, {3, 0}, {0, 0}, 0},
        {{3, 999'999'999}, {4, 0}, {0, 1}, 0},
        {{-2, 500'000'000}, {1, 250'000'000}, {2, 750'000'000}, 2750},
    };
    for (const auto& row : rows) {
        timespec forth, back = row.b;
        tspec_diff(&row.a, &row.b, &forth);
        tspec_diff(&back, &row.a, &back); // the result may replace an operand
        for (const timespec& delta : {forth, back}) {
            EXPECT_EQ(delta.tv_sec, row.delta.tv_sec);
            EXPECT_EQ(delta.tv_nsec, row.delta.tv_nsec);
        }
        EXPECT_EQ(diff_ms(&row.b, &row.a), row.ms);
    }
    g_clock.mono = {100, 0};
    const timespec then = {98, 500'000'000};
    EXPECT_EQ(diff_ms(nullptr, &then), 1500);
    EXPECT_EQ(diff_ms(&then, nullptr), 1500);
    EXPECT_EQ(diff_ms(nullptr, nullptr), 0);
    const timespec later = {2, 0}, earlier = {3, 0};
    timespec delta;
    EXPECT_DEATH(timespec_distance(&later, &earlier, &delta),
                 "^[^/]*liblumbra/include/timeop.h:.*timespeccmp\\(delta, pb, >=\\)");
}

TEST_F(timeop_test, milliseconds_and_spans) {
    const struct {
        timespec tms;
        long ms;
    } rows[] = {{{0, 999'999}, 0},       {{1, 1'999'999}, 1001}, {{-1, 0}, -1},
                {{-1, 999'999'999}, -1}, {{-3, 0}, -3000},       {{2'000'000, 0}, 2'000'000'000}};
    for (const auto& row : rows)
        EXPECT_EQ(tms2ms(&row.tms), row.ms);
    const timespec from = {5, 900}, till = {3, 100};
    timespec span;
    calc_timespan(&from, &till, &span);
    EXPECT_EQ(span.tv_sec, -3);
    EXPECT_EQ(span.tv_nsec, 999'999'200);
}

TEST_F(timeop_test, clock_that_cannot_be_read_ends_the_process) {
    timespec tms;
    EXPECT_DEATH(set_clk_now(&tms, 9999), "clock_gettime: Invalid argument");
}

TEST_F(timeop_test, time_outs) {
    const timespec last = {10, 600'000'000}, tmout = {2, 500'000'000}; // deadline 13.1
    const struct {
        timespec now;
        bool out;
    } rows[] = {{{13, 99'999'999}, false},
                {{13, 100'000'000}, false},
                {{13, 100'000'001}, true},
                {{14, 0}, true},
                {{10, 600'000'000}, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.now.tv_sec << '.' << row.now.tv_nsec);
        const timespec other = {row.out ? 0 : 99, 0}; // the clock that must not be asked
        EXPECT_EQ(timed_out_ext(&last, &tmout, &row.now), row.out);
        g_clock = {.real = other, .mono = row.now};
        EXPECT_EQ(timed_out(&last, &tmout), row.out);
        g_clock = {.real = row.now, .mono = other};
        EXPECT_EQ(timed_out_real(&last, &tmout), row.out);
    }
    const timespec whole = {2, 400'000'000}, now = {13, 0}; // the deadline itself
    EXPECT_FALSE(timed_out_ext(&last, &whole, &now));
    const timespec for_ever = {std::numeric_limits<time_t>::max(), 0};
    EXPECT_FALSE(timed_out(&last, &for_ever));
}

TEST_F(timeop_test, spans_of_time_or_ticks) {
    g_clock.mono = {20, 0};
    const timespec last = {10, 0}, nine = {9, 0}, ten = {10, 0}, bad = {0, -1};
    const struct {
        const timespec* tms;
        int mode;
        std::uint32_t ticks, last_tick, tick;
        int rc;
        bool out;
    } rows[] = {{&nine, TSPAN_NONE, 0, 0, 99, 0, false},
                {&nine, TSPAN_TIME, 0, 0, 0, 0, true},
                {&ten, TSPAN_TIME, 0, 0, 0, 0, false},
                {&bad, TSPAN_TIME, 0, 0, 0, -1, false},
                {nullptr, TSPAN_TICKS, 5, 100, 105, 0, false},
                {nullptr, TSPAN_TICKS, 5, 0xfffffffe, 4, 0, true},
                {&nine, 3, 1, 0, 99, -1, false}};
    for (const auto& row : rows) {
        tspan span;
        EXPECT_EQ(set_tspan(&span, row.mode, row.tms, row.ticks), row.rc);
        EXPECT_EQ(tspan_timed_out(&span, &last, row.last_tick, row.tick), row.out);
    }
}

TEST_F(timeop_test, stamps) {
    const struct {
        const char* tz;
        timespec tms;
        std::uint32_t flags;
        const char* text;
    } rows[] = {
        {"UTC0", {0, 1999}, 0, "1970-01-01 00:00:00.000001 UTC"},
        {"UTC0", {BEFORE_SUMMER, 0}, TMF_SECONDS, "2024-03-31 00:59:59 UTC"},
        {"<-0330>3:30", {BEFORE_SUMMER, 5000}, 0, "2024-03-30 21:29:59.000005 -0330"},
        {"<-0330>3:30", {BEFORE_SUMMER, 0}, TMF_GMT, "2024-03-31 00:59:59.000000 -0330"},
        {BERLIN, {BEFORE_SUMMER, 0}, TMF_SECONDS, "2024-03-31 01:59:59 CET"},
        {BERLIN, {BEFORE_SUMMER + 1, 0}, TMF_SECONDS, "2024-03-31 03:00:00 CET"},
        {BERLIN, {BEFORE_WINTER, 0}, TMF_SECONDS, "2024-10-27 02:59:59 CET"},
        {BERLIN, {BEFORE_WINTER + 1, 0}, TMF_SECONDS, "2024-10-27 02:00:00 CET"},
        {BERLIN, {-1, 0}, TMF_SECONDS, "1970-01-01 00:59:59 CET"},
        {BERLIN, {BEFORE_WINTER, 123'456'789}, TMF_RAW, "1729990799.123456"},
        {BERLIN, {-5, 0}, TMF_RAW | TMF_SECONDS | TMF_GMT, "-5.000000"},
    };
    g_clock.real = {1700000000, 0}; // winter: the zone's name is that of now, not of the stamp
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        use_zone(row.tz);
        EXPECT_EQ(stamp(row.tms, row.flags), row.text);
        EXPECT_EQ(stamp(row.tms, row.flags), row.text);
    }
}

// What was remembered for a second must not outlive what it was made from.
TEST_F(timeop_test, stamps_of_one_second_follow_flags_and_zone) {
    const timespec tms = {BEFORE_SUMMER, 0};
    const struct {
        const char* tz;
        std::uint32_t flags;
        const char* digits;
    } rows[] = {
        {"UTC0", 0, "2024-03-31 00:59:59"},
        {"AAA-5", 0, "2024-03-31 05:59:59"},
        {"AAA-5", TMF_GMT, "2024-03-31 00:59:59"},
        {"AAA-5", 0, "2024-03-31 05:59:59"},
        {"AAA-6", 0, "2024-03-31 06:59:59"},
        {"AAA-6BBB,0,364", 0, "2024-03-31 07:59:59"},
        {"AAA-6CCC-9,0,364", 0, "2024-03-31 09:59:59"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.tz);
        setenv("TZ", row.tz, 1);
        tzset();
        EXPECT_THAT(stamp(tms, row.flags), testing::StartsWith(row.digits));
    }
}

TEST_F(timeop_test, zone_name_is_asked_for_once) {
    setenv("TZ", "XYZ-2", 1);
    tzset();
    EXPECT_STREQ(get_timezone(0), " UTC");
    EXPECT_STREQ(get_timezone(1), " XYZ");
    stderr_of([] {
        setenv("TZ", "<ABCDEFGHIJKLMNOP>3", 1);
        tzset();
        EXPECT_EQ(get_timezone(1), nullptr);
    });
    EXPECT_STREQ(get_timezone(0), "#ERR#");
}

TEST_F(timeop_test, stamps_that_do_not_fit_or_exist) {
    const timespec tms = {BEFORE_SUMMER, 0};
    char buf[64];
    memset(buf, '!', sizeof(buf));
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(mk_timestr(&tms, TMF_SECONDS, buf, 22), -1); }),
              "mk_timestr: timestamp buffer needs 23 bytes, only 22 provided\n");
    EXPECT_EQ(mk_timestr(&tms, TMF_SECONDS, buf, 23), 23); // the last character makes room
    EXPECT_STREQ(buf, "2024-03-31 00:59:59 UT");
    EXPECT_EQ(buf[23], '!');
    EXPECT_EQ(mk_timestr(&tms, TMF_RAW, buf, 17), -1);
    EXPECT_EQ(mk_timestr(&tms, TMF_RAW, buf, 18), 17);
    EXPECT_EQ(mk_timestr(&tms, TMF_RAW, buf, 0), -1);
    EXPECT_EQ(buf[23], '!');
    const timespec never = {std::numeric_limits<time_t>::max(), 0};
    const std::string told = stderr_of([&] { EXPECT_EQ(mk_timestr(&never, 0, buf, 64), -1); });
    EXPECT_THAT(told, testing::StartsWith("gmtime_r/localtime_r: "));
    EXPECT_EQ(stamp(tms, 0), "2024-03-31 00:59:59.000000 UTC");
    g_tmlock = 1;
    EXPECT_EQ(stamp(tms, 0), "error -35");
    EXPECT_EQ(stamp(tms, TMF_RAW), "1711846799.000000");
}

TEST_F(timeop_test, stamps_can_be_read_back) {
    use_zone(BERLIN);
    for (const time_t secs : {time_t{0}, time_t{-1}, BEFORE_SUMMER, BEFORE_SUMMER + 1}) {
        for (const std::uint32_t flags :
             {0u, TMF_GMT, TMF_SECONDS, TMF_GMT | TMF_SECONDS, TMF_RAW}) {
            const bool whole = (flags & TMF_SECONDS) != 0;
            const timespec tms = {secs, whole ? 0 : 123'456'000};
            SCOPED_TRACE(stamp(tms, flags));
            timespec back = {};
            EXPECT_EQ(scan_log_time(stamp(tms, flags).c_str(), &back, flags), 0);
            EXPECT_EQ(back.tv_sec, tms.tv_sec);
            EXPECT_EQ(back.tv_nsec, tms.tv_nsec);
        }
    }
    const std::pair<const char*, std::uint32_t> refused[] = {{"", 0},
                                                             {"2024-03-31 01:59:59", 0},
                                                             {"2024-03-31 01:59:59.12345 CET", 0},
                                                             {"2024-03-31 01:59:59.123456CET", 0},
                                                             {"2024-02-30 01:59:59", TMF_SECONDS},
                                                             {"2024-13-01 01:59:59", TMF_SECONDS},
                                                             {"2024-03-31 24:00:00", TMF_SECONDS},
                                                             {"24-03-31 01:00:00", TMF_SECONDS},
                                                             {"1711846799", TMF_RAW},
                                                             {"1711846799.123456x", TMF_RAW}};
    for (const auto& [text, flags] : refused) {
        timespec tms = {7, 8};
        EXPECT_EQ(scan_log_time(text, &tms, flags), -1) << text;
        EXPECT_EQ(tms.tv_sec, 7);
    }
}

TEST_F(timeop_test, dates_and_spans_as_text) {
    char buf[32];
    use_zone(BERLIN);
    EXPECT_EQ(mk_gmt_date(BEFORE_SUMMER - 3600, buf, sizeof(buf)), 0); // 00:59:59 in Berlin
    EXPECT_STREQ(buf, "2024-03-30");
    text_stream out;
    log_timefmt(&g_log, TMF_NONE);
    log_default(&g_log, out.fp);
    EXPECT_EQ(mk_gmt_date(0, buf, 9), -1);
    EXPECT_EQ(out.text(), "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 9 provided\n");
    stderr_of(
        [&] { EXPECT_EQ(mk_gmt_date(std::numeric_limits<time_t>::max(), buf, sizeof(buf)), -1); });
    const struct {
        long secs;
        const char* text;
    } rows[] = {{90061, "01d 01h:01m:01s"}, {59, "00h:00m:59s"},
                {0, "00h:00m:00s"},         {86399, "23h:59m:59s"},
                {86400, "01d 00h:00m:00s"}, {8640000, "100d 00h:00m:00s"}};
    for (const auto& row : rows) {
        EXPECT_EQ(mk_timespan(row.secs, buf, sizeof(buf)), 0);
        EXPECT_STREQ(buf, row.text);
        EXPECT_EQ(mk_timespan(row.secs, buf, strlen(row.text) - 1), -1);
    }
    EXPECT_EQ(mk_timespan(90061, buf, 3), -1);
}

TEST_F(timeop_test, end_of_day_is_local) {
    const struct {
        const char* tz;
        time_t tstamp, end;
    } rows[] = {
        {"UTC0", 0, 86399},
        {"UTC0", 86399, 86399},
        {"UTC0", 86400, 2 * 86400 - 1},
        {"AAA-5", 0, 86399 - 5 * 3600},
        {BERLIN, BEFORE_SUMMER, 1711922399}, // a day of 23 hours
        {BERLIN, BEFORE_SUMMER + 1, 1711922399},
        {BERLIN, 1711922399, 1711922399},
        {BERLIN, BEFORE_WINTER + 1, 1730069999}, // a day of 25 hours, second half
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.tstamp);
        use_zone(row.tz);
        EXPECT_EQ(get_endofday_utime(row.tstamp), row.end);
    }
    // Clocks go back at midnight here, so 23:59:59 comes twice; no answer may lie in the past.
    use_zone("AAA3BBB,J60/0,J90/0");
    for (const time_t tstamp : {1711848600, 1711852200}) { // 23:30, twice
        const time_t end = get_endofday_utime(tstamp);
        EXPECT_TRUE(end == 1711850399 || end == 1711853999) << end;
        EXPECT_GE(end, tstamp);
    }
    text_stream out;
    log_timefmt(&g_log, TMF_NONE);
    log_default(&g_log, out.fp);
    EXPECT_EQ(get_endofday_utime(std::numeric_limits<time_t>::max()), -1);
    EXPECT_EQ(out.text(), "(ERR)  get_endofday_utime: localtime_r() FAILED\n");
}

} // namespace
