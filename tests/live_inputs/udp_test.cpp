#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>

#include "emulated.h"
#include "inputs/moment.h"
#include "watcher.h"

namespace quarn::live {
namespace {

using inputs::operator+;

class Udp : public Watched {
  protected:
    const std::string port_ = free_port();
    const std::string here_ = "127.0.0.1:" + port_;
};

std::vector<Bytes> picked(const std::vector<Bytes>& all, const std::vector<std::size_t>& places) {
    std::vector<Bytes> some;
    for (const std::size_t place : places)
        some.push_back(all[place]);
    return some;
}

TEST_F(Udp, tells_packets_and_what_sequence_numbers_say) {
    const auto plain = datagrams(4, 2);
    const auto rtp = rtp_datagrams(6, 65533, 1);
    const Bytes rtcp = inputs::hex("80C80006 00000000 00000000");
    const struct {
        const char* scheme;
        std::vector<Bytes> sent;
        std::size_t packets;
        const char* told;
        std::size_t raw;
    } cases[] = {
        {"udp", plain, 8, "0-7", 4},
        {"udp", picked(plain, {0, 2}), 4, "0-1 4-5", 2},
        {"udp", rtp, 6, "0-5", 6},
        {"rtp", picked(rtp, {0, 2, 1, 1, 3, 5}), 5, "0 order(1:1) 1-2 duplicate(1:1) 3 loss(1:1) 5",
         6},
        {"udp", picked(rtp, {0}) + std::vector<Bytes>{rtcp} + picked(rtp, {1}), 2, "0-1", 3},
    };
    for (const auto& one : cases) {
        Watcher& watcher = add(std::string(one.scheme) + "://" + here_);
        Sender(here_).send_all(one.sent);
        EXPECT_TRUE(watcher.wait_packets(one.packets));
        remove(watcher);
        auto seen = watcher.seen();
        EXPECT_EQ(seen.packets.text(), one.told);
        EXPECT_EQ(seen.raw.size(), one.raw);
        EXPECT_TRUE(seen.is("up: "));
        EXPECT_EQ(seen.wrong, "");
    }
}

TEST_F(Udp, rtp_leaves_out_what_is_none_and_says_so) {
    Watcher& watcher = add("rtp://" + here_);
    const Sender sender(here_);
    sender.send_all(datagrams(3));
    EXPECT_TRUE(watcher.wait_state("waiting: 3 datagrams without RTP were left out"));
    sender.send_all(rtp_datagrams(1));
    EXPECT_TRUE(watcher.wait_packets(7));
    EXPECT_EQ(watcher.seen().raw.size(), 1U);
}

/// One that is started again has another port; two at a time get their streams mixed.
TEST_F(Udp, tells_who_sends) {
    Watcher& watcher = add("udp://" + here_);
    const auto all = datagrams(4);
    const auto first = std::make_unique<Sender>(here_);
    first->send(all[0]);
    EXPECT_TRUE(watcher.wait_state("up: receiving datagrams from 127.0.0.1:"));
    const Sender second(here_);
    second.send(all[1]);
    const auto says = [](const std::string& what) {
        return [what](const Watcher::Seen& seen) {
            return !seen.states.empty() && seen.states.back().find(what) != std::string::npos;
        };
    };
    EXPECT_TRUE(watcher.wait(says(" now, before from 127.0.0.1:")));
    first->send(all[2]);
    second.send(all[3]);
    EXPECT_TRUE(watcher.wait(says("at the same time: two senders to one address")));
    EXPECT_EQ(watcher.seen().states.size(), 4U);
}

TEST_F(Udp, what_cannot_be_opened_says_why) {
    add("udp://" + here_);
    const auto listener = free_port();
    add("srt://:" + listener);
    const std::string silent = file(inputs::Capture().packets(100).bytes, "silent.ts");
    const struct {
        std::string url;
        std::string why;
    } cases[] = {
        {"rtp://" + here_, here_ + " is taken"},
        {"udp://:" + port_, "0.0.0.0:" + port_ + " is taken"},
        {"udp://192.0.2.1:" + port_, "192.0.2.1:" + port_ + " is not an address of this machine"},
        {"udp://239.1.1.1:5000?interface=none", "no such interface: none"},
        {"udp://:5000?interface=none", "no such interface: none"},
        {"srt://:" + listener, "cannot listen for SRT at 0.0.0.0:" + listener},
        {"srt://:" + port_, "cannot listen for SRT at 0.0.0.0:" + port_},
        {path("none"), path("none") + ": no such file"},
        {path(""), path("") + ": a directory"},
        {"/dev/zero", "/dev/zero: not a file of a disk"},
        {silent, silent + ": no two PCRs in its first 8 MB"},
    };
    for (const auto& one : cases)
        try {
            add(one.url);
            ADD_FAILURE() << one.url;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()).substr(0, one.why.size()), one.why);
        }
}

