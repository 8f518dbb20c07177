#include "lane.h"

namespace quarn::live {

namespace {
using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds turn_every{50};
} // namespace

Lane::Lane(Target& target, std::size_t most_records, std::size_t most_bytes,
           std::atomic<std::uint64_t>& dropped)
    : target_(target), most_records_(most_records), most_bytes_(most_bytes), dropped_(dropped),
      thread_([this] { work(); }) {}

Lane::~Lane() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
    dropped_ += waiting_.size();
}

void Lane::add(const Record& record) {
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.size() >= most_records_ || bytes_ + record.text.size() > most_bytes_) {
            ++dropped_;
            return;
        }
        bytes_ += record.text.size();
        waiting_.push_back(record);
    }
    wake_.notify_one();
}

void Lane::reopen() {
    {
        const std::lock_guard lock(mutex_);
        reopen_ = true;
    }
    wake_.notify_one();
}

/// Takes what waits to the target; false when that cannot take more for now.
bool Lane::step() {
    for (;;) {
        Record* next = nullptr;
        {
            const std::lock_guard lock(mutex_);
            if (waiting_.empty())
                return true;
            next = &waiting_.front(); // stays where it is while others are added behind it
        }
        if (!target_.take(*next))
            return false;
        const std::lock_guard lock(mutex_);
        bytes_ -= next->text.size();
        waiting_.pop_front();
    }
}

void Lane::work() {
    Clock::time_point last = Clock::time_point::max();
    bool took_all = true;
    for (;;) {
        bool reopen = false;
        {
            std::unique_lock lock(mutex_);
            const auto wanted = [this] { return reopen_ || ending_ || !waiting_.empty(); };
            if (took_all && !target_.busy() && !ending_)
                wake_.wait(lock, wanted);
            else if (!took_all || waiting_.empty())
                wake_.wait_for(lock, turn_every, [this] { return reopen_; });
            reopen = reopen_;
            reopen_ = false;
            if (ending_ && last == Clock::time_point::max())
                last = Clock::now() + patience;
        }
        if (reopen)
            target_.reopen();
        target_.turn();
        took_all = step();
        if (Clock::now() >= last ||
            (last != Clock::time_point::max() && took_all && !target_.busy()))
            return;
    }
}

} // namespace quarn::live
