// Groups, in a network that only this process has.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <unistd.h>

#include "emulated.h"
#include "watcher.h"

namespace quarn::live {
namespace {

bool ip(const std::string& arguments) {
    return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
}

/// A network without anything but lo, also for users who may have one only as root of their own.
bool own_network() {
    if (unshare(CLONE_NEWNET) == 0)
        return true;
    const auto user = std::to_string(getuid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1\n";
    return true;
}

class Network : public Watched {
  protected:
    void SetUp() override {
        if (emulated())
            GTEST_SKIP() << "the emulator lets nobody join groups by their interface";
        if (!own_network())
            GTEST_SKIP() << "no network namespace is permitted here";
        if (!ip("link set lo up") || !add_interface())
            GTEST_SKIP() << "no pair of interfaces can be made here, or there is no ip command";
        begin(); // only now: its thread is of that network
    }

    static bool add_interface() {
        return ip("link add out0 type veth peer name out1") && ip("link set out1 up") &&
               ip("link set out0 up") && ip("addr add 10.9.0.2/24 dev out0") &&
               ip("addr add 10.9.0.3/24 dev out0") && ip("addr add fd09::2/64 dev out0 nodad") &&
               ip("addr add fd09::3/64 dev out0 nodad");
    }
};

TEST_F(Network, groups_come_from_whom_and_where_the_url_says) {
    ASSERT_TRUE(ip("route add 239.2.0.0/16 dev out0"));
    const std::string v4 = "239.1.1.1:5000";
    const std::string v6 = "[ff15::1]:5000";
    const struct {
        std::string url;
        std::string to;
        std::string from;
        bool comes;
    } cases[] = {
        {"udp://" + v4 + "?interface=out0", v4, "10.9.0.2:7000", true},
        {"udp://239.2.1.1:5000", "239.2.1.1:5000", "10.9.0.2:7000", true}, // by its route
        {"udp://" + v4 + "?interface=lo", v4, "10.9.0.2:7000", false},
        {"udp://239.1.1.2:5000?interface=out0", v4, "10.9.0.2:7000", false}, // another group
        {"udp://" + v4 + "?interface=out0&source=10.9.0.3", v4, "10.9.0.3:7000", true},
        {"udp://" + v4 + "?interface=out0&source=10.9.0.3", v4, "10.9.0.2:7000", false},
        {"udp://" + v6 + "?interface=out0", v6, "[fd09::2]:7000", true},
        {"udp://" + v6 + "?interface=out0&source=fd09::3", v6, "[fd09::3]:7000", true},
        {"udp://" + v6 + "?interface=out0&source=fd09::3", v6, "[fd09::2]:7000", false},
        {"udp://[ff02::1:5]:5000?interface=out0", "[ff02::1:5]:5000", "[fd09::2]:7000", true},
        {"udp://10.9.0.2:5000?source=10.9.0.3", "10.9.0.2:5000", "10.9.0.3:7000", true},
        {"udp://10.9.0.2:5000?source=10.9.0.3", "10.9.0.2:5000", "10.9.0.2:7000", false},
    };
    for (const auto& one : cases) {
        Watcher& watcher = add(one.url);
        const bool group = url(one.url).multicast();
        Watcher* other = group ? &add(one.url) : nullptr; // in the same process
        Sender(one.to, one.from, "out0").send_all(datagrams(3));
        // What is not to come has had its time when what was sent behind it is there.
        const auto port = free_port();
        Watcher& last = add("udp://127.0.0.1:" + port);
        Sender("127.0.0.1:" + port).send_all(datagrams(1));
        EXPECT_TRUE(last.wait_packets(7));
        EXPECT_TRUE(!one.comes || watcher.wait_packets(21)) << one.url << " " << one.from;
        EXPECT_TRUE(!one.comes || !group || other->wait_packets(21)) << one.url;
        remove_all();
        EXPECT_EQ(watcher.seen().raw.size(), one.comes ? 3U : 0U) << one.url << " " << one.from;
    }
}

TEST_F(Network, what_is_gone_is_told_and_comes_back) {
    Watcher& named = add("udp://239.1.1.1:5000?interface=out0");
    Watcher& routed = add("udp://239.2.1.1:5000");
    EXPECT_TRUE(routed.wait_state("gone: no route to 239.2.1.1:5000: name the interface"));
    ASSERT_TRUE(ip("route add 239.2.0.0/16 dev out0"));
    EXPECT_TRUE(routed.wait_state("waiting: listening at 239.2.1.1:5000 on out0"));
    const auto send = [] { Sender("239.1.1.1:5000", "", "out0").send_all(datagrams(1)); };
    send();
    EXPECT_TRUE(named.wait_state("up: receiving datagrams"));

    ASSERT_TRUE(ip("link set out0 down"));
    EXPECT_TRUE(named.wait_state("gone: interface out0 is down"));
    ASSERT_TRUE(ip("link del out0"));
    EXPECT_TRUE(named.wait_state("gone: interface out0 is gone"));
    EXPECT_TRUE(routed.wait_state("gone: "));
    ASSERT_TRUE(add_interface());
    EXPECT_TRUE(named.wait_state("waiting: listening at 239.1.1.1:5000 on out0; it was away for "));
    send();
    EXPECT_TRUE(named.wait_state("up: receiving datagrams again; it was away for "));
    EXPECT_TRUE(named.wait_packets(14)); // told behind the state
    EXPECT_EQ(named.seen().raw.size(), 2U);
    EXPECT_EQ(named.seen().wrong, "");
}

} // namespace
} // namespace quarn::live
