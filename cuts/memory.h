// The last seconds of a live input.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "measure/finding.h"

namespace quarn::cuts {

/// Packets in blocks of one size, allocated once. The thread of the input fills a block and hands
/// it over, pinned, to the one that writes; from then on nobody changes it, and it is not used for
/// other packets until it is unpinned.
class Blocks {
  public:
    static constexpr std::size_t packet_size = 188;
    static constexpr std::size_t packets = 87; // 16 kB

    /// As many blocks as there is room for in so many bytes, at least four. Takes no memory of the
    /// machine before it is used. Throws std::bad_alloc.
    explicit Blocks(std::size_t bytes);

    struct Head {
        std::uint64_t first = 0; // number of the first packet in the input
        Ticks arrival = 0;       // of the first packet
        std::size_t count = 0;   // packets
    };
    std::size_t count() const { return heads_.size(); }
    Head& head(std::size_t block) { return heads_[block]; }
    const Head& head(std::size_t block) const { return heads_[block]; }
    void add(std::size_t block, const std::uint8_t* packet);
    std::span<const std::uint8_t> bytes(std::size_t block) const {
        return {bytes_.get() + block * packets * packet_size, heads_[block].count * packet_size};
    }

    void pin(std::size_t block) { pins_[block].fetch_add(1, std::memory_order_relaxed); }
    /// Any thread.
    void unpin(std::size_t block) { pins_[block].fetch_sub(1, std::memory_order_release); }
    bool pinned(std::size_t block) const {
        return pins_[block].load(std::memory_order_acquire) != 0;
    }

  private:
    std::vector<Head> heads_;
    std::vector<std::atomic<std::uint32_t>> pins_;
    std::unique_ptr<std::uint8_t[]> bytes_;
};

/// Keeps packets of one input for a while. One thread, and no call allocates.
class Memory {
  public:
    /// `length`: how long packets are kept if there is room for them, ticks of 27 MHz.
    Memory(std::size_t bytes, Ticks length);

    /// Whether the next packet completes the last block: that is full, or was begun a tenth of a
    /// second ago. To be asked before each packet.
    bool completes(std::uint64_t number, Ticks arrival);
    /// The next packet. When no block is free, since all are pinned, it is not kept, nor is what
    /// came before it.
    void add(const std::uint8_t* packet, std::uint64_t number, Ticks arrival) {
        if (filling_ || begin(number, arrival))
            blocks_->add(block(size_ - 1), packet);
    }
    /// What follows goes into a new block.
    void complete() { filling_ = false; }

    /// Blocks that are kept, from the oldest; the last one may still be filled.
    std::size_t size() const { return size_; }
    std::size_t block(std::size_t i) const { return order_[(first_ + i) % order_.size()]; }
    const Blocks::Head& head(std::size_t i) const { return blocks_->head(block(i)); }
    bool filling() const { return filling_; }
    /// Which of them has that packet, or the last one that began before it; nothing if all began
    /// later.
    std::optional<std::size_t> find(std::uint64_t packet) const;
    /// The last one whose first packet came at that time or before it, else the oldest.
    std::size_t before(Ticks arrival) const;

    const std::shared_ptr<Blocks>& blocks() const { return blocks_; }
    static constexpr Ticks longest_block = ticks_per_second / 10;

  private:
    bool begin(std::uint64_t number, Ticks arrival);
    std::size_t take_oldest();
    std::optional<std::size_t> take_free();
    void retire(Ticks now);

    std::shared_ptr<Blocks> blocks_;
    Ticks length_;
    std::vector<std::size_t> order_; // a ring: `size_` blocks from `first_` on
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    std::vector<std::size_t> free_;
    std::vector<std::size_t> away_; // left the order while they were pinned
    bool filling_ = false;          // the last block takes more packets
    std::size_t wait_ = 0;          // packets until a free block is looked for again
};

} // namespace quarn::cuts
