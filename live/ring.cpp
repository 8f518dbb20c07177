#include "live/ring.h"

#include <algorithm>
#include <cstring>

namespace quarn::live {
namespace {

/// Heads stand at multiples of this, so that none is cut at the ring's end.
constexpr std::size_t step = sizeof(DatagramHead);
static_assert(step == 8);

std::uint32_t taken_by(std::size_t size) {
    return static_cast<std::uint32_t>(step + (size + step - 1) / step * step);
}

} // namespace

void RingView::copy_in(std::uint32_t at, const void* from, std::size_t size) {
    const std::size_t begin = at & (bytes_.size() - 1);
    const std::size_t straight = std::min(size, bytes_.size() - begin);
    std::memcpy(bytes_.data() + begin, from, straight);
    std::memcpy(bytes_.data(), static_cast<const std::uint8_t*>(from) + straight, size - straight);
}

void RingView::copy_out(std::uint32_t at, void* to, std::size_t size) const {
    const std::size_t begin = at & (bytes_.size() - 1);
    const std::size_t straight = std::min(size, bytes_.size() - begin);
    std::memcpy(to, bytes_.data() + begin, straight);
    std::memcpy(static_cast<std::uint8_t*>(to) + straight, bytes_.data(), size - straight);
}

bool RingView::put(const DatagramHead& head, std::span<const std::uint8_t> datagram) {
    const std::uint32_t written = state_->written.load(std::memory_order_relaxed);
    const std::size_t used = written - state_->read.load(std::memory_order_acquire);
    const std::uint32_t need = taken_by(datagram.size());
    if (used > bytes_.size() || bytes_.size() - used < need)
        return false;
    copy_in(written, &head, sizeof head);
    if (!datagram.empty()) // an empty one may have no address
        copy_in(written + static_cast<std::uint32_t>(step), datagram.data(), datagram.size());
    state_->written.store(written + need, std::memory_order_release);
    return true;
}

bool RingView::take(DatagramHead& head, std::span<std::uint8_t> room) {
    const std::uint32_t read = state_->read.load(std::memory_order_relaxed);
    if (state_->written.load(std::memory_order_acquire) == read)
        return false;
    copy_out(read, &head, sizeof head);
    copy_out(read + static_cast<std::uint32_t>(step), room.data(),
             std::min<std::size_t>(head.size, room.size()));
    state_->read.store(read + taken_by(head.size), std::memory_order_release);
    return true;
}

} // namespace quarn::live
