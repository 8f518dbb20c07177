// Where findings go: a file or standard output, syslog, commands; each in a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "lane.h"

namespace quarn::live {

class Outputs {
  public:
    /// What of the settings says where findings go.
    struct Wanted {
        std::optional<std::string> file; // "-": standard output
        std::optional<int> syslog;       // facility
        std::optional<std::string> exec;
        bool operator==(const Wanted&) const = default;
    };

    /// `reader_gone`: called in another thread when nobody reads standard output any more. Throws
    /// std::system_error.
    Outputs(const Wanted& wanted, std::function<void()> reader_gone);
    /// Tells how much was dropped in all, if anything was.
    ~Outputs();
    Outputs(const Outputs&) = delete;
    Outputs& operator=(const Outputs&) = delete;

    /// Any thread; never waits for what is done with it.
    void add(const Record& record);
    /// Opens files again under their names.
    void reopen();
    /// Goes on with other settings, in the thread that made this. What went to an output that is
    /// no longer wanted has a few seconds. Throws std::system_error, and
    /// nothing has changed then.
    void change(const Wanted& wanted);

    std::uint64_t records_dropped() const { return records_dropped_; }
    std::uint64_t commands_dropped() const { return commands_dropped_; }

  private:
    using Output = std::unique_ptr<Lane>; // null: none
    void replace(Output& output, Output with);

    std::function<void()> reader_gone_;
    std::atomic<std::uint64_t> records_dropped_ = 0;
    std::atomic<std::uint64_t> commands_dropped_ = 0;
    Wanted wanted_;
    std::mutex mutex_; // guards which outputs there are
    Output file_, syslog_, exec_;
};

} // namespace quarn::live
