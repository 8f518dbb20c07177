// A thread that inputs live in.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "mailbox.h"

namespace quarn::live {

/// The part that all such threads have in common: they take no signals, run what is put into their
/// mailbox, and say when they last began a turn.
class Worker {
  public:
    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    virtual ~Worker() = default;

    std::chrono::steady_clock::time_point last_turn() const {
        return last_turn_.load(std::memory_order_relaxed);
    }

  protected:
    /// To be called at the end of the constructor, and finish() at the begin of the destructor, of
    /// the class that has turn() and wake().
    void begin(const char* name);
    void finish();
    /// Runs it in the thread and returns when that is done.
    void run_there(std::function<void()> work) {
        mailbox_.run_there(std::move(work), [this] { wake(); });
    }

    /// One turn: waits for something to do, and does a bounded part of it.
    virtual void turn() = 0;
    /// Ends the wait of a turn.
    virtual void wake() = 0;

  private:
    void run();

    Mailbox mailbox_;
    std::atomic<std::chrono::steady_clock::time_point> last_turn_{};
    bool over_ = false; // of the thread alone
    std::thread thread_;
};

} // namespace quarn::live
