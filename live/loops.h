// The threads that live inputs run in.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "consumer.h"
#include "inputs/url.h"

namespace quarn::live {

/// Owns the threads and the inputs in them: `count` threads for UDP and RTP, each with its share of
/// the inputs; one for files and standard input, so that a slow disk delays no datagram; one for
/// SRT, as it has an epoll of its own. The latter two begin with their first input. No thread takes
/// a signal. All functions are for one thread at a time but for last_turn(), and not for a thread
/// of a Consumer's calls.
class Loops {
  public:
    enum class Handle : std::uint64_t {};

    explicit Loops(unsigned count);
    /// Ends all inputs and threads.
    ~Loops();
    Loops(const Loops&) = delete;
    Loops& operator=(const Loops&) = delete;

    /// Opens an input and hands it to a thread; the consumer is called from before the return on
    /// and must outlive the input. Throws std::runtime_error, std::system_error among them, with a
    /// message that says what is wrong (a port that is taken, no such interface, no such file, a
    /// file without a clock); what may come right by itself (no route to the group, nobody who
    /// answers) is not thrown but told as its state and tried again.
    Handle add(const inputs::InputUrl& url, inputs::Consumer& consumer);
    /// Ends an input in its own thread, behind handing over what was waiting for datagrams before
    /// it. Returns when no call will come any more. Others lose nothing by it.
    void remove(Handle handle);

    /// When the slowest of all threads last began a turn: at most a second ago if all is well.
    std::chrono::steady_clock::time_point last_turn() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn::live
