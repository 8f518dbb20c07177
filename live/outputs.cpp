#include "outputs.h"

#include "commands.h"
#include "record_file.h"
#include "reports/text.h"
#include "syslog_target.h"
#include "tell.h"

namespace quarn::live {

namespace {
constexpr std::size_t most_records = 100'000;
constexpr std::size_t most_bytes = 16'000'000;
} // namespace

Outputs::Outputs(const Wanted& wanted, std::function<void()> reader_gone)
    : reader_gone_(std::move(reader_gone)) {
    change(wanted);
}

Outputs::~Outputs() {
    end();
}

bool Outputs::end() {
    for (Output* const output : {&file_, &syslog_, &exec_})
        replace(*output, {});
    const CommandCounts& all = *commands_;
    const struct {
        std::uint64_t count;
        const char* what;
        const char* why;
    } losses[] = {
        {records_dropped_, "record", "could not be written"},
        {all.dropped, "command", "of --exec could not start, since too many waited"},
        {all.failed, "command", "of --exec failed"},
        {all.cut_off, "command", "of --exec had to be cut off at the end"},
        {all.not_started, "command", "of --exec had no time to start before the end"},
    };
    for (const auto& loss : losses)
        if (loss.count > 0 && !ended_)
            tell("in all " + count_text(loss.count, loss.what) + " " + loss.why);
    ended_ = true;
    return records_dropped_ == 0;
}

/// The old one comes to its end without the lock: that may take seconds.
void Outputs::replace(Output& output, Output with) {
    {
        const std::lock_guard lock(mutex_);
        std::swap(output, with);
    }
    with = {};
}

void Outputs::change(const Wanted& wanted) {
    if (wanted.file != wanted_.file)
        replace(file_, wanted.file ? std::make_unique<Lane>(
                                         std::make_unique<RecordFile>(*wanted.file, reader_gone_),
                                         most_records, most_bytes, records_dropped_)
                                   : nullptr);
    if (wanted.syslog != wanted_.syslog) {
        replace(syslog_, {}); // first: there is one connection in a process
        if (wanted.syslog)
            replace(syslog_, std::make_unique<Lane>(std::make_unique<SyslogTarget>(*wanted.syslog),
                                                    most_records, most_bytes, records_dropped_));
    }
    if (wanted.exec != wanted_.exec)
        replace(exec_, wanted.exec ? std::make_unique<Lane>(
                                         std::make_unique<Commands>(*wanted.exec, commands_),
                                         Commands::most_waiting, most_bytes, commands_->dropped)
                                   : nullptr);
    wanted_ = wanted;
}

void Outputs::add(const Record& record) {
    const std::lock_guard lock(mutex_);
    if (file_)
        file_->add(record);
    if (!record.finding)
        return;
    for (Output* const output : {&syslog_, &exec_})
        if (*output)
            (*output)->add(record);
}

void Outputs::reopen() {
    const std::lock_guard lock(mutex_);
    if (file_)
        file_->reopen();
}

} // namespace quarn::live
