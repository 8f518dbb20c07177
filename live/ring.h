// Carries datagrams from the thread that receives them to the process that analyses them, in memory
// that both share: one writer, one reader, no locks, no system calls. Who finds it full does not
// wait: the writer drops and counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace quarn::live {

/// The largest datagram (UDP over IPv6 without jumbograms), and with it the longest block.
inline constexpr std::size_t largest_datagram = 65536;

/// How far both sides are, in bytes from the start, modulo 2^32. All zero: empty.
struct RingState {
    static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
    alignas(64) std::atomic<std::uint32_t> written;
    alignas(64) std::atomic<std::uint32_t> read;
};

/// What stands before the bytes of each datagram.
struct DatagramHead {
    std::uint32_t size = 0;
    std::uint32_t missing = 0; // datagrams that came before this one and are not in the ring
};

/// Both sides' view of a ring. `bytes` is a power of two of at most 2^30.
class RingView {
  public:
    RingView(RingState& state, std::span<std::uint8_t> bytes) : state_(&state), bytes_(bytes) {}

    /// Bytes that wait. More than the ring has: the other side is out of its mind.
    std::uint32_t waiting() const { return state_->written.load() - state_->read.load(); }
    /// How far the reader is: it changes whenever something was taken.
    std::uint32_t position() const { return state_->read.load(); }
    /// Empties it. Only while there is no reader.
    void clear() { state_->read.store(state_->written.load()); }

    /// The writer: appends a datagram of at most largest_datagram bytes. False when there is no
    /// room.
    bool put(const DatagramHead& head, std::span<const std::uint8_t> datagram);
    /// The reader: takes the oldest datagram out. `room` holds largest_datagram bytes. False when
    /// none waits.
    bool take(DatagramHead& head, std::span<std::uint8_t> room);

  private:
    void copy_in(std::uint32_t at, const void* from, std::size_t size);
    void copy_out(std::uint32_t at, void* to, std::size_t size) const;

    RingState* state_;
    std::span<std::uint8_t> bytes_;
};

} // namespace quarn::live
