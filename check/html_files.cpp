#include "html_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "ordered.h"
#include "status.h"

namespace quarn::check {

namespace {

constexpr std::string_view suffix = ".html";

int open_new(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "--html " + path);
    return fd;
}

/// A file's name as the path of a relative address (RFC 3986).
std::string address(std::string_view name) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string out = "./";
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
        if (plain)
            out += c;
        else
            out += {'%', digits[byte >> 4U], digits[byte & 15U]};
    }
    return out;
}

} // namespace

HtmlFiles::HtmlFiles(std::string path, std::size_t inputs) : path_(std::move(path)), rows_(inputs) {
    ::close(open_new(path_)); // hours of work are not to end with this
}

PageFile HtmlFiles::page(std::size_t input) const {
    if (rows_.size() == 1)
        return {path_, {}};
    const bool named = path_.size() > suffix.size() && path_.ends_with(suffix);
    const std::string stem = named ? path_.substr(0, path_.size() - suffix.size()) : path_;
    const std::string path = stem + "-" + std::to_string(input + 1) + std::string(suffix);
    return {path, address(std::string_view(path).substr(path.rfind('/') + 1))};
}

void HtmlFiles::done(std::size_t input, const Judgement& judgement) {
    const std::lock_guard lock(mutex_);
    rows_[input] = judgement.html_row;
    one_page_ = rows_.size() == 1 && judgement.page_written;
    switch (judgement.status) {
    case status_healthy:
        ++counts_.healthy;
        break;
    case status_failed:
        ++counts_.failed;
        break;
    case status_insufficient:
        ++counts_.insufficient;
        break;
    default:
        ++counts_.unreadable;
    }
}

bool HtmlFiles::finish() {
    if (one_page_)
        return true;
    Target file(open_new(path_), path_);
    file.write(html_overview_begin(counts_));
    for (const std::string& row : rows_)
        file.write(row);
    file.write(html_overview_end(QUARN_VERSION));
    return !file.failed();
}

} // namespace quarn::check
