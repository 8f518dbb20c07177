// Time series: nothing that was recorded is lost, however long the stream and however wide the
// buckets have become.
#include <cmath>
#include <numeric>

#include <gtest/gtest.h>

#include "measure/measure.h"
#include "measure/recorder.h"
#include "multiplex.h"

namespace quarn {
namespace {

Place at(double seconds, std::uint64_t packet) {
    const auto time = seconds < 0 ? no_time : static_cast<Ticks>(seconds * ticks_per_second);
    return {packet, (packet - 1) * packet_size, time, no_time, false};
}

double sum(const Buckets<PacketCount>& buckets) {
    return std::accumulate(buckets.begin(), buckets.end(), 0.0,
                           [](double s, const PacketCount& c) { return s + c.packets; });
}

Finding lost(double seconds, std::uint64_t packet, std::uint16_t pid, std::int64_t packets) {
    Finding f;
    f.rule = Rule::continuity_count_error;
    f.kind = Kind::loss;
    f.pid = pid;
    f.begin = at(seconds, packet);
    f.detail.lost = packets;
    return f;
}

// A day, a tenth of a second at a time, with something rare in each series; then the same without a
// clock, where places are packets.
TEST(Recorder, keeps_what_is_rare_for_a_day) {
    constexpr int steps = 864'000;
    constexpr std::uint64_t packets = 100; // in a step
    for (const bool timed : {true, false}) {
        Recorder recorder;
        const auto place = [&](int step) {
            return at(timed ? step / 10.0 : -1, 1 + static_cast<std::uint64_t>(step) * packets);
        };
        for (int i = 0; i < steps; ++i) {
            const bool rare = i == 123'456;
            const CountsItem item{{static_cast<std::uint64_t>(i) * packets, 0, no_time},
                                  packets,
                                  {{256, 70}, {null_pid, rare ? 29U : 30U}}};
            recorder.counts(item, place(i), place(i + 1));
            recorder.pcr_interval(256, place(i), (rare ? 812 : 40) * ticks_per_ms);
            recorder.table({Rule::pat_error_2, 500 * ticks_per_ms, 0, 0}, place(i),
                           (rare ? 1 : 100) * ticks_per_ms);
            if (i % 200'000 == 7)
                recorder.loss(lost(timed ? i / 10.0 : -1, place(i).packet, 257, 3));
        }
        const TimeSeries s = recorder.take(place(steps));
        EXPECT_EQ(s.timed, timed);
        EXPECT_LE(static_cast<std::size_t>(s.length / s.width), most_buckets);
        ASSERT_EQ(s.packets.size(), 2U);
        EXPECT_NEAR(sum(s.packets[0].buckets), 70.0 * steps, 1);
        EXPECT_NEAR(sum(s.packets[1].buckets), 30.0 * steps - 1, 1);
        EXPECT_NEAR(sum(s.other), 1, 1e-6) << "a packet that belongs to no pid";
        ASSERT_EQ(s.pcr_intervals.size(), 1U);
        const auto& intervals = s.pcr_intervals[0];
        EXPECT_LE(intervals.buckets.size(), most_buckets);
        EXPECT_GT(intervals.buckets.size(), most_buckets / 2);
        EXPECT_EQ(intervals.histogram[40], static_cast<std::uint64_t>(steps) - 1);
        EXPECT_EQ(intervals.histogram.back(), 1U);
        const Place rare = place(123'456);
        const auto bucket = static_cast<std::size_t>(
            (timed ? rare.time : static_cast<Ticks>(rare.packet) - 1) / s.width);
        EXPECT_EQ(intervals.buckets[bucket].high.value, 812);
        EXPECT_EQ(intervals.buckets[bucket].high.packet, rare.packet);
        EXPECT_EQ(intervals.buckets[bucket].high.byte, rare.byte);
        EXPECT_EQ(intervals.buckets[bucket].low.value, 40);
        EXPECT_EQ(s.tables.at(0).buckets[bucket].low.value, 1);
        ASSERT_EQ(s.losses.size(), 1U);
        std::uint64_t events = 0;
        std::uint64_t gone = 0;
        for (const LossCount& count : s.losses[0].buckets) {
            events += count.events;
            gone += count.packets;
        }
        EXPECT_EQ(events, 5U);
        EXPECT_EQ(gone, 15U);
    }
}

TEST(Recorder, says_what_it_leaves_out) {
    Recorder recorder;
    for (std::uint16_t pid = 0; pid < 8000; ++pid) {
        recorder.counts({{pid, 0, no_time}, 1, {{pid, 1}}}, at(pid / 1e3, pid + 1U),
                        at((pid + 1) / 1e3, pid + 2U));
        recorder.pcr_interval(pid, at(pid / 1e3, pid + 1U), ticks_per_ms);
        recorder.loss(lost(pid / 1e3, pid + 1U, pid, 1));
    }
    const TimeSeries s = recorder.take(at(8, 8000));
    EXPECT_EQ(s.packets.size() + s.left_out.packets, 8000U);
    EXPECT_NEAR(sum(s.other), static_cast<double>(s.left_out.packets), 1e-6);
    EXPECT_EQ(s.pcr_intervals.size() + s.left_out.pcr_intervals, 8000U);
    EXPECT_EQ(s.losses.size() + s.left_out.losses, 8000U);
}

TEST(Slope, is_that_of_most_values) {
    Buckets<Extremes> drifting;
    for (int i = 0; i < 300; ++i) {
        const double noise = i % 7 - 3;
        const double step = i > 40 && i < 60 ? 800 : 0;
        Extremes values;
        values.add(Sample{0.25 * i + noise + step, 1, 0});
        drifting.push_back(values);
    }
    EXPECT_NEAR(slope(drifting, 2), 0.125, 0.002);
    EXPECT_TRUE(std::isnan(slope({drifting.begin(), drifting.begin() + 2}, 1)));
}

// What a whole stream gives: every packet is in a series, each loss too, and they are where the
// findings say.
TEST(Stream, series_agree_with_findings) {
    struct : Sink {
        std::uint64_t lost = 0;
        void finding(const Finding& f) override {
            if (f.kind == Kind::loss)
                lost += static_cast<std::uint64_t>(f.detail.lost.value_or(0));
        }
    } sink;
    Options options;
    options.series = true;
    Stream stream(options, sink);
    Multiplex multiplex("cbr=1000 ms=5000 p1=4096/256/20 v=256/20 a=257");
    multiplex.fault("drop 257 1500 3");
    multiplex.fault("tei 256 2500 2");
    multiplex.feed(stream, 100);
    const Summary summary = stream.summary();
    const TimeSeries s = stream.series();
    double packets = sum(s.other);
    for (const TimeSeries::Packets& p : s.packets)
        packets += sum(p.buckets);
    EXPECT_NEAR(packets, static_cast<double>(summary.packets), 1e-6);
    EXPECT_NEAR(sum(s.other), 2, 1e-6) << "damaged packets belong to no pid";
    std::uint64_t gone = 0;
    for (const TimeSeries::Losses& l : s.losses)
        for (const LossCount& c : l.buckets)
            gone += c.packets;
    EXPECT_EQ(gone, sink.lost);
    EXPECT_GT(gone, 0U);
}

} // namespace
} // namespace quarn
