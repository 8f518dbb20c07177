// A command of the user's for each finding.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "lane.h"

namespace quarn::live {

/// What became of commands, read by any thread.
struct CommandCounts {
    std::atomic<std::uint64_t> dropped = 0;     // never started: too many were waiting
    std::atomic<std::uint64_t> failed = 0;      // another status than 0, a signal, or ended here
    std::atomic<std::uint64_t> not_started = 0; // waited when the program ended
    std::atomic<std::uint64_t> cut_off = 0;     // ran when the program ended
};

/// Runs `/bin/sh -c COMMAND` with the record on its standard input, its standard output joined to
/// our standard error, in a process group of its own. What runs too long is ended with its group.
/// Commands of one input run one after the other: a clear must not overtake its raise.
class Commands final : public Target {
  public:
    static constexpr std::size_t most_running = 4;
    static constexpr std::size_t most_waiting = 100;
    static constexpr std::chrono::seconds longest{30};

    Commands(std::string command, std::shared_ptr<CommandCounts> counts)
        : command_(std::move(command)), counts_(std::move(counts)) {}
    /// Ends what still runs.
    ~Commands() override;
    Commands(const Commands&) = delete;
    Commands& operator=(const Commands&) = delete;

    bool take(const Record& record) override;
    void turn() override;
    bool busy() const override;

  private:
    using Clock = std::chrono::steady_clock;
    struct Running {
        pid_t pid = 0; // 0: none
        std::string input;
        Clock::time_point until;
        bool told_to_end = false;
    };

    pid_t start(const std::string& text) const;
    void start_what_may();
    bool runs_for(const std::string& input) const;
    void look_after(Running& running);
    void failed(const std::string& how);
    void tell_failed();

    const std::string command_;
    const std::shared_ptr<CommandCounts> counts_;
    std::array<Running, most_running> running_{};
    std::deque<Record> waiting_;
    Clock::time_point again_;             // not before: nothing can be started
    std::uint64_t failed_ = 0;            // not yet told
    std::string how_;                     // the last of them
    Clock::time_point failed_told_again_; // not before
};

} // namespace quarn::live
