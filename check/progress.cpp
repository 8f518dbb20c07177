#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "reports/text.h"

namespace quarn::check {

Progress::Item::Item(Progress& of, const std::string& input)
    : progress(of), name(printable(input)) {
    const std::lock_guard lock(progress.mutex_);
    progress.running_.push_back(this);
}

Progress::Item::~Item() {
    const std::lock_guard lock(progress.mutex_);
    std::erase(progress.running_, this);
    ++progress.done_;
}

void Progress::draw() {
    const std::lock_guard lock(mutex_);
    constexpr auto patience = std::chrono::seconds(1);
    if (!shown_ || running_.empty() || std::chrono::steady_clock::now() - since_ < patience)
        return;
    const Item& first = *running_.front();
    std::string line;
    if (inputs_ > 1)
        line = std::to_string(done_) + " of " + std::to_string(inputs_) + " done; ";
    line += first.name;
    const std::uint64_t read = first.position.read;
    if (const std::uint64_t total = first.position.total)
        line += " " + std::to_string(std::min<std::uint64_t>(100, read * 100 / total)) + " %";
    else
        line += " " + std::to_string(read / 1'000'000) + " MB";
    constexpr std::size_t width = 79;
    while (columns(line) > width) // the end says more than the beginning of a long path
        line.erase(0, utf8_length(line));
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    drawn_ = true;
}

void Progress::clear() {
    const std::lock_guard lock(mutex_);
    if (drawn_)
        std::fputs("\r\033[K", stderr);
    drawn_ = false;
}

} // namespace quarn::check
