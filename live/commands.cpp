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
constexpr std::chrono::minutes failed_again{1};

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
    if (waiting_.size() < most_waiting)
        waiting_.push_back(record);
    else
        ++counts_->dropped;
    start_what_may();
    return true;
}

bool Commands::runs_for(const std::string& input) const {
    return std::any_of(running_.begin(), running_.end(), [&](const Running& running) {
        return running.pid != 0 && running.input == input;
    });
}

/// The oldest of each input that has none at work.
void Commands::start_what_may() {
    for (Running& running : running_) {
        if (running.pid != 0)
            continue;
        const auto next =
            std::find_if(waiting_.begin(), waiting_.end(),
                         [this](const Record& record) { return !runs_for(record.input); });
        if (next == waiting_.end() || Clock::now() < again_)
            return;
        const pid_t pid = start(next->text);
        if (pid < 0) {
            tell("--exec: cannot be started: " + std::generic_category().message(-pid) +
                 "; tried again in a second");
            again_ = Clock::now() + try_again;
            return;
        }
        running = {pid, std::move(next->input), Clock::now() + longest, false};
        waiting_.erase(next);
    }
}

void Commands::failed(const std::string& how) {
    ++counts_->failed;
    ++failed_;
    how_ = how;
    tell_failed();
}

/// The first one as it happens, others as a number now and then.
void Commands::tell_failed() {
    if (failed_ == 0 || Clock::now() < failed_told_again_)
        return;
    tell("--exec: " + (failed_ == 1
                           ? "a command " + how_
                           : std::to_string(failed_) + " commands failed; the last one " + how_));
    failed_ = 0;
    failed_told_again_ = Clock::now() + failed_again;
}

void Commands::look_after(Running& running) {
    int status = 0;
    if (::waitpid(running.pid, &status, WNOHANG) != 0) {
        running.pid = 0;
        if (running.told_to_end)
            return; // that was told
        if (WIFSIGNALED(status))
            failed("was ended by signal " + std::to_string(WTERMSIG(status)));
        else if (WEXITSTATUS(status) != 0)
            failed("ended with status " + std::to_string(WEXITSTATUS(status)));
        return;
    }
    if (Clock::now() < running.until)
        return;
    ::kill(-running.pid, running.told_to_end ? SIGKILL : SIGTERM);
    if (!running.told_to_end)
        failed("has run for " + std::to_string(longest.count()) + " s and is ended");
    running.told_to_end = true;
    running.until = Clock::now() + grace;
}

void Commands::turn() {
    for (Running& running : running_)
        if (running.pid != 0)
            look_after(running);
    tell_failed();
    start_what_may();
}

bool Commands::busy() const {
    return !waiting_.empty() || std::any_of(running_.begin(), running_.end(),
                                            [](const Running& r) { return r.pid != 0; });
}

Commands::~Commands() {
    for (Running& running : running_)
        if (running.pid != 0) {
            ::kill(-running.pid, SIGKILL);
            ::waitpid(running.pid, nullptr, 0);
            ++counts_->cut_off;
        }
    counts_->not_started += waiting_.size();
    failed_told_again_ = {};
    tell_failed();
}

} // namespace quarn::live
