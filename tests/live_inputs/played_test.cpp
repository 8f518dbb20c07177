// Files and standard input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "ts_builder.h"
#include "watcher.h"

namespace quarn::live {
namespace {

constexpr inputs::Ticks tick_ms = 27'000;

class Played : public Watched {};

/// Ten packets from one PCR to the next, 10 ms.
Bytes with_clock(unsigned packets, std::uint64_t first_ms = 1000) {
    Bytes bytes;
    for (unsigned i = 0; i < packets; ++i) {
        ts::packet_fields fields{.pid = 256, .cc = i % 16};
        if (i % 10 == 0)
            fields.adapt = ts::adaptation{.pcr = (first_ms + i) * 90};
        const auto packet = ts::make_packet(fields);
        bytes.insert(bytes.end(), packet.begin(), packet.end());
    }
    return bytes;
}

Bytes captured(int count, int distance_ms) {
    inputs::PcapWriter pcap;
    const auto to = inputs::parse_endpoint("239.1.1.1:5000").value();
    std::int64_t ns = 0;
    for (const Bytes& datagram : datagrams(count, 1)) {
        pcap.frame(inputs::ethernet(inputs::ipv4(to, inputs::udp(to, datagram))), ns);
        ns += distance_ms * 1'000'000;
    }
    return pcap.bytes;
}

TEST_F(Played, comes_at_the_pace_of_its_own_clock) {
    Bytes jumps = with_clock(200);
    const Bytes later = with_clock(201, 500'000);
    jumps.insert(jumps.end(), later.begin(), later.end());
    Bytes cut = with_clock(300);
    cut.resize(cut.size() - 100);
    const auto stamped = inputs::Capture(192).stamps(5, tick_ms).packets(300).bytes;
    const struct {
        const char* name;
        Bytes bytes;
        const char* parameters;
        std::size_t packets;
        double lasts_ms;
    } cases[] = {
        {"clock", with_clock(301), "", 301, 300},
        {"clock_that_jumps", jumps, "", 401, 400},
        {"stamps", stamped, "", 300, 299},
        {"capture", captured(30, 10), "", 30, 290},
        {"bitrate", inputs::Capture().packets(201).bytes, "?bitrate=1504000", 201, 200},
        {"cut", cut, "", 299, 298},
    };
    for (const auto& one : cases) {
        const auto begin = std::chrono::steady_clock::now();
        Watcher& watcher = add("file://" + file(one.bytes, one.name) + one.parameters);
        EXPECT_TRUE(watcher.wait([](const auto& seen) { return seen.ended; })) << one.name;
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - begin;
        auto seen = watcher.seen();
        const auto& infos = seen.packets.infos;
        ASSERT_EQ(infos.size(), one.packets) << one.name;
        EXPECT_NEAR(static_cast<double>(infos.back().arrival - infos.front().arrival),
                    one.lasts_ms * tick_ms, 100)
            << one.name;
        EXPECT_GE(took.count(), one.lasts_ms - 15) << one.name; // the first block comes together
        EXPECT_EQ(seen.raw.front().size(), 7U * 188);
        EXPECT_EQ(seen.wrong, "") << one.name;
        EXPECT_EQ(seen.packets.text().find("truncated") != std::string::npos,
                  one.name == std::string("cut"));
    }
}

TEST_F(Played, over_and_over_goes_on_evenly_and_tells_the_seam) {
    Bytes bytes = with_clock(101);
    bytes.resize(bytes.size() - 88);
    const std::string name = file(bytes);
    Watcher& watcher = add("file://" + name + "?loop=true");
    EXPECT_TRUE(watcher.wait([](const auto& seen) { return seen.restarts >= 3; }));
    const auto infos = watcher.seen().packets.infos;
    for (std::size_t i = 1; i < infos.size(); ++i)
        ASSERT_NEAR(static_cast<double>(infos[i].arrival - infos[i - 1].arrival), tick_ms, 2) << i;
    EXPECT_EQ(watcher.seen().packets.text().find("truncated"), std::string::npos);

    ASSERT_EQ(std::rename(name.c_str(), (name + ".away").c_str()), 0);
    EXPECT_TRUE(watcher.wait_state("gone: no such file"));
    ASSERT_EQ(std::rename((name + ".away").c_str(), name.c_str()), 0);
    EXPECT_TRUE(watcher.wait_state("up: playing again; it was away for "));
    const std::size_t before = watcher.seen().packets.infos.size();
    EXPECT_TRUE(watcher.wait_packets(before + 200));
    remove(watcher);
    EXPECT_EQ(watcher.seen().wrong, "");
}

TEST_F(Played, standard_input_comes_as_it_is_written) {
    const auto garbled = inputs::Capture().packets(50).junk(10).packets(50).cut(1).bytes;
    const struct {
        Bytes bytes;
        const char* told;
        const char* state;
    } cases[] = {
        {inputs::Capture().packets(100).bytes, "0-99", "up: packets come"},
        {inputs::Capture(204).packets(100).bytes, "0-99", "up: packets come"},
        {garbled, "0-49 inserted(9400-9400:10) 50-98 truncated(18612:187)", "up: packets come"},
        {captured(10, 1), "", "gone: a capture of a network"},
        {Bytes(100'000, 'x'), "", "gone: "},
        {{}, "", "gone: empty: not one byte"},
    };
    const int own = dup(STDIN_FILENO);
    for (const auto& one : cases) {
        int pipe[2];
        ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        dup2(pipe[0], STDIN_FILENO);
        close(pipe[0]);
        Watcher& watcher = add("-");
        EXPECT_THROW(add("-"), std::runtime_error);
        const std::size_t half = one.bytes.size() / 2;
        EXPECT_EQ(write(pipe[1], one.bytes.data(), half), static_cast<ssize_t>(half));
        // What has come is there before the pipe goes on.
        EXPECT_TRUE(*one.told == '\0' || watcher.wait_packets(40));
        (void)!write(pipe[1], one.bytes.data() + half, one.bytes.size() - half);
        close(pipe[1]);
        EXPECT_TRUE(watcher.wait([](const auto& seen) { return seen.ended; }));
        remove(watcher);
        auto seen = watcher.seen();
        EXPECT_EQ(seen.packets.text(), one.told);
        EXPECT_TRUE(seen.is(one.state)) << seen.states.back();
        EXPECT_EQ(seen.wrong, "");
    }
    dup2(own, STDIN_FILENO);
    close(own);
}

} // namespace
} // namespace quarn::live
