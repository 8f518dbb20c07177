#include "live/analyzer_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "live/analyzer_shared.h"

namespace quarn::live {
namespace {

/// Inherited descriptors are put in their places one after the other: those that they come from
/// must not lie among them.
constexpr int first_high = 10;

[[noreturn]] void fail(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

void check(int error, const char* what) {
    if (error != 0)
        fail(error, what);
}

/// What happens between the new process and the executable in it.
class SpawnPlan {
  public:
    SpawnPlan() {
        check(posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init");
        check(posix_spawnattr_init(&attributes_), "posix_spawnattr_init");
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void no_input() {
        check(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
              "posix_spawn_file_actions_addopen");
    }
    void give(int fd, int as) {
        check(posix_spawn_file_actions_adddup2(&actions_, fd, as),
              "posix_spawn_file_actions_adddup2");
    }
    void close_from(int fd) {
        check(posix_spawn_file_actions_addclosefrom_np(&actions_, fd),
              "posix_spawn_file_actions_addclosefrom_np");
    }
    // The parent has signals blocked that it reads from a descriptor.
    void fresh_signals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        check(posix_spawnattr_setsigmask(&attributes_, &none), "posix_spawnattr_setsigmask");
        check(posix_spawnattr_setsigdefault(&attributes_, &all), "posix_spawnattr_setsigdefault");
        check(
            posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
            "posix_spawnattr_setflags");
    }
    pid_t run(const char* path, char* const* argv) {
        pid_t pid = 0;
        check(posix_spawn(&pid, path, &actions_, &attributes_, argv, environ), path);
        return pid;
    }

  private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

} // namespace

// ---- descriptors
// ---------------------------------------------------------------------------------

void Descriptor::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

Descriptor high_descriptor(int fd, const char* what) {
    if (fd < 0)
        fail(errno, what);
    Descriptor low(fd);
    if (fd >= first_high)
        return low;
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, first_high);
    if (high < 0)
        fail(errno, what);
    return Descriptor(high);
}

// ---- the process
// ---------------------------------------------------------------------------------

AnalyzerProcess::~AnalyzerProcess() {
    if (pid_ == 0)
        return;
    kill();
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void AnalyzerProcess::start(const std::string& title, int memory, int bell) {
    std::array<int, 2> ends{};
    // Neither side waits for the other: words that find no room are lost.
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        fail(errno, "pipe");
    Descriptor reading(ends[0]);
    const Descriptor writing = high_descriptor(ends[1], "pipe");

    SpawnPlan plan;
    plan.no_input();
    plan.give(writing.get(), STDERR_FILENO);
    plan.give(memory, worker_memory_fd);
    plan.give(bell, worker_bell_fd);
    plan.close_from(worker_bell_fd + 1);
    plan.fresh_signals();

    std::string name = "quarn-live";
    std::string option = worker_option;
    std::string shown = title;
    const std::array<char*, 4> argv{name.data(), option.data(), shown.data(), nullptr};
    pid_ = plan.run("/proc/self/exe", argv.data());
    text_ = std::move(reading);
}

void AnalyzerProcess::kill() {
    if (pid_ != 0)
        ::kill(pid_, SIGKILL);
}

std::optional<int> AnalyzerProcess::reap() {
    if (pid_ == 0)
        return std::nullopt;
    int status = -1;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == 0 || (done < 0 && errno == EINTR))
        return std::nullopt;
    pid_ = 0;
    return done < 0 ? -1 : status;
}

std::string AnalyzerProcess::read_text() {
    std::array<char, 4096> room;
    const ssize_t size = text_.get() < 0 ? 0 : read(text_.get(), room.data(), room.size());
    return size <= 0 ? std::string() : std::string(room.data(), static_cast<std::size_t>(size));
}

} // namespace quarn::live
