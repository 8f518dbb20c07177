// A live input as the thread sees it that it lives in.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "consumer.h"
#include "moment.h"

namespace quarn::inputs {

class Receiver;

/// Something else on this machine has the port of an input, which may yet give it up.
struct PortTaken : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Who tells a receiver that its descriptor can be read (of SRT: that its socket has an event).
class Poller {
  public:
    virtual ~Poller() = default;
    /// False if that descriptor is always ready (a file) and cannot be waited for.
    virtual bool watch(int fd, Receiver& receiver) = 0;
    /// To be told before it is closed.
    virtual void forget(int fd) = 0;
};

/// What a thread lends its receivers for one turn.
struct Turn {
    Moment now; // when it began
    const StampClock& stamps;
};

/// One live input, made in any thread and then called by one. No call waits; each does a bounded
/// amount of work, so that none starves the others of its thread.
class Receiver {
  public:
    static constexpr std::int64_t never = INT64_MAX;

    virtual ~Receiver() = default;
    virtual void start(Poller& poller) = 0;
    /// The descriptor can be read, or it is due. Returns whether there may be more at once.
    virtual bool read(const Turn& turn) = 0;
    /// Several times a second.
    virtual void tick(const Turn& turn) = 0;
    /// When read() is wanted whatever the descriptor says, on the monotonic clock; or never.
    virtual std::int64_t due_ns() const { return never; }
    /// Hands over what is held back. Nothing is called behind it.
    virtual void stop() = 0;
};

} // namespace quarn::inputs
