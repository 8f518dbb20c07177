// receive.cpp - what live inputs cost before anything is measured: sends datagrams over loopback to
// many of them, counts what comes, and what the receiving threads need.
//
//     receive [INPUTS [MBIT_S [SECONDS [THREADS]]]]      300 inputs, 10 Mbit/s, 5 s, 1 thread
//
// Exit status 1 if anything is missing.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "live/loops.h"

namespace {

using namespace quarn;
using Clock = std::chrono::steady_clock;

constexpr std::size_t datagram_size = 7 * 188;
constexpr unsigned first_port = 20'000;

struct Plan {
    unsigned inputs = 300;
    unsigned mbit_s = 10;
    unsigned seconds = 5;
    unsigned threads = 1;
};

/// Counts, and nothing else.
class Count : public live::Consumer {
  public:
    void raw(std::span<const std::uint8_t>, const live::Arrival&) override { ++came; }
    void own_drops(std::uint64_t count) override { dropped += count; }
    void state(live::InputState, std::string_view) override {}
    void tick(const live::Arrival&) override {}
    void ended() override {}
    void packets(const std::uint8_t*, std::size_t count, std::size_t, std::uint64_t) override {
        packets_seen += count;
    }
    void packet(const std::uint8_t*, const inputs::PacketInfo&) override { ++packets_seen; }
    void sync_loss(const inputs::SyncLoss&) override {}
    void datagrams(const inputs::DatagramEvent&) override {}
    void truncated(std::uint64_t, std::int64_t) override {}

    std::uint64_t came = 0;
    std::uint64_t dropped = 0;
    std::uint64_t packets_seen = 0;
};

/// Sends to all ports at an even pace, and returns how many datagrams that were.
std::uint64_t send(const Plan& plan) {
    std::array<std::uint8_t, datagram_size> datagram{};
    for (std::size_t i = 0; i < datagram.size(); i += 188) {
        datagram[i] = 0x47;
        datagram[i + 1] = 0x1F;
        datagram[i + 2] = 0xFF;
        datagram[i + 3] = 0x10;
    }
    constexpr std::size_t most = 64;
    iovec bytes{datagram.data(), datagram.size()};
    std::array<mmsghdr, most> messages{};
    for (mmsghdr& message : messages) {
        message.msg_hdr.msg_iov = &bytes;
        message.msg_hdr.msg_iovlen = 1;
    }
    std::vector<int> sockets;
    for (unsigned i = 0; i < plan.inputs; ++i) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<std::uint16_t>(first_port + i));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockets.push_back(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (connect(sockets.back(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
            return 0;
    }
    const double rate = plan.mbit_s * 1e6 / 8 / datagram_size; // datagrams a second and input
    const auto begin = Clock::now();
    const double seconds = plan.seconds;
    std::vector<std::uint64_t> sent(plan.inputs);
    for (double at = 0; at < seconds;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        at = std::chrono::duration<double>(Clock::now() - begin).count();
        for (unsigned i = 0; i < plan.inputs; ++i) {
            const auto due = static_cast<std::uint64_t>(rate * std::min(at, seconds));
            while (sent[i] < due) {
                const auto count = std::min<std::uint64_t>(due - sent[i], most);
                const int done =
                    sendmmsg(sockets[i], messages.data(), static_cast<unsigned>(count), 0);
                if (done <= 0)
                    break;
                sent[i] += static_cast<std::uint64_t>(done);
            }
        }
    }
    std::uint64_t all = 0;
    for (const std::uint64_t one : sent)
        all += one;
    return all;
}

double cpu_seconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int receive(const Plan& plan, int go, int result) {
    std::vector<std::unique_ptr<Count>> counts;
    live::Loops loops(plan.threads);
    std::vector<live::Loops::Handle> handles;
    for (unsigned i = 0; i < plan.inputs; ++i) {
        counts.push_back(std::make_unique<Count>());
        const auto url = inputs::parse_url("udp://127.0.0.1:" + std::to_string(first_port + i));
        handles.push_back(loops.add(std::get<inputs::InputUrl>(url), *counts.back()));
    }
    const double before = cpu_seconds(RUSAGE_SELF);
    (void)!write(go, "", 1);
    std::uint64_t sent = 0;
    if (read(result, &sent, sizeof sent) != sizeof sent)
        return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const double cpu = cpu_seconds(RUSAGE_SELF) - before;
    for (const auto handle : handles)
        loops.remove(handle);
    std::uint64_t came = 0;
    std::uint64_t dropped = 0;
    for (const auto& count : counts) {
        came += count->came;
        dropped += count->dropped;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%u inputs of %u Mbit/s, %u s, %u threads: sent %llu, came %llu, dropped %llu, "
                "receiver %.1f %% of a core, %ld kB\n",
                plan.inputs, plan.mbit_s, plan.seconds, plan.threads,
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(came),
                static_cast<unsigned long long>(dropped), 100 * cpu / plan.seconds,
                usage.ru_maxrss);
    return came == sent ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Plan plan;
    unsigned* const fields[] = {&plan.inputs, &plan.mbit_s, &plan.seconds, &plan.threads};
    for (int i = 1; i < argc && i <= 4; ++i)
        *fields[i - 1] = std::max(1U, static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10)));
    plan.seconds = std::min(plan.seconds, 20U);
    int go[2];
    int result[2];
    if (pipe(go) != 0 || pipe(result) != 0)
        return 1;
    const pid_t sender = fork();
    if (sender == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char word = 0;
        const bool started = read(go[0], &word, 1) == 1;
        const std::uint64_t sent = started ? send(plan) : 0;
        (void)!write(result[1], &sent, sizeof sent);
        _exit(0);
    }
    const int status = receive(plan, go[1], result[0]);
    waitpid(sender, nullptr, 0);
    return status;
}