TEST_F(Udp, counts_what_it_had_no_room_for_where_it_is_missing) {
    if (emulated())
        GTEST_SKIP() << "the emulator does not hand over what the kernel tells of datagrams";
    constexpr int burst = 9000; // over twice the room that is asked for
    constexpr int behind = 10;
    Watcher& watcher = add("udp://" + here_);
    const Sender sender(here_);
    const auto all = datagrams(burst + behind);
    {
        const auto held = watcher.hold();
        for (int i = 0; i < burst; ++i)
            sender.send(all[static_cast<std::size_t>(i)]);
    }
    // Nothing comes behind them that could tell of them.
    EXPECT_TRUE(watcher.wait([&](const auto& seen) {
        return seen.raw.size() + seen.dropped() == burst;
    })) << watcher.seen().raw.size();
    const std::size_t fitted = watcher.seen().raw.size();
    sender.send_all({all.end() - behind, all.end()});
    EXPECT_TRUE(watcher.wait_packets(7 * (fitted + behind)));
    auto seen = watcher.seen();
    EXPECT_EQ(seen.dropped(), burst - fitted);
    for (const auto& [place, count] : seen.drops)
        EXPECT_EQ(place, fitted);
    EXPECT_EQ(seen.packets.text(), "0-" + std::to_string(7 * fitted - 1) + " " +
                                       std::to_string(7 * burst) + "-" +
                                       std::to_string(7 * (burst + behind) - 1));
}

TEST_F(Udp, stamps_are_those_of_the_arrival) {
    if (emulated())
        GTEST_SKIP() << "the emulator does not hand over what the kernel tells of datagrams";
    Watcher& watcher = add("udp://" + here_);
    const Sender sender(here_);
    const auto all = datagrams(2, 1);
    {
        const auto held = watcher.hold(); // the thread cannot read
        sender.send(all[0]);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        sender.send(all[1]);
    }
    EXPECT_TRUE(watcher.wait_packets(2));
    const auto infos = watcher.seen().packets.infos;
    // Both are read at once; a busy kernel may stamp the first one late.
    EXPECT_GE(infos[1].arrival - infos[0].arrival, 200 * 27'000);
    EXPECT_GE(infos[1].utc_us - infos[0].utc_us, 200'000);
    EXPECT_LT(std::abs(inputs::arrival_of(inputs::moment().monotonic_ns, inputs::moment()).utc_us -
                       infos[1].utc_us),
              60'000'000);
}

/// Datagrams that no stream has.
std::vector<Bytes> hostile() {
    std::mt19937 random(1);
    std::vector<Bytes> all = {{}, Bytes(1, 0x47), Bytes(65507, 0x47), Bytes(65507, 0x80)};
    for (int i = 0; i < 400; ++i) {
        Bytes bytes(random() % (i % 50 == 0 ? 65507 : 1500));
        for (auto& byte : bytes)
            byte = static_cast<std::uint8_t>(random());
        if (i % 4 == 0 && bytes.size() > 1) {
            bytes[0] = static_cast<std::uint8_t>(0x80 | (random() & 0x3F)); // RTP, lengths wrong
            bytes[1] = 33;
        }
        all.push_back(bytes);
    }
    Bytes extension = inputs::hex("9F210001 00000000 00000001");
    all.push_back(extension); // CSRCs that are not there
    extension[0] = 0x90;
    all.push_back(extension + inputs::hex("0000FFFF")); // an extension behind the end
    extension[0] = 0xA0;
    all.push_back(extension + inputs::hex("FF")); // more padding than bytes
    return all;
}

TEST_F(Udp, anything_may_come_and_others_lose_nothing_by_it) {
    Watcher& attacked = add("udp://" + here_);
    const auto quiet = "127.0.0.1:" + free_port();
    Watcher& watcher = add("udp://" + quiet);

    std::atomic<bool> done = false;
    std::thread attack([&] {
        const Sender sender(here_);
        const auto all = hostile();
        sender.send_all(all);
        for (std::size_t i = 0; !done; ++i)
            sender.send(all[i % all.size()]);
    });
    const Sender sender(quiet);
    for (const Bytes& datagram : datagrams(200)) {
        sender.send(datagram);
        // Others come and go meanwhile.
        remove(add("udp://127.0.0.1:" + free_port()));
    }
    EXPECT_TRUE(watcher.wait_packets(1400));
    EXPECT_TRUE(attacked.wait([](const Watcher::Seen& s) { return s.raw.size() > 400; }));
    done = true;
    attack.join();
    auto seen = watcher.seen();
    EXPECT_EQ(seen.packets.text(), "0-1399");
    EXPECT_EQ(seen.dropped(), 0U);
    EXPECT_EQ(attacked.seen().wrong, "");
    EXPECT_LT(std::chrono::steady_clock::now() - loops_->last_turn(), std::chrono::seconds(10));
}

} // namespace
} // namespace quarn::live
