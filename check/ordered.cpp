#include "ordered.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace quarn::check {

namespace {

/// Inputs that may be under way or waiting behind the one whose turn it is.
constexpr std::size_t most_ahead = 256;
constexpr std::size_t most_in_memory = std::size_t{1} << 20U;

} // namespace

void Target::write(std::string_view text) {
    while (!text.empty() && !failed_) {
        const ssize_t written = ::write(fd_, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            failed_ = true;
            if (errno != EPIPE)
                std::fprintf(stderr, "quarn-check: %s: %s\n", name_.c_str(), std::strerror(errno));
        }
    }
}

OrderedOutput::OrderedOutput(Target& out, Target* junit, std::function<void()> before_write)
    : out_(out), junit_(junit), before_write_(std::move(before_write)) {}

bool OrderedOutput::begin(std::size_t input) {
    std::unique_lock lock(mutex_);
    turned_.wait(lock, [&] { return input < turn_ + most_ahead || any_failed(); });
    return !any_failed();
}

void OrderedOutput::write(std::size_t input, std::string_view text) {
    std::unique_lock lock(mutex_);
    if (input != turn_) {
        Waiting& waiting = waiting_[input];
        waiting.text += text;
        in_memory_ += text.size();
        if (in_memory_ <= most_in_memory || spill(waiting))
            return;
        // No room anywhere: this input goes on when its turn has come.
        turned_.wait(lock, [&] { return input == turn_ || any_failed(); });
        return;
    }
    before_write_();
    out_.write(text);
}

void OrderedOutput::finish(std::size_t input, Ending ending) {
    const std::lock_guard lock(mutex_);
    Waiting& waiting = waiting_[input];
    waiting.ending = std::move(ending);
    waiting.done = true;
    advance();
}

bool OrderedOutput::failed() {
    const std::lock_guard lock(mutex_);
    return any_failed();
}

bool OrderedOutput::spill(Waiting& waiting) {
    if (!waiting.spill)
        waiting.spill.reset(std::tmpfile());
    if (!waiting.spill)
        return false;
    const long before = std::ftell(waiting.spill.get());
    const std::size_t written =
        std::fwrite(waiting.text.data(), 1, waiting.text.size(), waiting.spill.get());
    if (written != waiting.text.size() || std::fflush(waiting.spill.get()) != 0) {
        // What was cut short stays in memory whole.
        std::clearerr(waiting.spill.get());
        std::fseek(waiting.spill.get(), before, SEEK_SET);
        return false;
    }
    in_memory_ -= waiting.text.size();
    waiting.text.clear();
    return true;
}

/// Writes what has waited; what follows goes out at once.
void OrderedOutput::write_out(Waiting& waiting) {
    before_write_();
    if (waiting.spill) {
        const long end = std::ftell(waiting.spill.get());
        std::rewind(waiting.spill.get());
        std::array<char, 65536> part;
        for (long left = end; left > 0;) {
            const std::size_t wanted = std::min(part.size(), static_cast<std::size_t>(left));
            const std::size_t got = std::fread(part.data(), 1, wanted, waiting.spill.get());
            if (got == 0)
                break;
            out_.write({part.data(), got});
            left -= static_cast<long>(got);
        }
        waiting.spill.reset();
    }
    out_.write(waiting.text);
    in_memory_ -= waiting.text.size();
    waiting.text = {};
}

void OrderedOutput::advance() {
    for (auto at = waiting_.find(turn_); at != waiting_.end(); at = waiting_.find(turn_)) {
        write_out(at->second);
        if (!at->second.done)
            break;
        if (junit_)
            junit_->write(at->second.ending.junit);
        std::fputs(at->second.ending.complaint.c_str(), stderr);
        waiting_.erase(at);
        ++turn_;
    }
    turned_.notify_all();
}

} // namespace quarn::check
