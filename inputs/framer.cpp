#include "framer.h"

#include <algorithm>
#include <cstring>

#include "big_endian.h"

namespace quarn::inputs {

Ticks ArrivalStamps::arrival(std::uint32_t stamp) {
    constexpr std::uint32_t mask = (1u << 30) - 1;
    const std::uint32_t step = (stamp - stamp_) & mask;
    if (seen_ && step <= mask / 2)
        arrival_ += step;
    seen_ = true;
    stamp_ = stamp;
    return arrival_;
}

/// The sync bytes of five places in step, as far as the input has them.
struct Framer::Window {
    bool complete = true; // false: more input decides
    std::size_t there = 0;
    std::size_t right = 0;
    bool rest_right = true; // all but the first
};

Framer::Window Framer::window(std::uint64_t offset) const {
    Window window;
    for (std::size_t i = 0; i < sync_run; ++i, offset += size()) {
        if (!there(offset)) {
            window.complete = end_;
            break;
        }
        ++window.there;
        if (right(offset))
            ++window.right;
        else if (i > 0)
            window.rest_right = false;
    }
    return window;
}

/// Whether packets may be taken to begin there: five sync bytes in step, or near the end so many
/// as there are, if they are several or the last packet ends with the input.
bool Framer::locks(std::uint64_t offset, const Window& window) const {
    if (window.there == 0 || window.right < window.there)
        return false;
    const std::uint64_t last_end = offset + window.there * size() - layout_.prefix();
    return window.there >= 3 || last_end == limit();
}

bool Framer::holds(const Window& window) const {
    return window.right + 2 >= sync_run;
}

std::size_t Framer::feed(std::span<const std::uint8_t> bytes, bool end, Sink& sink) {
    bytes_ = bytes;
    end_ = end;
    sink_ = &sink;
    if (!begun_)
        begin();
    bool decided = true;
    while (decided) {
        if (!searching_)
            run();
        if (!there(next_) && !searching_)
            break;
        decided = searching_ ? search() : wrong_sync();
    }
    if (end_) {
        finish();
        return bytes.size();
    }
    if (searching_ && search_ > next_)
        deliver_held(); // it was not cut
    const std::uint64_t count = std::clamp(done(), base_, limit()) - base_;
    base_ += count;
    return static_cast<std::size_t>(count);
}

/// Less than a packet in front of the first one is a capture that began inside a packet: no fault.
void Framer::begin() {
    begun_ = true;
    if (next_ >= size() + layout_.prefix())
        sink_->sync_loss(
            {SyncLoss::Kind::inserted, 0, next_, static_cast<std::int64_t>(next_ % size())});
}

/// Hands over packets as long as the sync byte behind each is right.
void Framer::run() {
    const std::uint64_t from = next_;
    while (there(next_) && right(next_))
        next_ += size();
    if (next_ == from)
        return;
    const std::uint64_t begin = held_ ? from - size() : from;
    held_ = true;
    if (const std::uint64_t count = (next_ - begin) / size() - 1; count > 0)
        deliver(begin, static_cast<std::size_t>(count));
}

bool Framer::wrong_sync() {
    const Window window = this->window(next_);
    if (!window.complete)
        return false;
    if (window.rest_right && whole(next_)) {
        deliver_held();
        deliver_one(next_, false);
        next_ += size();
        return true;
    }
    if (holds(window))
        return garbled(next_ + size());
    searching_ = true;
    search_ = held_ ? next_ - size() + 1 : next_;
    return true;
}

/// Looks for the next place where packets are in step.
bool Framer::search() {
    while (there(search_)) {
        const void* byte = std::memchr(at(search_), sync_byte, bytes_behind(search_));
        if (!byte)
            break;
        search_ += static_cast<std::uint64_t>(static_cast<const std::uint8_t*>(byte) - at(search_));
        const Window window = this->window(search_);
        if (window.right == window.there && !window.complete)
            return false;
        if (locks(search_, window))
            return found(search_);
        ++search_;
    }
    search_ = std::max(search_, limit());
    if (end_)
        nothing_found();
    return false;
}

/// Packets are in step from `place` on: in the step that was lost, or in another one?
bool Framer::found(std::uint64_t place) {
    const std::uint64_t ahead = place < next_ ? 0 : (place - next_ + size() - 1) / size();
    const std::uint64_t old_step = next_ + ahead * size();
    if (place != old_step) {
        // In a run of packets of one pid 0x47 may come again at one place of each. Where the old
        // step is right as well, now or behind these, it has not been left.
        const Window now = window(old_step);
        const Window behind = window(old_step + sync_run * size());
        if (!now.complete || (!holds(now) && !behind.complete))
            return false;
        if (!holds(now) && !holds(behind)) {
            if (place < next_)
                lost(SyncLoss::Kind::missing, place, next_ - place);
            else
                lost(SyncLoss::Kind::inserted, place, (place - next_) % size());
            return true;
        }
    }
    if (old_step - next_ <= hold_limit)
        return garbled(std::max(old_step, next_ + size()));
    lost(SyncLoss::Kind::garbled, old_step, 0);
    return true;
}

/// The step holds though sync bytes are wrong: hands over the packets up to the first five right
/// ones from `end` on, or to where the step is lost after all.
bool Framer::garbled(std::uint64_t end) {
    while (end - next_ < hold_limit) {
        const Window window = this->window(end);
        if (!window.complete)
            return false;
        if (window.right == window.there || (!holds(window) && !right(end)))
            break;
        end += size();
    }
    end = std::min(end, limit());
    deliver_held();
    sink_->sync_loss({SyncLoss::Kind::garbled, next_, end, 0});
    for (; next_ < end && whole(next_); next_ += size())
        deliver_one(next_, right(next_));
    searching_ = false;
    return true;
}

/// Bytes are lost up to `end`. With bytes missing the packet before them was cut: it is not kept.
void Framer::lost(SyncLoss::Kind kind, std::uint64_t end, std::uint64_t bytes) {
    std::uint64_t begin = next_;
    if (kind == SyncLoss::Kind::missing)
        begin -= size();
    else
        deliver_held();
    sink_->sync_loss({kind, begin, end, static_cast<std::int64_t>(bytes)});
    held_ = searching_ = false;
    next_ = end;
}

/// Up to the end of the input nothing is in step. What fits the step that was lost is kept.
void Framer::nothing_found() {
    const std::uint64_t rest = limit() - next_;
    if ((rest + layout_.prefix()) % size() != 0)
        lost(SyncLoss::Kind::inserted, limit(), rest % size());
    else if (rest <= hold_limit)
        garbled(limit() + layout_.prefix());
    else
        lost(SyncLoss::Kind::garbled, limit(), 0);
}

/// The end of the input: hands over the last packet, if it is not cut.
void Framer::finish() {
    if (!held_)
        return;
    const std::uint64_t begin = next_ - size();
    const std::uint64_t behind = begin + ts_packet_size;
    if (whole(begin))
        deliver_held();
    if (limit() < behind || layout_.size == 204) {
        if (limit() < next_)
            sink_->truncated(begin, static_cast<std::int64_t>(limit() - begin));
    } else if (limit() > behind && !(limit() == next_ && layout_.first < layout_.prefix())) {
        // Something of the four bytes in front of a packet that is not there; all of them belong
        // to the last packet where they stand behind each.
        sink_->truncated(behind, static_cast<std::int64_t>(limit() - behind));
    }
}

/// Up to where bytes are not needed any more.
std::uint64_t Framer::done() const {
    if (searching_ && search_ > next_ + hold_limit)
        return search_;
    const std::uint64_t keep = held_ ? next_ - size() : next_;
    return keep < layout_.prefix() ? 0 : keep - layout_.prefix();
}

void Framer::deliver_held() {
    if (held_)
        deliver(next_ - size(), 1);
    held_ = false;
}

/// Packets in step with the right sync byte.
void Framer::deliver(std::uint64_t offset, std::size_t count) {
    if (!layout_.stamps) {
        sink_->packets(at(offset), count, layout_.size, offset);
        return;
    }
    for (; count > 0; --count, offset += size())
        deliver_one(offset, true);
}

void Framer::deliver_one(std::uint64_t offset, bool sync_right) {
    PacketInfo info{.byte = offset, .sync_right = sync_right};
    if (layout_.stamps) {
        const bool stamped = sync_right && offset >= base_ + layout_.prefix();
        info.arrival = stamped ? stamps_.arrival(load_be32(at(offset) - 4)) : stamps_.last();
    }
    sink_->packet(at(offset), info);
}

} // namespace quarn::inputs
