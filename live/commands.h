// A command of the user's for each finding.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <string>

#include "lane.h"

namespace quarn::live {

/// Runs `/bin/sh -c COMMAND` with the record on its standard input, its standard output joined to
/// our standard error, in a process group of its own. What runs too long is ended with its group.
class Commands final : public Target {
  public:
    static constexpr std::size_t most_running = 4;
    static constexpr std::size_t most_waiting = 100;
    static constexpr std::chrono::seconds longest{30};

    explicit Commands(std::string command) : command_(std::move(command)) {}
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
        Clock::time_point until;
        bool told_to_end = false;
    };

    pid_t start(const std::string& text) const;
    static void look_after(Running& running);

    std::string command_;
    std::array<Running, most_running> running_{};
    Clock::time_point again_; // not before: nothing can be started
};

} // namespace quarn::live
