// A thread with an epoll, for inputs that have descriptors or times.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "inputs/receiver.h"
#include "worker.h"

namespace quarn::live {

/// Turns are at least 5 ms apart as long as every input could be read to its end: waiting costs
/// nothing, since the kernel has stamped the datagrams, and each system call gets more of them.
class Loop final : public Worker, private inputs::Poller {
  public:
    explicit Loop(const char* name);
    ~Loop() override;

    /// Called back from this thread from now on.
    void adopt(std::unique_ptr<inputs::Receiver> receiver);
    void release(const inputs::Receiver* receiver);

  private:
    void turn() override;
    void wake() override;
    bool watch(int fd, inputs::Receiver& receiver) override;
    void forget(int fd) override;

    bool read_ready(const inputs::Turn& turn, int count);
    bool read_due(const inputs::Turn& turn);
    void tick(const inputs::Turn& turn);
    int wait_ms(std::int64_t now_ns) const;
    void pause();

    int epoll_;
    int wake_;
    std::vector<std::unique_ptr<inputs::Receiver>> receivers_;
    inputs::StampClock stamps_;
    std::int64_t next_tick_ns_ = 0;
    bool more_ = false; // some input was not read to its end
};

} // namespace quarn::live
