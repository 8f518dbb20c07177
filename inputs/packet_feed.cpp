#include "packet_feed.h"

#include <cstring>

namespace quarn::inputs {

void PacketFeed::add(const std::uint8_t* packet, bool sync_right, const Arrival& arrival) {
    std::memcpy(bytes_.data() + held_ * ts_packet_size, packet, ts_packet_size);
    infos_[held_] = {place(), arrival.ticks, arrival.utc_us, sync_right};
    ++kept_;
    if (++held_ == block)
        flush();
}

void PacketFeed::flush() {
    if (held_ == 0)
        return;
    const PacketInfo& last = infos_[held_ - 1];
    consumer_.raw({bytes_.data(), held_ * ts_packet_size}, {last.arrival, last.utc_us});
    for (std::size_t i = 0; i < held_; ++i)
        consumer_.packet(bytes_.data() + i * ts_packet_size, infos_[i]);
    held_ = 0;
}

void PacketFeed::sync_loss(const SyncLoss& loss, int packet_size) {
    flush();
    const bool kept = loss.kind == SyncLoss::Kind::garbled;
    const std::uint64_t packets =
        kept ? (loss.end_byte - loss.begin_byte) / static_cast<std::uint64_t>(packet_size) : 0;
    consumer_.sync_loss({loss.kind, place(), place() + packets * ts_packet_size, loss.bytes});
}

void PacketFeed::datagrams(const DatagramEvent& event) {
    flush();
    consumer_.datagrams(event);
}

void PacketFeed::truncated(std::int64_t bytes) {
    flush();
    consumer_.truncated(place(), bytes);
}

} // namespace quarn::inputs
