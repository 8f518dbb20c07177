// Finds the packets in a run of bytes, and finds them again where bytes are missing or too many.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "layout.h"
#include "sink.h"

namespace quarn::inputs {

/// Unwraps the arrival stamps in front of 192-byte packets: 30 bits of a 27 MHz clock.
class ArrivalStamps {
  public:
    /// The arrival of a packet with that stamp. A step back is none: the source began anew.
    Ticks arrival(std::uint32_t stamp);
    /// That of the last packet.
    Ticks last() const { return arrival_; }

  private:
    bool seen_ = false;
    std::uint32_t stamp_ = 0;
    Ticks arrival_ = 0;
};

/// Takes bytes as they come and tells a sink what they hold. What it tells does not depend on how
/// the bytes were cut: where it cannot decide yet it asks for more.
///
/// A packet is handed over when the sync byte behind it was seen, since bytes that are missing
/// inside it are known by that only.
class Framer {
  public:
    explicit Framer(const Layout& layout) : layout_(layout), next_(layout.first) {}

    /// Frames `bytes`, which begin where the bytes that were done ended; `end` says that there are
    /// no more. Returns how many are done: all with `end`, else the rest must come again with more
    /// behind it (at most hold_limit and a few packets).
    std::size_t feed(std::span<const std::uint8_t> bytes, bool end, Sink& sink);

    /// So many bytes are held back to find out whether the packets in them are in step.
    static constexpr std::uint64_t hold_limit = 1 << 20;

  private:
    std::uint64_t limit() const { return base_ + bytes_.size(); }
    const std::uint8_t* at(std::uint64_t offset) const { return bytes_.data() + (offset - base_); }
    bool there(std::uint64_t offset) const { return offset < limit(); }
    bool right(std::uint64_t offset) const { return *at(offset) == sync_byte; }
    bool whole(std::uint64_t offset) const { return offset + ts_packet_size <= limit(); }
    std::size_t bytes_behind(std::uint64_t offset) const {
        return static_cast<std::size_t>(limit() - offset);
    }
    std::uint64_t size() const { return layout_.size; }

    struct Window;
    Window window(std::uint64_t offset) const;
    bool locks(std::uint64_t offset, const Window& window) const;
    bool holds(const Window& window) const;

    void begin();
    void run();
    // These return false where more bytes are needed to decide.
    bool wrong_sync();
    bool search();
    bool found(std::uint64_t place);
    bool garbled(std::uint64_t end);
    void lost(SyncLoss::Kind kind, std::uint64_t end, std::uint64_t bytes);
    void nothing_found();
    void finish();
    std::uint64_t done() const;

    void deliver_held();
    void deliver(std::uint64_t offset, std::size_t count);
    void deliver_one(std::uint64_t offset, bool sync_right);

    Layout layout_;
    ArrivalStamps stamps_;
    bool begun_ = false;
    std::uint64_t next_;       // where the next sync byte is expected
    bool held_ = false;        // the packet before it was not handed over yet
    bool searching_ = false;   // out of step since next_
    std::uint64_t search_ = 0; // the next place to look at

    // Of the call of feed() that is going on.
    std::span<const std::uint8_t> bytes_;
    std::uint64_t base_ = 0; // offset of bytes_ in the input
    bool end_ = false;
    Sink* sink_ = nullptr;
};

} // namespace quarn::inputs
