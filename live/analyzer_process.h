// The process of an analyzer as its parent sees it: started, its last words caught, reaped.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <sys/types.h>

namespace quarn::live {

/// A descriptor that closes itself.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept;
    int get() const { return fd_; }

  private:
    void close();
    int fd_ = -1;
};

/// `fd` (-1: errno says why there is none) above those that a child gets. Throws std::system_error
/// with `what`.
Descriptor high_descriptor(int fd, const char* what);

/// One process at a time. All from one thread, or one after the other; the process is told to end
/// when the thread that started it ends, see on_terminate() in analyzer_worker.cpp.
class AnalyzerProcess {
  public:
    AnalyzerProcess() = default;
    ~AnalyzerProcess();
    AnalyzerProcess(const AnalyzerProcess&) = delete;
    AnalyzerProcess& operator=(const AnalyzerProcess&) = delete;

    /// Starts this executable again as an analyzer; `title` shows in lists of processes. Takes a
    /// millisecond or so. Throws std::system_error.
    void start(const std::string& title, int memory, int bell);
    /// 0: none runs.
    pid_t pid() const { return pid_; }
    void kill();
    /// Its wait status once it has ended; -1 if somebody else has reaped it. Never waits.
    std::optional<int> reap();
    /// Takes what it has written to its standard error since the last call, a few kB at most.
    std::string read_text();

  private:
    pid_t pid_ = 0;
    Descriptor text_;
};

} // namespace quarn::live
