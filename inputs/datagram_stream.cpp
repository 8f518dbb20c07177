#include "datagram_stream.h"

#include <algorithm>

#include "framer.h"
#include "layout.h"

namespace quarn::inputs {
namespace {

using Bytes = std::span<const std::uint8_t>;

/// Whether packets of that size begin with the payload and go on to its end.
bool in_step(Bytes payload, const Layout& layout) {
    if (payload.size() < layout.size)
        return false;
    for (std::size_t offset = layout.prefix(); offset < payload.size(); offset += layout.size)
        if (payload[offset] != sync_byte)
            return false;
    return true;
}

std::size_t packet_size_of(Bytes payload) {
    for (const std::size_t size : packet_sizes)
        if (in_step(payload, {size}))
            return size;
    return 0;
}

} // namespace

DatagramContent look_into(Bytes datagram) {
    if (const std::size_t size = packet_size_of(datagram))
        return {size, datagram.size() / size, false};
    const auto rtp = parse_rtp(datagram);
    if (const std::size_t size = rtp ? packet_size_of(rtp->payload) : 0)
        return {size, rtp->payload.size() / size, true};
    return {};
}

void DatagramStream::push(const Payload& datagram) {
    ++datagrams_;
    const DatagramContent content = look_into(datagram.bytes);
    const auto rtp = parse_rtp(datagram.bytes);
    if (content.rtp || (rtp_ && rtp && rtp->payload_type == payload_type_)) {
        rtp_ = true;
        payload_type_ = rtp->payload_type;
        order_.push(*rtp, datagram.arrival, datagram.utc_us, *this);
    } else if (!(rtp_ && (rtp || is_rtcp(datagram.bytes)))) {
        // Reports, error correction and the like beside a stream are none of its packets.
        in_order(datagram);
    }
}

void DatagramStream::expire(Ticks now) {
    order_.expire(now, *this);
}

void DatagramStream::flush() {
    order_.flush(*this);
}

/// Gives what a framer says about one datagram its time, and its place in the stream.
class DatagramStream::Placer : public Sink {
  public:
    Placer(DatagramStream& stream, const Payload& payload)
        : stream_(stream), sink_(*stream.sink_),
          size_(stream.size_), info_{.arrival = stream.since_first(payload.arrival),
                                     .utc_us = payload.utc_us} {}

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t) override {
        for (; count > 0; --count, first += stride)
            keep(first, true);
    }
    void packet(const std::uint8_t* packet, const PacketInfo& info) override {
        keep(packet, info.sync_right);
    }
    void sync_loss(const SyncLoss& loss) override {
        const bool kept = loss.kind == SyncLoss::Kind::garbled;
        const std::uint64_t packets = kept ? (loss.end_byte - loss.begin_byte) / size_ : 0;
        sink_.sync_loss({loss.kind, place(), place() + packets * ts_packet_size, loss.bytes});
    }
    void datagrams(const DatagramEvent&) override {} // no framer tells of them
    void truncated(std::uint64_t, std::int64_t bytes) override {
        sink_.sync_loss(
            {SyncLoss::Kind::missing, place(), place(), static_cast<std::int64_t>(size_) - bytes});
    }

  private:
    std::uint64_t place() const { return stream_.kept_ * ts_packet_size; }
    void keep(const std::uint8_t* packet, bool sync_right) {
        info_.byte = place();
        info_.sync_right = sync_right;
        ++stream_.kept_;
        sink_.packet(packet, info_);
    }

    DatagramStream& stream_;
    Sink& sink_;
    std::uint64_t size_;
    PacketInfo info_;
};

void DatagramStream::in_order(const Payload& payload) {
    if (size_ == 0)
        size_ = packet_size_of(payload.bytes);
    if (size_ == 0)
        return; // nothing of a stream has come yet
    const Layout layout{size_, size_ == 192 ? 4u : 0u};
    Placer placer(*this, payload);
    const std::size_t packets = payload.bytes.size() / size_;
    if (payload.bytes.size() == packets * size_ && in_step(payload.bytes, layout)) {
        usual_packets_ = static_cast<std::int64_t>(packets);
        placer.packets(payload.bytes.data() + layout.prefix(), packets, size_, 0);
    } else {
        Framer(layout).feed(payload.bytes, true, placer);
    }
}

void DatagramStream::event(DatagramEvent::Kind kind, std::int64_t datagrams) {
    sink_->datagrams({kind, datagrams, datagrams * usual_packets_});
}

Ticks DatagramStream::since_first(Ticks arrival) {
    if (arrival == no_time)
        return no_time;
    if (origin_ == no_time)
        origin_ = arrival;
    last_ = std::max(last_, arrival - origin_);
    return last_;
}

} // namespace quarn::inputs
