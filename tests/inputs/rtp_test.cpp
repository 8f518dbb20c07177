#include <gtest/gtest.h>

#include "capture.h"
#include "inputs/datagram_stream.h"
#include "network.h"

namespace quarn::inputs {
namespace {

struct Sent {
    int sequence;
    int ms = 0;
    std::uint32_t ssrc = 1;
};
using Sents = std::vector<Sent>;

/// From the first to the last number, all at one time.
Sents run(int first, int last, int ms = 0) {
    Sents sents;
    for (int sequence = first; sequence <= last; ++sequence)
        sents.push_back({sequence, ms});
    return sents;
}

/// One packet in each datagram, its serial number that of the datagram.
Recorder receive(const Sents& sents) {
    Recorder recorder;
    DatagramStream stream(recorder);
    const Capture capture = Capture().packets(5000);
    for (const Sent& sent : sents) {
        const auto begin = capture.bytes.begin() + 188 * (sent.sequence % 65536 % 5000);
        const Bytes datagram =
            rtp(static_cast<std::uint16_t>(sent.sequence), Bytes(begin, begin + 188), sent.ssrc);
        stream.push({datagram, Ticks{27'000} * sent.ms, no_time});
    }
    stream.flush();
    return recorder;
}

TEST(Rtp, datagrams_are_put_in_order_and_what_is_missing_is_told) {
    std::string far_behind;
    for (int i = 0; i < RtpOrder::most_behind; ++i)
        far_behind += " order(1:1)";
    const struct {
        const char* name;
        Sents sents;
        std::string told;
    } cases[] = {
        {"in_order_over_the_wrap", run(65530, 65540), "530-535 0-4"},
        {"two_swapped", {{1}, {3}, {2}, {4}}, "1 order(1:1) 2-4"},
        {"two_swapped_at_the_wrap", {{65535}, {65537}, {65536}}, "535 order(1:1) 0-1"},
        {"lost", {{1}, {3}}, "1 loss(1:1) 3"},
        {"late_by_32", run(1, 1) + run(3, 34) + run(2, 2) + run(35, 36), "1 order(1:1) 2-36"},
        {"late_by_33", run(1, 1) + run(3, 35) + run(2, 2) + run(36, 36),
         "1 loss(1:1) 3-35 order(1:1) 36"},
        {"late_by_100_ms", {{1, 0}, {3, 10}, {2, 110}}, "1 order(1:1) 2-3"},
        {"late_by_more", {{1, 0}, {3, 10}, {2, 111}}, "1 loss(1:1) 3 order(1:1)"},
        {"second_copies",
         {{1}, {2}, {2}, {1}, {4}, {4}, {3}, {5}},
         "1-2 duplicate(1:1) duplicate(1:1) duplicate(1:1) order(1:1) 3-5"},
        {"two_gaps", {{1}, {3}, {5}, {2}, {4}}, "1 order(1:1) 2-3 order(1:1) 4-5"},
        {"late_before_another_late", {{1}, {4}, {3}, {2}}, "1 order(1:1) order(1:1) 2-4"},
        {"first_gap_lost_second_not",
         {{1, 0}, {3, 0}, {5, 60}, {6, 120}, {4, 130}},
         "1 loss(1:1) 3 order(1:1) 4-6"},
        {"longest_gap", {{1}, {3002}}, "1 loss(3000:3000) 3002"},
        {"restart_ahead", {{1}, {3003}, {3004}}, "1 3003-3004"},
        {"restart_behind", {{3502}, {501}, {502}}, "3502 501-502"},
        {"restart_of_another", {{1}, {3}, {7, 0, 2}, {8, 0, 2}}, "1 loss(1:1) 3 7-8"},
        {"restart_a_little_behind", run(600, 600) + run(101, 300), "600" + far_behind + " 229-300"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(receive(c.sents).text(), c.told) << c.name;
}

TEST(Rtp, arrival_of_what_was_put_back_is_that_of_what_waited_for_it) {
    const Recorder recorder = receive({{1, 50}, {3, 60}, {2, 70}, {4, 80}, {5, 75}});
    std::vector<Ticks> ms;
    for (const PacketInfo& info : recorder.infos)
        ms.push_back(info.arrival / 27'000);
    EXPECT_EQ(ms, (std::vector<Ticks>{0, 10, 10, 30, 30}));
}

// Seven packets in each, serial numbers from 0 on. Places are those of packets that were kept.
TEST(Datagrams, are_framed_each_by_itself) {
    const Bytes seven = Capture().packets(7).bytes;
    const Bytes first(seven.begin(), seven.begin() + 188);
    const Bytes wrong = Capture().wrong().packets(6).bytes;
    const struct {
        const char* name;
        std::vector<Bytes> datagrams;
        const char* told;
    } cases[] = {
        {"raw", {seven, seven}, "0-6 0-6"},
        {"one_wrong", {seven, wrong}, "0-6 ~0 1-6"},
        {"cut",
         {seven, Capture().packets(7).cut(100).bytes, seven},
         "0-6 0-5 missing(2444-2444:100) 0-6"},
        {"more_behind", {seven, seven + Bytes(10, 0), seven}, "0-6 0-6 inserted(2632-2632:10) 0-6"},
        {"more_before", {seven, Bytes(3, 0) + seven}, "0-6 inserted(1316-1316:3) 0-6"},
        {"garbled",
         {seven, Capture().packets(1).wrong(2).packets(4).bytes},
         "0-6 0 garbled(1504-1880:0) ~1 ~2 3-6"},
        {"garbage", {seven, Bytes(100, 0), seven}, "0-6 inserted(1316-1316:100) 0-6"},
        {"nothing_before_the_first", {Bytes(100, 0), seven}, "0-6"},
        {"of_192", {Capture(192).packets(6).bytes, Capture(192).packets(6).bytes}, "0-5 0-5"},
        {"of_204", {Capture(204).packets(6).bytes}, "0-5"},
        {"rtp", {rtp(1, seven), rtp(3, seven)}, "0-6 loss(1:7) 0-6"},
        {"rtp_of_other_type",
         {rtp(1, seven), rtp(7, Bytes(99, 1), 1, 96), rtp(2, seven)},
         "0-6 0-6"},
        {"rtcp",
         {rtp(1, seven), hex("80C8 0006 00000001") + Bytes(20, 0), rtp(2, seven)},
         "0-6 0-6"},
        {"rtp_contributors_extension_padding",
         {hex("B2A1 0001 00000000 00000001 00000002 00000003 BEDE0001 10FF0000") + seven +
          hex("000003")},
         "0-6"},
        {"rtp_longer_than_it_is",
         {rtp(1, seven), hex("8F21 0002 00000000 00000001")},
         "0-6 inserted(1316-1316:12)"},
        {"rtp_with_nothing_but_padding",
         {rtp(1, seven), hex("A021 0002 00000000 00000001 FF")},
         "0-6 inserted(1316-1316:13)"},
    };
    for (const auto& c : cases) {
        Recorder recorder;
        DatagramStream stream(recorder);
        for (const Bytes& datagram : c.datagrams)
            stream.push({datagram, no_time, no_time});
        stream.flush();
        EXPECT_EQ(recorder.text(), c.told) << c.name;
    }
}

} // namespace
} // namespace quarn::inputs
