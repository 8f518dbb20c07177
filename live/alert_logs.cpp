#include "live/alert_logs.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace quarn::live {
namespace {

constexpr char log_group[8] = "LIVE";
constexpr time_t retry_seconds = 10;

/// The times in the names of files that were rotated before, by an earlier process.
std::vector<time_t> rotated_before(const std::filesystem::path& log) {
    std::vector<time_t> times;
    const std::string stem = log.filename().string() + ".";
    const auto folder = log.has_parent_path() ? log.parent_path() : std::filesystem::path(".");
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!name.starts_with(stem))
            continue;
        long long time = 0;
        const char* last = name.data() + name.size();
        const auto [stop, wrong] = std::from_chars(name.data() + stem.size(), last, time);
        if (wrong == std::errc{} && stop == last && time > 0)
            times.push_back(static_cast<time_t>(time));
    }
    std::ranges::sort(times);
    return times;
}

/// Puts files that an earlier process has rotated into the ring of those that are kept. A process
/// is started again often, so nobody would ever delete them otherwise.
void adopt_rotated(log_ctx& log) {
    std::vector<time_t> times = rotated_before(log.name);
    const std::size_t kept = log.rota.max_idx;
    if (times.size() > kept)
        times.erase(times.begin(), times.end() - static_cast<std::ptrdiff_t>(kept));
    std::ranges::copy(times, log.rota.tm);
    log.rota.next_idx = static_cast<ssize_t>(times.size() % kept);
}

void open_nowhere(log_ctx& log, std::FILE* nowhere) {
    log_default(&log, nowhere);
    log.name[0] = '\0';
    log.rota.max_total = 0; // nothing there to rotate
    log.rota.max_log_tm = 0;
}

} // namespace

std::string why_no_log(const std::string& path) {
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    const int error = fd < 0 ? errno : 0;
    if (fd >= 0)
        ::close(fd);
    return fd >= 0 ? std::string() : "log " + path + ": " + std::strerror(error);
}

AlertLogs::AlertLogs(const WorkerSettings& settings)
    : settings_(settings), nowhere_(std::fopen("/dev/null", "w")) {
    glog_init("quarn-live");
    std::uint64_t group = 0;
    static_assert(sizeof group == sizeof log_group);
    std::memcpy(&group, log_group, sizeof group);
    log_set_group(&g_log, group);
    log_set_pid(&g_access_log, getpid());
    for (log_ctx* log : {&g_log, &g_access_log})
        log_timefmt(log, settings.log_time);
    open(g_log, settings.text_log.data());
    open(g_access_log, settings.alert_log.data());
    open_syslog();
}

AlertLogs::~AlertLogs() {
    for (log_ctx* log : {&g_log, &g_access_log}) {
        if (log->fp != nowhere_)
            log_close(log);
        log->fp = nullptr;
    }
    if (nowhere_ != nullptr)
        std::fclose(nowhere_);
}

void AlertLogs::open_syslog() const {
    if (settings_.syslog >= 0)
        config_syslog(&g_access_log, "quarn-live", LOG_PID, settings_.syslog);
}

/// In words for people, once; what the log module says of it is for programmers.
bool AlertLogs::may_open(const char* path) {
    const std::string why = why_no_log(path);
    std::string& told = told_[path];
    if (!why.empty() && why != told)
        std::fprintf(stderr, "%s\n", why.c_str());
    told = why;
    return why.empty();
}

void AlertLogs::open(log_ctx& log, const char* path) {
    if (*path == '\0' && &log == &g_access_log) {
        log_default(&log, stdout);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        return;
    }
    if (*path == '\0' || !may_open(path) || log_open_ex(&log, path, F_APPEND_OLD) != 0) {
        open_nowhere(log, nowhere_);
        return;
    }
    log_set_rota(&log, settings_.log_size, settings_.log_files,
                 settings_.log_daily ? std::time(nullptr) : 0);
    if (log.rota.tm[0] == 0)
        adopt_rotated(log);
}

bool AlertLogs::good() const {
    return nowhere_ != nullptr && (settings_.alert_log[0] == '\0' || g_access_log.fp != nowhere_) &&
           (settings_.text_log[0] == '\0' || g_log.fp != nowhere_);
}

void AlertLogs::reopen() {
    for (const auto& [log, path] : {std::pair(&g_log, settings_.text_log.data()),
                                    std::pair(&g_access_log, settings_.alert_log.data())}) {
        if (*path == '\0')
            continue;
        if (log->fp != nowhere_)
            log_close(log);
        open(*log, path);
    }
    open_syslog(); // closing a log has closed it
}

void AlertLogs::check(log_ctx& log, const char* path, time_t now) {
    if (*path == '\0')
        return;
    if (log.fp == nullptr) // a rotation could not open its file again
        open_nowhere(log, nowhere_);
    if (log.fp == nowhere_) {
        if (now - retried_ >= retry_seconds)
            open(log, path);
        return;
    }
    const time_t deadline = log_rota_eod(&log);
    if (deadline > 0 && now > deadline && log.total_out > 0) {
        log_set_eod(&log, 0); // its own lines must not rotate it once more
        log_rotate(&log);
        log_set_rota(&log, log_rota_maxsize(&log), log_rota_maxfiles(&log), now);
    }
}

void AlertLogs::look_after(time_t now) {
    check(g_log, settings_.text_log.data(), now);
    check(g_access_log, settings_.alert_log.data(), now);
    if (now - retried_ >= retry_seconds)
        retried_ = now;
}

void AlertLogs::text_written() {
    struct stat status {};
    if (g_log.fp != nullptr && fstat(fileno(g_log.fp), &status) == 0 && S_ISREG(status.st_mode))
        g_log.total_out = static_cast<std::size_t>(status.st_size);
}

} // namespace quarn::live
