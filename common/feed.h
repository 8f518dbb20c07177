// Hands what an input delivers to the stream that measures it.
#pragma once

#include "inputs/sink.h"
#include "measure/stream.h"

namespace quarn {

class Feed : public inputs::Sink {
  public:
    explicit Feed(Stream& stream) : stream_(stream) {}

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override {
        stream_.packets(first, count, stride, byte);
    }
    void packet(const std::uint8_t* packet, const inputs::PacketInfo& info) override {
        stream_.packet(packet, {info.byte, info.arrival, info.utc_us, info.sync_right});
    }
    void sync_loss(const inputs::SyncLoss& loss) override {
        stream_.sync_loss({kind(loss.kind), loss.begin_byte, loss.end_byte, loss.bytes});
    }
    void datagrams(const inputs::DatagramEvent& event) override {
        stream_.datagrams({kind(event.kind), event.datagrams, event.packets});
    }
    void truncated(std::uint64_t byte, std::int64_t bytes) override {
        stream_.truncated(byte, bytes);
    }

  private:
    static Kind kind(inputs::SyncLoss::Kind kind) {
        switch (kind) {
        case inputs::SyncLoss::Kind::missing:
            return Kind::missing;
        case inputs::SyncLoss::Kind::inserted:
            return Kind::inserted;
        case inputs::SyncLoss::Kind::garbled:
            break;
        }
        return Kind::garbled;
    }
    static Kind kind(inputs::DatagramEvent::Kind kind) {
        switch (kind) {
        case inputs::DatagramEvent::Kind::loss:
            return Kind::loss;
        case inputs::DatagramEvent::Kind::order:
            return Kind::order;
        case inputs::DatagramEvent::Kind::duplicate:
            break;
        }
        return Kind::duplicate;
    }

    Stream& stream_;
};

} // namespace quarn
