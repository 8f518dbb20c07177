#include "commands.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "tell.h"

extern char** environ; // NOLINT: declared by POSIX, in no header without extensions

namespace quarn::live {

namespace {

constexpr std::chrono::seconds grace{2}; // from SIGTERM to SIGKILL
constexpr std::chrono::seconds try_again{1};

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

/// A file in memory: unlike a pipe it takes any length at once, whether or not it is read.
bool fill(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno != EINTR)
            return false;
        written += n < 0 ? 0 : static_cast<std::size_t>(n);
    }
    return ::lseek(fd, 0, SEEK_SET) == 0;
}

/// Signals as a program finds them that is started from a shell; standard streams.
class SpawnPlan {
  public:
    explicit SpawnPlan(int in) {
        ::posix_spawnattr_init(&attributes);
        ::posix_spawn_file_actions_init(&actions);
        sigset_t signals;
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&attributes, &signals);
        for (const int signal : {SIGPIPE, SIGXFSZ, SIGINT, SIGTERM, SIGHUP})
            ::sigaddset(&signals, signal);
        ::posix_spawnattr_setsigdefault(&attributes, &signals);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                                    POSIX_SPAWN_SETSIGMASK);
        ::posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    }
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t actions{};
};

} // namespace

pid_t Commands::start(const std::string& text) const {
    const Descriptor in(::memfd_create("record", MFD_CLOEXEC));
    if (in.get() < 0 || !fill(in.get(), text))
        return -errno;
    const SpawnPlan plan(in.get());
    std::string shell = "/bin/sh", option = "-c", command = command_;
    char* const arguments[] = {shell.data(), option.data(), command.data(), nullptr};
    pid_t pid = 0;
    const int error =
        ::posix_spawn(&pid, shell.c_str(), &plan.actions, &plan.attributes, arguments, environ);
    return error == 0 ? pid : -error;
}

bool Commands::take(const Record& record) {
    const auto free =
        std::find_if(running_.begin(), running_.end(), [](const Running& r) { return r.pid == 0; });
    if (free == running_.end() || Clock::now() < again_)
        return false;
    const pid_t pid = start(record.text);
    if (pid < 0) {
        tell("--exec: cannot be started: " + std::generic_category().message(-pid) +
             "; tried again in a second");
        again_ = Clock::now() + try_again;
        return false;
    }
    *free = {pid, Clock::now() + longest, false};
    return true;
}

void Commands::look_after(Running& running) {
    int status = 0;
    if (::waitpid(running.pid, &status, WNOHANG) != 0) {
        running.pid = 0;
        return;
    }
    if (Clock::now() < running.until)
        return;
    ::kill(-running.pid, running.told_to_end ? SIGKILL : SIGTERM);
    if (!running.told_to_end)
        tell("--exec: a command has run for " + std::to_string(longest.count()) +
             " s and is ended");
    running.told_to_end = true;
    running.until = Clock::now() + grace;
}

void Commands::turn() {
    for (Running& running : running_)
        if (running.pid != 0)
            look_after(running);
}

bool Commands::busy() const {
    return std::any_of(running_.begin(), running_.end(),
                       [](const Running& r) { return r.pid != 0; });
}

Commands::~Commands() {
    for (const Running& running : running_)
        if (running.pid != 0) {
            ::kill(-running.pid, SIGKILL);
            ::waitpid(running.pid, nullptr, 0);
        }
}

} // namespace quarn::live
