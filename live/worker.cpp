#include "worker.h"

#include <csignal>
#include <pthread.h>

namespace quarn::live {

void Worker::begin(const char* name) {
    last_turn_ = std::chrono::steady_clock::now();
    // A thread inherits the mask: blocked before it begins, no signal ever finds it.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_setname_np(thread_.native_handle(), name);
}

void Worker::finish() {
    run_there([this] { over_ = true; });
    thread_.join();
}

void Worker::run() {
    while (!over_) {
        last_turn_.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
        turn();
        mailbox_.run();
    }
}

} // namespace quarn::live
