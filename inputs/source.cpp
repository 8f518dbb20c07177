#include "source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quarn::inputs {
namespace {

Error unreadable(int error) {
    if (error == ENOENT || error == ENOTDIR)
        return {ErrorKind::not_found, "no such file"};
    if (error == EISDIR)
        return {ErrorKind::directory, "a directory: name the files in it"};
    std::string text = "cannot be read: ";
    text += std::strerror(error);
    return {ErrorKind::unreadable, text};
}

} // namespace

std::variant<std::unique_ptr<Source>, Error> Source::open(const std::string& operand,
                                                          const std::atomic<bool>* stop) {
    int fd = STDIN_FILENO;
    if (operand != "-") {
        do
            fd = ::open(operand.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
        while (fd < 0 && errno == EINTR && !(stop && *stop));
        if (fd < 0)
            return unreadable(errno);
    }
    std::unique_ptr<Source> source(new Source(fd, stop));
    if (auto error = source->examine())
        return *error;
    return source;
}

Source::~Source() {
    if (fd_ != STDIN_FILENO)
        ::close(fd_);
}

std::optional<Error> Source::examine() {
    struct stat status {};
    if (fstat(fd_, &status) != 0)
        return unreadable(errno);
    if (S_ISDIR(status.st_mode))
        return unreadable(EISDIR);
    const off_t here = lseek(fd_, 0, SEEK_CUR);
    if (!S_ISREG(status.st_mode) || here < 0)
        return {};
    seekable_ = true;
    begin_ = here;
    bytes_total_ = static_cast<std::uint64_t>(std::max<off_t>(status.st_size - here, 0));
    // Only advice: a kernel that does not take it reads ahead all the same.
    (void)posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    return {};
}

Error Source::error() const {
    return unreadable(errno_);
}

Source::Result Source::read(std::span<std::uint8_t> into) {
    if (peeked_done_ < peeked_.size()) {
        const std::size_t count = std::min(into.size(), peeked_.size() - peeked_done_);
        std::memcpy(into.data(), peeked_.data() + peeked_done_, count);
        peeked_done_ += count;
        bytes_read_ += count;
        if (peeked_done_ == peeked_.size())
            std::vector<std::uint8_t>().swap(peeked_);
        return {Status::data, count};
    }
    const ssize_t count = ::read(fd_, into.data(), into.size());
    if (count < 0) {
        errno_ = errno;
        return {errno == EINTR ? Status::interrupted : Status::failed, 0};
    }
    bytes_read_ += static_cast<std::uint64_t>(count);
    return {count == 0 ? Status::end : Status::data, static_cast<std::size_t>(count)};
}

std::optional<std::span<const std::uint8_t>> Source::peek(std::size_t count) {
    std::size_t have = peeked_.size();
    peeked_.resize(std::max(have, count));
    while (have < count) {
        const ssize_t more = ::read(fd_, peeked_.data() + have, count - have);
        if (more < 0 && errno == EINTR && !stopped())
            continue;
        if (more < 0 && errno != EINTR) {
            errno_ = errno;
            peeked_.resize(have);
            return {};
        }
        if (more <= 0)
            break;
        have += static_cast<std::size_t>(more);
    }
    peeked_.resize(have);
    return std::span<const std::uint8_t>(peeked_).first(std::min(have, count));
}

std::size_t Source::read_at(std::uint64_t from, std::span<std::uint8_t> into) const {
    std::size_t done = 0;
    while (seekable_ && done < into.size()) {
        const auto at = static_cast<off_t>(static_cast<std::uint64_t>(begin_) + from + done);
        const ssize_t count = ::pread(fd_, into.data() + done, into.size() - done, at);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

bool Source::rewind() {
    if (!seekable_ || lseek(fd_, begin_, SEEK_SET) != begin_)
        return false;
    peeked_.clear();
    peeked_done_ = 0;
    bytes_read_ = 0;
    return true;
}

} // namespace quarn::inputs
