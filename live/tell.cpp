#include "tell.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "reports/text.h"

namespace quarn::live {

namespace {

std::mutex mutex; // guards unread, and keeps lines of several threads whole
std::uint64_t unread = 0;

/// A pipe that has room takes PIPE_BUF bytes without waiting, a socket says by itself.
bool write_some(const char* bytes, std::size_t& size) {
    ssize_t n = ::send(STDERR_FILENO, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        if (::poll(&ready, 1, 0) <= 0)
            return false;
        n = ::write(STDERR_FILENO, bytes, std::min<std::size_t>(size, PIPE_BUF));
    }
    size = n < 0 ? 0 : static_cast<std::size_t>(n);
    return n > 0;
}

bool write_line(const std::string& line) {
    for (std::size_t done = 0; done < line.size();) {
        std::size_t size = line.size() - done;
        if (!write_some(line.data() + done, size))
            return false;
        done += size;
    }
    return true;
}

/// Whether standard error is the journal of systemd, which has times of its own: $JOURNAL_STREAM
/// has device and inode of its socket, and is inherited by what writes elsewhere.
bool is_journal() {
    const char* const journal = std::getenv("JOURNAL_STREAM");
    struct stat errors {};
    return journal && ::fstat(STDERR_FILENO, &errors) == 0 &&
           journal == std::to_string(errors.st_dev) + ":" + std::to_string(errors.st_ino);
}

/// "2026-11-21 23:12:01 +0100 "
std::string time_text() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[40];
    if (!::localtime_r(&now, &local))
        return {};
    return {text, std::strftime(text, sizeof text, "%F %T %z ", &local)};
}

void tell(const std::string& begin, std::string_view text) {
    const std::string line = begin + printable(text) + "\n";
    const std::lock_guard lock(mutex);
    if (unread > 0 &&
        write_line(begin + std::to_string(unread) + " lines found no reader and were left out\n"))
        unread = 0;
    if (unread > 0 || !write_line(line))
        ++unread;
}

} // namespace

void tell(std::string_view text) {
    static const bool journal = is_journal();
    tell((journal ? std::string() : time_text()) + "quarn-live: ", text);
}

void tell_at_once(std::string_view text) {
    tell("quarn-live: ", text);
}

} // namespace quarn::live
