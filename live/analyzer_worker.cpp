#include "live/analyzer_worker.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>
#include <vector>

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "live/alert_logs.h"
#include "live/analyzer_host.h"
#include "live/analyzer_shared.h"

namespace quarn::live {
namespace {

/// Datagrams are taken in heaps: between two looks the process sleeps, longer where nothing comes.
/// So neither it nor the thread that feeds it needs a system call for each.
constexpr int shortest_nap_ms = 20;
constexpr int longest_nap_ms = 100;
/// So many datagrams at most between two looks at clock and wishes.
constexpr int heap = 1000;
/// Seconds that the analyzer has to end once its parent is gone.
constexpr unsigned last_seconds = 2;

volatile std::sig_atomic_t parent_is_gone = 0;
pid_t parent = 0;

// Sent when the parent's end is told, but also by service managers to all processes of a service,
// and when the parent's thread that started this one ends: then the parent says what to do.
void on_terminate(int) {
    if (getppid() == parent)
        return;
    parent_is_gone = 1;
    alarm(last_seconds);
}

std::int64_t ticks_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 27'000'000 + std::int64_t{now.tv_nsec} * 27 / 1000;
}

void set_up_signals() {
    struct sigaction action {};
    action.sa_handler = on_terminate;
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    // The terminal's are for the parent; a full disk or a reader that is gone costs lines only.
    for (const int signal : {SIGINT, SIGHUP, SIGPIPE, SIGXFSZ})
        sigaction(signal, &action, nullptr);
}

// An end by an invariant is reported, packet and all. A limit of 1 keeps dumps from files and from
// the programs that collect them (core(5)).
void leave_no_core() {
    const rlimit limit{1, 1};
    setrlimit(RLIMIT_CORE, &limit);
}

/// The memory that the parent has made, null if there is none: somebody tries the option by hand.
struct Memory {
    Memory() {
        struct stat status {};
        if (fstat(worker_memory_fd, &status) != 0 ||
            static_cast<std::size_t>(status.st_size) <= sizeof(WorkerShared))
            return;
        size = static_cast<std::size_t>(status.st_size);
        void* const map =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, worker_memory_fd, 0);
        if (map != MAP_FAILED)
            shared = static_cast<WorkerShared*>(map);
    }
    std::span<std::uint8_t> ring() const {
        return {reinterpret_cast<std::uint8_t*>(shared + 1), size - sizeof(WorkerShared)};
    }
    WorkerShared* shared = nullptr;
    std::size_t size = 0;
};

class Worker {
  public:
    explicit Worker(const Memory& memory)
        : shared_(*memory.shared), ring_(shared_.ring, memory.ring()), logs_(shared_.settings),
          host_(shared_), room_(largest_datagram) {}

    int run();

  private:
    bool take_heap();
    void look_around();
    void nap();

    WorkerShared& shared_;
    RingView ring_;
    AlertLogs logs_;
    AnalyzerHost host_;
    std::vector<std::uint8_t> room_;
    bool gave_up_ = false;
    bool busy_ = true; // something came
    int nap_ms_ = shortest_nap_ms;
    std::uint32_t reopened_ = 0;
    time_t looked_ = 0;
};

int Worker::run() {
    if (!logs_.good())
        return worker_cannot_run; // the log module has said why
    reopened_ = shared_.reopen_wanted.load();
    while (!gave_up_ && parent_is_gone == 0) {
        const bool ending = shared_.end_wanted.load() != 0;
        busy_ = take_heap();
        look_around();
        if (ending && !busy_)
            break;
        if (!busy_ || ring_.waiting() == 0)
            nap();
    }
    host_.end(logs_.text());
    return gave_up_ ? worker_lost_sync : worker_done;
}

bool Worker::take_heap() {
    DatagramHead head;
    int taken = 0;
    const std::int64_t now = ticks_now();
    while (!gave_up_ && taken < heap && ring_.take(head, room_)) {
        gave_up_ = !host_.datagram(head, std::span(room_).first(head.size), now);
        ++taken;
    }
    if (!gave_up_)
        gave_up_ = !host_.expire(now);
    return taken != 0;
}

void Worker::look_around() {
    if (const std::uint32_t wanted = shared_.reopen_wanted.load(); wanted != reopened_) {
        reopened_ = wanted;
        logs_.reopen();
    }
    const time_t now = std::time(nullptr);
    if (now == looked_)
        return;
    looked_ = now;
    logs_.look_after(now);
    if (host_.statistics(logs_.text()))
        logs_.text_written();
}

void Worker::nap() {
    nap_ms_ = busy_ ? shortest_nap_ms : std::min(nap_ms_ * 2, longest_nap_ms);
    pollfd bell{worker_bell_fd, POLLIN, 0};
    std::uint64_t rung = 0;
    if (poll(&bell, 1, nap_ms_) > 0 && read(worker_bell_fd, &rung, sizeof rung) < 0)
        nap_ms_ = shortest_nap_ms; // nobody rang after all
}

} // namespace

bool is_analyzer_worker(int argc, const char* const* argv) {
    return argc >= 2 && std::string_view(argv[1]) == worker_option;
}

int run_analyzer_worker() {
    const Memory memory;
    if (memory.shared == nullptr) {
        std::fprintf(stderr, "%s is for the program itself\n", worker_option);
        return worker_cannot_run;
    }
    parent = memory.shared->settings.parent;
    set_up_signals();
    leave_no_core();
    prctl(PR_SET_NAME, "quarn-analyzer");
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) // it went before it could be told
        return worker_done;
    try {
        return Worker(memory).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "the analyzer cannot run: %s\n", error.what());
        return worker_cannot_run;
    }
}

} // namespace quarn::live
