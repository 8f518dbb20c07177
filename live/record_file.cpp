#include "record_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

#include "tell.h"

namespace quarn::live {

namespace {
constexpr std::chrono::seconds try_again{1};
constexpr int poll_ms = 100;

bool same_file(int a, int b) {
    struct stat one {};
    struct stat other {};
    return ::fstat(a, &one) == 0 && ::fstat(b, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}
} // namespace

RecordFile::RecordFile(std::string path, std::function<void()> reader_gone)
    : path_(std::move(path)), reader_gone_(std::move(reader_gone)) {
    open();
    if (fd_ < 0)
        throw std::system_error(errno, std::generic_category(), what());
}

RecordFile::~RecordFile() {
    if (fd_ > STDERR_FILENO)
        ::close(fd_);
}

std::string RecordFile::what() const {
    return path_ == "-" ? "standard output" : "findings file " + path_;
}

void RecordFile::open() {
    // A named pipe that nobody reads is an error and no reason to wait.
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK;
    fd_ = path_ == "-" ? STDOUT_FILENO : ::open(path_.c_str(), flags, 0644);
    if (fd_ > STDERR_FILENO)
        ::fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK);
    struct stat about {};
    regular_ = fd_ >= 0 && ::fstat(fd_, &about) == 0 && S_ISREG(about.st_mode);
}

void RecordFile::reopen() {
    if (path_ == "-")
        return;
    const int before = fd_;
    open();
    if (fd_ < 0) {
        tell(what() + ": " + std::generic_category().message(errno) +
             "; the one that was open stays");
        fd_ = before;
        return;
    }
    // A record that was begun in a file that was moved away stands whole in the new one; in one
    // that was not it goes on where it stopped.
    if (!same_file(before, fd_))
        written_ = 0;
    ::close(before);
    again_ = {};
}

bool RecordFile::failed(int error) {
    if (path_ == "-" && error == EPIPE) {
        gone_ = true;
        reader_gone_();
        return true;
    }
    if (!complained_)
        tell(what() + ": " + std::generic_category().message(error) + "; tried again every second");
    complained_ = true;
    again_ = Clock::now() + try_again;
    return false;
}

/// A pipe that has room takes PIPE_BUF bytes without waiting.
bool RecordFile::write_some(const std::string& text) {
    const std::size_t rest = text.size() - written_;
    const ssize_t n = ::write(fd_, text.data() + written_,
                              regular_ ? rest : std::min<std::size_t>(rest, PIPE_BUF));
    if (n < 0)
        return errno == EINTR || failed(errno);
    written_ += static_cast<std::size_t>(n);
    if (complained_)
        tell(what() + ": is written again");
    complained_ = false;
    return true;
}

bool RecordFile::take(const Record& record) {
    if (Clock::now() < again_)
        return false;
    while (!gone_ && written_ < record.text.size()) {
        pollfd ready{fd_, POLLOUT, 0};
        if (!regular_ && ::poll(&ready, 1, poll_ms) == 0)
            return false;
        if (!write_some(record.text))
            return false;
    }
    written_ = 0;
    return true;
}

} // namespace quarn::live
