// The ring between a receiver and its analyzer: what goes in comes out, whatever the two counters
// are, and nothing is read or written beside it.
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "live/ring.h"

namespace quarn::live {
namespace {

using Block = std::vector<std::uint8_t>;

/// A ring in the middle of bytes that nobody may touch.
class Guarded {
  public:
    explicit Guarded(std::size_t size, std::uint32_t start = 0) : size_(size) {
        state.written = state.read = start;
    }
    RingView view() { return {state, std::span(bytes_).subspan(guard, size_)}; }
    bool untouched() const {
        for (std::size_t i = 0; i < guard; ++i)
            if (bytes_[i] != mark || bytes_[guard + size_ + i] != mark)
                return false;
        return true;
    }
    const Block& bytes() const { return bytes_; }
    RingState state{};

  private:
    static constexpr std::size_t guard = 64;
    static constexpr std::uint8_t mark = 0xA5;
    std::size_t size_;
    Block bytes_ = Block(size_ + 2 * guard, mark);
};

Block block_of(std::size_t size, std::uint8_t first) {
    Block block(size);
    for (std::size_t i = 0; i < size; ++i)
        block[i] = static_cast<std::uint8_t>(first + i * 7);
    return block;
}

TEST(Ring, HandsOutWhatWasPutInAcrossEveryEnd) {
    // The counters wrap at 2^32, the bytes at the ring's size.
    for (const std::uint32_t start : {0u, 4096u - 8, 0u - 8, 0u - 3000}) {
        constexpr std::size_t size = 4096;
        Guarded ring(size, start);
        RingView view = ring.view();
        std::mt19937 random(start);
        std::deque<std::pair<Block, std::uint32_t>> waiting;
        std::size_t used = 0;
        Block room(largest_datagram);
        unsigned full = 0, empty = 0;
        for (unsigned i = 0; i < 20'000; ++i) {
            const bool filling = i / 100 % 2 == 0; // runs full and empty in turns
            if (random() % 8 < (filling ? 6u : 2u)) {
                const Block block =
                    block_of(random() % 9 == 0 ? random() % (size + 16) : random() % 200,
                             static_cast<std::uint8_t>(i));
                const std::size_t need = 8 + (block.size() + 7) / 8 * 8;
                const bool fits = used + need <= size;
                ASSERT_EQ(view.put({static_cast<std::uint32_t>(block.size()), i}, block), fits);
                if (fits) {
                    waiting.emplace_back(block, i);
                    used += need;
                }
                full += fits ? 0 : 1;
            } else {
                DatagramHead head;
                const bool one = view.take(head, room);
                ASSERT_EQ(one, !waiting.empty());
                empty += one ? 0 : 1;
                if (!one)
                    continue;
                const auto& [block, missing] = waiting.front();
                ASSERT_EQ(head.size, block.size());
                ASSERT_EQ(head.missing, missing);
                ASSERT_TRUE(std::equal(block.begin(), block.end(), room.begin()));
                used -= 8 + (block.size() + 7) / 8 * 8;
                waiting.pop_front();
            }
            ASSERT_EQ(view.waiting(), used);
        }
        EXPECT_TRUE(full > 100 && empty > 100 && ring.untouched()) << full << " " << empty;
    }
}

TEST(Ring, OfTheLargestDatagramIsFullWithOne) {
    Guarded ring(largest_datagram * 2);
    RingView view = ring.view();
    const Block block = block_of(largest_datagram, 1);
    const DatagramHead head{largest_datagram, 0};
    EXPECT_TRUE(view.put(head, block));
    EXPECT_FALSE(view.put(head, block));
    EXPECT_TRUE(view.put({8, 0}, std::span(block).first(8)));
    view.clear();
    DatagramHead taken;
    Block room(largest_datagram);
    EXPECT_FALSE(view.take(taken, room));
    EXPECT_TRUE(view.put(head, block)); // around the end
    EXPECT_TRUE(view.take(taken, room));
    EXPECT_EQ(room, block);
}

TEST(Ring, WritesNothingForAReaderOutOfItsMind) {
    constexpr std::size_t size = 1024;
    constexpr std::uint32_t written = 512;
    const Block block = block_of(16, 1);
    // Ahead of the writer, further behind than the ring is long, or just anywhere.
    for (const std::uint32_t read :
         {written + 1, written + 8, written + 1024, written - 1025, 0x80000000u, 0u - 1024}) {
        Guarded ring(size, written);
        RingView view = ring.view();
        ring.state.read = read;
        const Block before = ring.bytes();
        EXPECT_FALSE(view.put({16, 0}, block)) << read;
        EXPECT_GT(view.waiting(), size);
        EXPECT_TRUE(ring.bytes() == before && ring.state.written == written);
        view.clear(); // behind the reader's end the next one begins
        EXPECT_TRUE(view.put({16, 0}, block));
    }
}

TEST(Ring, FillsTheRoomAndNoMoreFromAHeadThatLies) {
    Guarded ring(1024);
    RingView view = ring.view();
    const Block block = block_of(64, 1);
    EXPECT_TRUE(view.put({64, 0}, block));
    EXPECT_TRUE(view.put({8, 7}, std::span(block).first(8)));
    DatagramHead head;
    Block room(32, 0);
    EXPECT_TRUE(view.take(head, std::span(room).first(16)));
    EXPECT_TRUE(std::equal(room.begin(), room.begin() + 16, block.begin()));
    EXPECT_EQ(Block(room.begin() + 16, room.end()), Block(16, 0));
    EXPECT_TRUE(view.take(head, room)); // stands where it did
    EXPECT_EQ(head.missing, 7u);
    EXPECT_EQ(view.waiting(), 0u);
}

} // namespace
} // namespace quarn::live
