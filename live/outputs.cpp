#include "outputs.h"

#include "commands.h"
#include "record_file.h"
#include "syslog_target.h"

namespace quarn::live {

namespace {
constexpr std::size_t most_records = 100'000;
constexpr std::size_t most_bytes = 16'000'000;
} // namespace

Outputs::Outputs(const Wanted& wanted, std::function<void()> reader_gone)
    : reader_gone_(std::move(reader_gone)) {
    change(wanted);
}

Outputs::Output Outputs::made(std::unique_ptr<Target> target, std::size_t most_waiting,
                              std::atomic<std::uint64_t>& dropped) {
    Output output{std::move(target), nullptr};
    output.lane = std::make_unique<Lane>(*output.target, most_waiting, most_bytes, dropped);
    return output;
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
        replace(file_, wanted.file ? made(std::make_unique<RecordFile>(*wanted.file, reader_gone_),
                                          most_records, records_dropped_)
                                   : Output{});
    if (wanted.syslog != wanted_.syslog) {
        replace(syslog_, {}); // first: there is one connection in a process
        if (wanted.syslog)
            replace(syslog_, made(std::make_unique<SyslogTarget>(*wanted.syslog), most_records,
                                  records_dropped_));
    }
    if (wanted.exec != wanted_.exec)
        replace(exec_, wanted.exec ? made(std::make_unique<Commands>(*wanted.exec),
                                          Commands::most_waiting, commands_dropped_)
                                   : Output{});
    wanted_ = wanted;
}

void Outputs::add(const Record& record) {
    const std::lock_guard lock(mutex_);
    if (file_.lane)
        file_.lane->add(record);
    if (!record.finding)
        return;
    for (Output* const output : {&syslog_, &exec_})
        if (output->lane)
            output->lane->add(record);
}

void Outputs::reopen() {
    const std::lock_guard lock(mutex_);
    if (file_.lane)
        file_.lane->reopen();
}

} // namespace quarn::live
