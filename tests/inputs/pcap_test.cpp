#include <fstream>
#include <thread>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "files.h"
#include "network.h"

namespace quarn::inputs {
namespace {

const Endpoint group = *parse_endpoint("239.1.1.1:1234");
const Endpoint other = *parse_endpoint("10.0.0.7:5000");
const Endpoint group6 = *parse_endpoint("[ff15::1]:1234");

Bytes seven() {
    return Capture().packets(7).bytes;
}
Bytes part(const Bytes& bytes, std::size_t begin, std::size_t end) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

class Pcap : public Files {};

TEST_F(Pcap, datagrams_are_found_in_whatever_they_are_wrapped) {
    const Bytes payload = udp(group, seven());
    const Bytes payload6 = udp(group6, seven());
    const Bytes v4 = ipv4(group, payload);
    const Bytes v6 = ipv6(group6, payload6);
    const struct {
        const char* name;
        int link;
        std::vector<Bytes> frames;
    } cases[] = {
        {"ethernet", 1, {ethernet(v4)}},
        {"padded", 1, {ethernet(v4) + Bytes(20, 0)}},
        {"vlan", 1, {ethernet(v4, "8100 0064 0800")}},
        {"qinq", 1, {ethernet(v6, "88A8 0064 8100 0065 86DD")}},
        {"mpls", 1, {ethernet(v4, "8847 00010040 00020140")}},
        {"pppoe", 1, {ethernet(v4, "8864 1100 0001 0540 0021")}},
        {"options", 1, {ethernet(ipv4(group, payload, 0, hex("94040000")))}},
        {"segmented_later", 1, {ethernet(hex("4500 0000") + part(v4, 4, v4.size()))}},
        {"v6_headers",
         1,
         {ethernet(ipv6(group6,
                        hex("3C00 010400000000 2B00 000000000000 3300 000000000000"
                            "2C02 0000000000000000000000000000 1100 0000 00000000") +
                            payload6,
                        0),
                   "86DD")}},
        {"cooked", 113, {hex("0000 0001 0006 020000000001 0000 0800") + v4}},
        {"cooked_2", 276, {hex("86DD 0000 00000001 0001 00 06 020000000001 0000") + v6}},
        {"raw", 101, {v6}},
        {"null", 0, {hex("02000000") + v4}},
        {"fragments",
         1,
         {ethernet(ipv4(group, part(payload, 0, 800), 0x2000)),
          ethernet(ipv4(group, part(payload, 800, payload.size()), 100))}},
        {"fragments_of_v6_in_any_order",
         1,
         {ethernet(
              ipv6(group6, hex("1100 0320 00000009") + part(payload6, 800, payload6.size()), 44),
              "86DD"),
          ethernet(ipv6(group6, hex("1100 0001 00000008") + part(payload6, 0, 800), 44), "86DD"),
          ethernet(ipv6(group6, hex("1100 0001 00000009") + part(payload6, 0, 800), 44), "86DD")}},
    };
    for (const auto& c : cases) {
        for (const bool next_generation : {false, true}) {
            PcapWriter pcap(c.link, next_generation);
            for (const Bytes& frame : c.frames)
                pcap.frame(frame);
            EXPECT_EQ(outcome(file(pcap.bytes)), "0-6") << c.name << next_generation;
        }
    }
}

TEST_F(Pcap, the_flow_that_first_has_1000_packets_is_read_or_the_one_asked_for) {
    const Bytes first = ethernet(ipv4(other, udp(other, Capture().wrong().packets(6).bytes)));
    const Bytes few = ethernet(ipv4(other, udp(other, Capture().packets(1).bytes)));
    const Bytes many = ethernet(ipv6(group6, udp(group6, rtp(1, seven()))), "86DD");
    const Bytes noise = ethernet(ipv4(group, udp(group, Bytes(1316, 0x46))));
    PcapWriter most;
    most.frame(noise).frame(few).frame(few).frame(many).frame(few);
    PcapWriter thousand;
    for (int i = 0; i < 142; ++i)
        thousand.frame(many).frame(few);
    thousand.frame(first);
    for (int i = 0; i < 1000; ++i)
        thousand.frame(few);

    EXPECT_EQ(outcome(file(most.bytes)), "0-6");
    EXPECT_EQ(outcome(file(most.bytes), {.flow = other}), "0 0 0");
    EXPECT_EQ(outcome(file(most.bytes), {.flow = group}),
              "not_ts: a pcap without transport packets to 239.1.1.1:1234; there are: "
              "10.0.0.7:5000 (3 packets), [ff15::1]:1234 (7 packets)");
    EXPECT_EQ(outcome(file(thousand.bytes)).substr(0, 8), "0 0 0 0 ");
    EXPECT_EQ(through_pipe(thousand.bytes), outcome(file(thousand.bytes)));
}

TEST_F(Pcap, stamps_are_arrival_and_time_of_day) {
    for (const bool next_generation : {false, true}) {
        PcapWriter pcap(1, next_generation);
        const Bytes frame = ethernet(ipv4(group, udp(group, Capture().packets(1).bytes)));
        for (const std::int64_t ns : {1'000'000'001'500, 1'000'000'002'500, 999'000'000'000})
            pcap.frame(frame, ns);
        const Recorder recorder = read(file(pcap.bytes));
        ASSERT_EQ(recorder.infos.size(), 3u);
        EXPECT_EQ(recorder.infos[1].arrival, 27);
        EXPECT_EQ(recorder.infos[2].arrival, 27) << "never back";
        EXPECT_EQ(recorder.infos[1].utc_us, 1'000'000'002);
        EXPECT_EQ(recorder.infos[2].utc_us, 999'000'000) << "as it was";
        EXPECT_EQ(recorder.infos[2].byte, 376u);
    }
}

TEST_F(Pcap, captures_that_were_cut_are_read_as_far_as_they_go) {
    const Bytes frame = ethernet(ipv4(group, udp(group, seven())));
    const struct {
        const char* name;
        Bytes bytes;
        std::string outcome;
    } cases[] = {
        {"frames", PcapWriter().frame(frame, 0, 100).frame(frame).bytes,
         "0-5 missing(1128-1128:100) 0-6"},
        {"all_frames", PcapWriter().frame(frame, 0, 1300).bytes,
         "not_ts: a pcap whose frames were cut when they were captured: capture them again with "
         "their whole length"},
        {"file", part(PcapWriter().frame(frame).frame(frame).bytes, 0, 2000),
         "0-6 truncated(1316:0)"},
        {"nothing_in_it", PcapWriter().bytes,
         "not_ts: a pcap without transport packets in UDP, with or without RTP (0 datagrams)"},
        {"link", PcapWriter(105).frame(frame).bytes,
         "unreadable: a pcap that cannot be read: its link layer is 802.11; Ethernet, Linux "
         "cooked, raw IP and loopback are read"},
        {"damaged", PcapWriter().frame(frame).bytes + Bytes(100, 0xFF),
         "0-6 failed: a pcap that cannot be read: "},
    };
    for (const auto& c : cases)
        EXPECT_EQ(outcome(file(c.bytes)).substr(0, c.outcome.size()), c.outcome) << c.name;
}

} // namespace
} // namespace quarn::inputs
