// Work handed to a thread that is busy with other things.
#pragma once

#include <functional>
#include <future>
#include <mutex>
#include <utility>
#include <vector>

namespace quarn::live {

/// One thread runs what others put in. Never waits in the thread that runs.
class Mailbox {
  public:
    /// Puts it in, calls `wake`, and waits until it was run.
    template <typename Wake>
    void run_there(std::function<void()> work, Wake wake) {
        std::packaged_task<void()> task(std::move(work));
        auto done = task.get_future();
        {
            const std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        wake();
        done.get();
    }

    /// Runs what is there.
    void run() {
        std::vector<std::packaged_task<void()>> tasks;
        {
            const std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (auto& task : tasks)
            task();
    }

  private:
    std::mutex mutex_;
    std::vector<std::packaged_task<void()>> tasks_;
};

} // namespace quarn::live
