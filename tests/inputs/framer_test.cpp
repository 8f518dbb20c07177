#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "capture.h"
#include "inputs/framer.h"

namespace quarn::inputs {
namespace {

struct Case {
    const char* name;
    std::size_t size;
    Capture capture;
    const char* told;
};

/// What the framer tells of bytes that come in parts of the lengths that `next_length` gives.
template <typename NextLength>
std::string frame(const std::vector<std::uint8_t>& bytes, NextLength next_length) {
    const auto layout = find_layout(bytes, true);
    if (!layout)
        return "no packets";
    Framer framer(*layout);
    Recorder recorder;
    std::vector<std::uint8_t> rest;
    std::size_t done = 0;
    for (bool end = false; !end;) {
        const std::size_t count = std::min<std::size_t>(next_length(), bytes.size() - done);
        const auto* part = bytes.data() + done;
        rest.insert(rest.end(), part, part + count);
        done += count;
        end = count == 0;
        // A copy of its own, so that the sanitizer sees reads behind it.
        const std::vector<std::uint8_t> given(rest.begin(), rest.end());
        const std::size_t used = framer.feed(given, end, recorder);
        rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(used));
    }
    return recorder.text();
}

Capture c188() {
    return Capture(188);
}
Capture c192() {
    return Capture(192);
}
Capture c204() {
    return Capture(204);
}

const Case framings[] = {
    {"clean", 188, c188().packets(8), "0-7"},
    {"one", 188, c188().packets(1), "0"},
    {"one_of_192", 192, c192().packets(1), "0"},
    {"one_of_204", 204, c204().packets(1), "0"},
    {"two_of_192", 192, c192().packets(2), "0-1"},
    {"four_and_a_part", 188, c188().packets(5).cut(30), "0-3 truncated(752:158)"},
    {"wrong", 188, c188().packets(3).wrong().packets(4), "0-2 ~3 4-7"},
    {"wrong_first", 188, c188().wrong().packets(6), "~0 1-6"},
    {"wrong_last", 188, c188().packets(6).wrong(), "0-5 ~6"},
    {"wrong_near_end", 188, c188().packets(6).wrong().packets(2), "0-5 ~6 7-8"},
    {"wrong_five_apart", 188, c188().packets(6).wrong().packets(4).wrong().packets(6),
     "0-5 ~6 7-10 ~11 12-17"},
    {"two_of_five", 188, c188().packets(6).wrong().packets(3).wrong().packets(6),
     "0-5 garbled(1128-2068:0) ~6 7-9 ~10 11-16"},
    {"three_of_five", 188, c188().packets(6).wrong(3).packets(6),
     "0-5 garbled(1128-1692:0) ~6 ~7 ~8 9-14"},
    {"seven", 188, c188().packets(6).wrong(7).packets(6),
     "0-5 garbled(1128-2444:0) ~6 ~7 ~8 ~9 ~10 ~11 ~12 13-18"},
    {"seven_of_192", 192, c192().packets(6).wrong(7).packets(6),
     "0-5 garbled(1156-2500:0) ~6 ~7 ~8 ~9 ~10 ~11 ~12 13-18"},
    {"garbled_to_the_end", 188, c188().packets(6).wrong(3), "0-5 garbled(1128-1692:0) ~6 ~7 ~8"},
    {"missing", 188, c188().packets(6).cut(100).packets(6), "0-4 missing(940-1028:100) 6-11"},
    {"missing_all_but_a_byte", 188, c188().packets(6).cut(187).packets(6),
     "0-4 missing(940-941:187) 6-11"},
    {"missing_a_byte", 188, c188().packets(6).cut(1).packets(6), "0-4 missing(940-1127:1) 6-11"},
    {"missing_whole_packets", 188, c188().packets(6).cut(188).packets(6), "0-4 6-11"},
    {"missing_in_third", 188, c188().packets(3).cut(100).packets(9),
     "0-1 missing(376-464:100) 3-11"},
    {"missing_in_first", 188, c188().packets(1).cut(100).packets(9), "1-9"},
    {"missing_of_192", 192, c192().packets(6).cut(60).packets(6), "0-4 missing(964-1096:60) 6-11"},
    {"missing_of_204", 204, c204().packets(6).cut(60).packets(6), "0-4 missing(1020-1164:60) 6-11"},
    {"missing_near_end", 188, c188().packets(6).cut(100).packets(2),
     "0-4 missing(940-1028:100) 6-7"},
    {"missing_in_last_but_one", 188, c188().packets(6).cut(100).packets(1),
     "0-4 missing(940-1028:100) 6"},
    {"missing_twice", 188, c188().packets(6).cut(20).packets(6).cut(30).packets(6),
     "0-4 missing(940-1108:20) 6-10 missing(2048-2206:30) 12-17"},
    {"inserted", 188, c188().packets(6).junk(3).packets(6), "0-5 inserted(1128-1131:3) 6-11"},
    {"inserted_more_than_a_packet", 188, c188().packets(6).junk(200).packets(6),
     "0-5 inserted(1128-1328:12) 6-11"},
    {"inserted_whole_packets", 188, c188().packets(6).junk(376).packets(6),
     "0-5 garbled(1128-1504:0) ~0 ~0 6-11"},
    {"inserted_at_end", 188, c188().packets(6).junk(50), "0-5 inserted(1128-1178:50)"},
    {"a_hole_of_megabytes", 188, c188().packets(6).junk(3'760'000).packets(6),
     "0-5 garbled(1128-3761128:0) 6-11"},
    {"megabytes_too_many", 188, c188().packets(6).junk(3'760'001).packets(6),
     "0-5 inserted(1128-3761129:1) 6-11"},
    {"sync_bytes_in_junk", 188, c188().packets(6).junk(100, 0x47).packets(6),
     "0-5 missing(1128-1228:88) 6-11"},
    {"begins_inside", 188, c188().packets(1).cut_front(100).packets(6), "1-6"},
    {"begins_inside_192", 192, c192().packets(1).cut_front(100).packets(6), "1-6"},
    {"begins_behind_stamp", 192, c192().packets(7).cut_front(4), "0-6"},
    {"begins_inside_204", 204, c204().packets(1).cut_front(100).packets(6), "1-6"},
    {"begins_with_something_else", 188, c188().junk(1000).packets(6), "inserted(0-1000:60) 0-5"},
    {"ends_inside", 188, c188().packets(7).cut(1), "0-5 truncated(1128:187)"},
    {"ends_inside_stamp", 192, c192().packets(7).cut(189), "0-5 truncated(1152:3)"},
    {"ends_inside_192", 192, c192().packets(7).cut(10), "0-5 truncated(1156:178)"},
    {"ends_inside_parity", 204, c204().packets(7).cut(10), "0-6 truncated(1224:194)"},
    // The low byte of the pid is a sync byte as well.
    {"pid_like_sync", 188, c188().packets(1, 0x147).cut_front(1).packets(9, 0x147), "1-9"},
    {"pid_like_sync_garbled", 188, c188().packets(6, 0x147).wrong(4).packets(20, 0x147),
     "0-5 garbled(1128-1880:0) ~6 ~7 ~8 ~9 10-29"},
    {"no_packets", 188, c188().junk(5000, 0x47), "no packets"},
};

TEST(Framer, tells_what_happened_whatever_the_reads) {
    for (const Case& c : framings) {
        SCOPED_TRACE(c.name);
        const auto& bytes = c.capture.bytes;
        EXPECT_EQ(frame(bytes, [] { return SIZE_MAX; }), c.told);
        const std::size_t step = bytes.size() < 10'000 ? 1 : 100'003;
        EXPECT_EQ(frame(bytes, [&] { return step; }), c.told);
        if (const auto layout = find_layout(bytes, true)) {
            EXPECT_EQ(layout->size, c.size);
        }
    }
}

TEST(ArrivalStamps, run_on_over_their_wrap_and_never_back) {
    ArrivalStamps stamps;
    EXPECT_EQ(stamps.arrival(0x3FFFFF00), 0);
    EXPECT_EQ(stamps.arrival(0x00000100), 0x200);
    EXPECT_EQ(stamps.arrival(0xC0000180), 0x280) << "the two bits above are no part of it";
    EXPECT_EQ(stamps.arrival(0x00000080), 0x280) << "back";
    EXPECT_EQ(stamps.arrival(0x00000090), 0x290);
}

TEST(Framer, stamps_count_as_arrival_where_they_run) {
    struct {
        std::uint32_t step;
        std::vector<Ticks> arrivals;
    } const cases[] = {
        {2700, {0, 2700, 5400, 8100, 10800, 13500}},
        {0, std::vector<Ticks>(6, no_time)},
        {0x1234567, std::vector<Ticks>(6, no_time)}, // 0.7 s each: no packets of a stream
    };
    for (const auto& c : cases) {
        const Capture capture = c192().stamps(0x3FFFFF00, c.step).packets(6);
        Framer framer(*find_layout(capture.bytes, true));
        Recorder recorder;
        framer.feed(capture.bytes, true, recorder);
        std::vector<Ticks> arrivals;
        for (const PacketInfo& info : recorder.infos)
            arrivals.push_back(info.arrival);
        EXPECT_EQ(arrivals, c.arrivals) << c.step;
    }
}

} // namespace
} // namespace quarn::inputs
