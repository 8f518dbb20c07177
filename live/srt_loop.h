// The thread of all SRT inputs.
#pragma once

#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "inputs/receiver.h"
#include "inputs/srt_receiver.h"
#include "worker.h"

namespace quarn::live {

/// libsrt has sockets and an epoll of its own, whose wait nothing else can end: what is put into
/// the mailbox may wait some milliseconds.
class SrtLoop final : public Worker, private inputs::Poller {
  public:
    SrtLoop();
    ~SrtLoop() override;

    /// Makes the input in the thread, so that libsrt's own threads inherit what it has, and calls
    /// back from it from then on. What making it throws is thrown here.
    const inputs::Receiver* adopt(const inputs::InputUrl& url, inputs::Consumer& consumer);
    void release(const inputs::Receiver* receiver);

  private:
    void turn() override;
    void wake() override {}
    bool watch(int socket, inputs::Receiver& receiver) override;
    void forget(int socket) override;

    std::unique_ptr<inputs::SrtLibrary> library_;
    int epoll_ = -1;
    std::vector<std::unique_ptr<inputs::Receiver>> receivers_;
    std::unordered_map<int, inputs::Receiver*> sockets_;
    inputs::StampClock stamps_; // not needed: SRT tells ages
    std::int64_t next_tick_ns_ = 0;
    bool more_ = false;
};

} // namespace quarn::live
