#include "file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "reports/text.h"

namespace quarn::cuts {

namespace {

constexpr std::size_t longest_name = 100; // of an input, bytes: a file's may have 255 in all
constexpr int most_names = 1000;

bool plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-' || c == '+' || static_cast<unsigned char>(c) >= 0x80;
}

std::string safe(std::string_view input) {
    if (input == "-")
        return "stdin";
    std::string name;
    for (const char c : printable(input))
        if (plain(c))
            name += c;
        else if (!name.empty() && name.back() != '_')
            name += '_';
    while (name.size() > longest_name)
        name.erase(0, std::max<std::size_t>(utf8_length(name), 1));
    // No hidden file, and none that a command takes for an option.
    name.erase(0, name.find_first_not_of(".-_"));
    return name.empty() ? "input" : name;
}

} // namespace

std::string stem_of(std::string_view input, std::string_view place, Rule rule) {
    return safe(input) + "-" + std::string(place) + "-" + std::string(info(rule).id);
}

std::optional<File> File::create(const std::string& path, int& error) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd < 0) {
        error = errno;
        return {};
    }
    return File(path, fd);
}

std::optional<File> File::create(const std::string& directory, const std::string& stem,
                                 std::string_view ending, int& error) {
    for (int i = 1; i <= most_names; ++i) {
        std::string path = directory;
        path.append("/").append(stem);
        if (i > 1)
            path.append("-").append(std::to_string(i));
        path.append(".").append(ending);
        if (auto file = create(path, error))
            return file;
        if (error != EEXIST)
            break;
    }
    return {};
}

File::File(File&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)) {}

File& File::operator=(File&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(fd_, other.fd_);
    return *this;
}

File::~File() {
    if (fd_ >= 0)
        ::close(fd_);
}

int File::append(std::span<const std::uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
        if (written >= 0)
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

bool File::is_there() const {
    struct stat status {};
    return ::fstat(fd_, &status) != 0 || status.st_nlink > 0;
}

void File::remove() {
    if (fd_ >= 0)
        ::unlink(path_.c_str());
}

} // namespace quarn::cuts
