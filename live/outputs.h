// Where findings go: a file or standard output, syslog, commands; each in a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "commands.h"
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
    /// end(), unless that was done.
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

    /// Has a few seconds for what still waits, and tells what was lost in all. Returns whether each
    /// record was written; what commands do is their own. Nothing may be added behind it.
    bool end();

    std::uint64_t records_dropped() const { return records_dropped_; }
    const CommandCounts& commands() const { return *commands_; }

  private:
    using Output = std::unique_ptr<Lane>; // null: none
    void replace(Output& output, Output with);

    std::function<void()> reader_gone_;
    std::atomic<std::uint64_t> records_dropped_ = 0;
    // Shared with the thread of a command that does not come back.
    std::shared_ptr<CommandCounts> commands_ = std::make_shared<CommandCounts>();
    Wanted wanted_;
    bool ended_ = false;
    std::mutex mutex_; // guards which outputs there are
    Output file_, syslog_, exec_;
};

} // namespace quarn::live
