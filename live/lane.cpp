#include "lane.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace quarn::live {

namespace {
using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds turn_every{10};
} // namespace

/// What the thread works on.
class Lane::Queue {
  public:
    explicit Queue(std::unique_ptr<Target> target) : target_(std::move(target)) {}

    bool add(const Record& record, std::size_t most_records, std::size_t most_bytes);
    void reopen();
    void work();
    /// Whether the thread comes to its end in time. What still waits then is added to `dropped`.
    bool end(std::atomic<std::uint64_t>& dropped);

  private:
    bool step();

    const std::unique_ptr<Target> target_;

    std::mutex mutex_; // guards all below
    std::condition_variable wake_;
    std::condition_variable over_;
    std::deque<Record> waiting_;
    std::size_t bytes_ = 0; // of what waits
    bool reopen_ = false;
    bool ending_ = false;
    bool ended_ = false;
};

Lane::Lane(std::unique_ptr<Target> target, std::size_t most_records, std::size_t most_bytes,
           std::atomic<std::uint64_t>& dropped)
    : most_records_(most_records), most_bytes_(most_bytes), dropped_(dropped),
      queue_(std::make_shared<Queue>(std::move(target))),
      thread_([queue = queue_] { queue->work(); }) {}

Lane::~Lane() {
    if (queue_->end(dropped_))
        thread_.join();
    else
        thread_.detach();
}

void Lane::add(const Record& record) {
    if (!queue_->add(record, most_records_, most_bytes_))
        ++dropped_;
}

void Lane::reopen() {
    queue_->reopen();
}

bool Lane::Queue::add(const Record& record, std::size_t most_records, std::size_t most_bytes) {
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.size() >= most_records || bytes_ + record.text.size() > most_bytes)
            return false;
        bytes_ += record.text.size();
        waiting_.push_back(record);
    }
    wake_.notify_one();
    return true;
}

void Lane::Queue::reopen() {
    {
        const std::lock_guard lock(mutex_);
        reopen_ = true;
    }
    wake_.notify_one();
}

bool Lane::Queue::end(std::atomic<std::uint64_t>& dropped) {
    std::unique_lock lock(mutex_);
    ending_ = true;
    wake_.notify_one();
    const bool ended = over_.wait_for(lock, patience + longer, [this] { return ended_; });
    dropped += waiting_.size();
    return ended;
}

/// Takes what waits to the target; false when that cannot take more for now.
bool Lane::Queue::step() {
    for (;;) {
        Record* next = nullptr;
        {
            const std::lock_guard lock(mutex_);
            if (waiting_.empty())
                return true;
            next = &waiting_.front(); // stays where it is while others are added behind it
        }
        if (!target_->take(*next))
            return false;
        const std::lock_guard lock(mutex_);
        bytes_ -= next->text.size();
        waiting_.pop_front();
    }
}

void Lane::Queue::work() {
    Clock::time_point last = Clock::time_point::max();
    bool took_all = true;
    for (;;) {
        bool reopen = false;
        {
            std::unique_lock lock(mutex_);
            const auto wanted = [this] { return reopen_ || ending_ || !waiting_.empty(); };
            if (took_all && !target_->busy() && !ending_)
                wake_.wait(lock, wanted);
            else if (!took_all || waiting_.empty())
                wake_.wait_for(lock, turn_every, [this] { return reopen_; });
            reopen = reopen_;
            reopen_ = false;
            if (ending_ && last == Clock::time_point::max())
                last = Clock::now() + patience;
        }
        if (reopen)
            target_->reopen();
        target_->turn();
        took_all = step();
        if (Clock::now() >= last ||
            (last != Clock::time_point::max() && took_all && !target_->busy()))
            break;
    }
    const std::lock_guard lock(mutex_);
    ended_ = true;
    over_.notify_one();
}

} // namespace quarn::live
