// receive.cpp - what live inputs cost before anything is measured: sends datagrams over loopback to
// many of them, counts what comes, and what the receiving threads need.
//
//     receive [INPUTS [MBIT_S [SECONDS [THREADS]]]]      300 inputs, 10 Mbit/s, 5 s, 1 thread
//
// Exit status 1 if anything is missing.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "live/loops.h"
#include "sender.h"

namespace {

using namespace quarn;

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

/// Null packets to all ports.
std::uint64_t send(const Plan& plan) {
    std::vector<std::uint8_t> datagram(datagram_size);
    for (std::size_t i = 0; i < datagram.size(); i += 188) {
        datagram[i] = 0x47;
        datagram[i + 1] = 0x1F;
        datagram[i + 2] = 0xFF;
        datagram[i + 3] = 0x10;
    }
    return send_paced(datagram, {first_port, plan.inputs, plan.mbit_s * 1e6, double(plan.seconds)});
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
