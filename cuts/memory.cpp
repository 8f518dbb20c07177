#include "memory.h"

#include <algorithm>
#include <cstring>

namespace quarn::cuts {

namespace {
constexpr std::size_t least_blocks = 4;
constexpr std::size_t block_bytes = Blocks::packets * Blocks::packet_size;
} // namespace

Blocks::Blocks(std::size_t bytes)
    : heads_(std::max(least_blocks, bytes / block_bytes)), pins_(heads_.size()),
      bytes_(std::make_unique_for_overwrite<std::uint8_t[]>(heads_.size() * block_bytes)) {}

void Blocks::add(std::size_t block, const std::uint8_t* packet) {
    Head& head = heads_[block];
    std::memcpy(bytes_.get() + (block * packets + head.count) * packet_size, packet, packet_size);
    ++head.count;
}

Memory::Memory(std::size_t bytes, Ticks length)
    : blocks_(std::make_shared<Blocks>(bytes)), length_(length), order_(blocks_->count()) {
    free_.reserve(order_.size());
    away_.reserve(order_.size());
    for (std::size_t i = order_.size(); i-- > 0;)
        free_.push_back(i);
}

bool Memory::completes(std::uint64_t number, Ticks arrival) {
    if (!filling_)
        return false;
    const Blocks::Head& last = head(size_ - 1);
    filling_ = last.count < Blocks::packets && arrival - last.arrival < longest_block &&
               number == last.first + last.count;
    return !filling_;
}

bool Memory::begin(std::uint64_t number, Ticks arrival) {
    if (wait_ > 0) {
        --wait_;
        return false;
    }
    retire(arrival);
    std::optional<std::size_t> next = take_free();
    while (!next && size_ > 0) {
        const std::size_t oldest = take_oldest();
        if (blocks_->pinned(oldest))
            away_.push_back(oldest);
        else
            next = oldest;
    }
    if (!next) {
        wait_ = Blocks::packets;
        return false;
    }
    blocks_->head(*next) = {number, arrival, 0};
    order_[(first_ + size_) % order_.size()] = *next;
    ++size_;
    return filling_ = true;
}

std::size_t Memory::take_oldest() {
    const std::size_t oldest = block(0);
    first_ = (first_ + 1) % order_.size();
    --size_;
    return oldest;
}

/// One that was used not long ago, so that no more of the machine's memory is touched than needed.
std::optional<std::size_t> Memory::take_free() {
    for (std::size_t i = away_.size(); i-- > 0;)
        if (!blocks_->pinned(away_[i])) {
            free_.push_back(away_[i]);
            away_[i] = away_.back();
            away_.pop_back();
        }
    if (free_.empty())
        return {};
    const std::size_t block = free_.back();
    free_.pop_back();
    return block;
}

/// Lets go of what is older than it need be.
void Memory::retire(Ticks now) {
    while (size_ > 1 && head(1).arrival <= now - length_) {
        const std::size_t oldest = take_oldest();
        (blocks_->pinned(oldest) ? away_ : free_).push_back(oldest);
    }
}

std::optional<std::size_t> Memory::find(std::uint64_t packet) const {
    std::size_t begin = 0;
    std::size_t end = size_;
    while (begin < end) {
        const std::size_t middle = begin + (end - begin) / 2;
        if (head(middle).first <= packet)
            begin = middle + 1;
        else
            end = middle;
    }
    if (begin == 0)
        return {};
    return begin - 1;
}

std::size_t Memory::before(Ticks arrival) const {
    std::size_t i = size_;
    while (i > 1 && head(i - 1).arrival > arrival)
        --i;
    return i > 0 ? i - 1 : 0;
}

} // namespace quarn::cuts
