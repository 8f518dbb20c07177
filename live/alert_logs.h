// The logs of an analyzer's process: one for machines, one for people. They are rotated by size and
// at the end of the day, opened again when somebody else has moved them, and looked after when they
// could not be opened. Only one process may write a log of this kind, since it renames it.
#pragma once

#include <cstdio>
#include <ctime>
#include <map>
#include <string>

#include "live/analyzer_shared.h"
#include "log.h"

namespace quarn::live {

/// Why there can be no log of that path; empty: there can. Makes the file, as opening it does.
std::string why_no_log(const std::string& path);

class AlertLogs {
  public:
    /// Opens both. What cannot be opened is said on standard error.
    explicit AlertLogs(const WorkerSettings& settings);
    ~AlertLogs();
    AlertLogs(const AlertLogs&) = delete;
    AlertLogs& operator=(const AlertLogs&) = delete;

    /// Whether all that was asked for is open.
    bool good() const;
    /// Closes and opens the files, for those who rotate from outside.
    void reopen();
    /// To be called about once a second: rotates logs in which the day has ended without a line,
    /// and tries again to open what could not be.
    void look_after(time_t now);
    /// Where statistics for people go: the log for people, or nowhere.
    std::FILE* text() const { return log_fp(&g_log); }
    /// Counts what was written to text(), past the log, towards its size.
    void text_written();

  private:
    bool may_open(const char* path);
    void open(log_ctx& log, const char* path);
    void open_syslog() const;
    void check(log_ctx& log, const char* path, time_t now);

    const WorkerSettings& settings_;
    std::FILE* nowhere_;
    time_t retried_ = 0;
    std::map<std::string, std::string> told_; // by path: why it could not be opened
};

} // namespace quarn::live
