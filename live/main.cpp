// quarn-live: signals, the time, the exit status.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <string>

#include "analyzer_worker.h"
#include "options.h"
#include "reports/text.h"
#include "service.h"
#include "settings/words.h"
#include "status.h"
#include "tell.h"

namespace quarn::live {

namespace {

using Clock = std::chrono::steady_clock;

/// A standard stream that was closed must not become the first file that is opened.
void fill_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

/// Hundreds of inputs, each with its logs and its analyzer, need more descriptors than a shell's
/// usual 1024; what the system lets it have it may take.
void take_descriptors() {
    constexpr rlim_t enough = 65536;
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0 || descriptors.rlim_cur >= enough)
        return;
    descriptors.rlim_cur = std::min(descriptors.rlim_max, enough);
    (void)::setrlimit(RLIMIT_NOFILE, &descriptors);
}

/// The signals that are waited for, blocked in all threads.
class Signals {
  public:
    Signals() {
        sigset_t all;
        ::sigemptyset(&all);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP})
            ::sigaddset(&all, signal);
        ::sigprocmask(SIG_BLOCK, &all, nullptr);
        for (const int signal : {SIGPIPE, SIGXFSZ}) // told by errors of writing
            ::signal(signal, SIG_IGN);
        fd_ = ::signalfd(-1, &all, SFD_CLOEXEC | SFD_NONBLOCK);
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    ~Signals() {
        ::close(fd_);
        ::close(wake_);
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Ends the wait from another thread as SIGTERM does.
    void end() const {
        const std::uint64_t one = 1;
        (void)!::write(wake_, &one, sizeof one);
    }

    /// The next signal, SIGTERM behind end(), 0 when `longest` has passed.
    int wait(std::chrono::milliseconds longest) const {
        pollfd fds[] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (::poll(fds, 2, static_cast<int>(longest.count())) <= 0)
            return 0;
        if (fds[1].revents != 0)
            return SIGTERM;
        signalfd_siginfo info{};
        return ::read(fd_, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo)
                                                              : 0;
    }

  private:
    int fd_ = -1;
    int wake_ = -1;
};

void reload(Service& service, bool has_file) {
    ::sd_notify(0, "RELOADING=1");
    try {
        service.reload();
        tell(has_file ? "configuration and logs were read and opened anew"
                      : "logs were opened anew; without -C there is no configuration to read");
    } catch (const std::runtime_error& error) {
        tell(std::string(error.what()) + "; nothing has changed");
    }
    ::sd_notify(0, "READY=1");
}

void watch(Service& service, const Signals& signals, bool has_file) {
    constexpr std::chrono::milliseconds turn{200};
    const Clock::time_point begin = Clock::now();
    for (;;) {
        const int signal = signals.wait(turn);
        if (signal == SIGHUP)
            reload(service, has_file);
        else if (signal != 0)
            return;
        if (service.over())
            return;
        if (const auto length = service.settings().run_for;
            length && Clock::now() >= begin + *length)
            return;
        if (service.healthy())
            ::sd_notify(0, "WATCHDOG=1");
    }
}

int run(const CommandLine& line) {
    const Signals signals;
    Service service(line, [&] { signals.end(); });
    ::sd_notify(0, "READY=1");
    watch(service, signals, line.config.has_value());
    ::sd_notify(0, "STOPPING=1");
    return service.end();
}

int tell_inputs(const Settings& settings) {
    std::cout << "configuration is right; inputs: " << settings.inputs.size() << '\n';
    for (const InputSettings& input : settings.inputs) {
        const std::string url = input.url.without_secrets();
        std::cout << "    " << printable(input.name)
                  << (input.name == url ? "" : ": " + printable(url)) << '\n';
    }
    std::cout << std::flush;
    return std::cout ? status_in_order : status_wrong;
}

int main_of(int argc, char** argv) {
    if (is_analyzer_worker(argc, argv)) // in a process that another quarn-live has started
        return run_analyzer_worker();
    fill_standard_streams();
    take_descriptors();
    const std::variant<CommandLine, int> parsed = parse_command_line(argc, argv);
    if (const int* const status = std::get_if<int>(&parsed))
        return *status;
    const CommandLine& line = std::get<CommandLine>(parsed);
    if (!line.check_config)
        return run(line);
    return tell_inputs(settings_of(line));
}

} // namespace

} // namespace quarn::live

int main(int argc, char** argv) {
    try {
        return quarn::live::main_of(argc, argv);
    } catch (const std::exception& error) {
        quarn::live::tell_at_once(error.what());
        return quarn::live::status_wrong;
    }
}
