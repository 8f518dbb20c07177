#include "capture.h"

#include "ts_builder.h"

namespace quarn::inputs {
namespace {

long serial_of(const std::uint8_t* packet) {
    return packet[4] << 24 | packet[5] << 16 | packet[6] << 8 | packet[7];
}

ts::bytes big_endian(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

} // namespace

Capture& Capture::packets(int count, unsigned pid) {
    for (; count > 0; --count, ++serial_) {
        if (size_ == 192) {
            const auto stamp = big_endian(stamp_ & 0x3FFFFFFF);
            bytes.insert(bytes.end(), stamp.begin(), stamp.end());
            stamp_ += step_;
        }
        const auto packet =
            ts::make_packet({.pid = pid, .cc = serial_ % 16, .payload = big_endian(serial_)});
        bytes.insert(bytes.end(), packet.begin(), packet.end());
        if (size_ == 204)
            junk(16, 0xAA);
    }
    return *this;
}

Capture& Capture::wrong(int count) {
    for (; count > 0; --count) {
        packets(1);
        bytes[bytes.size() - (size_ == 204 ? 204 : 188)] = 0xB8;
    }
    return *this;
}

Capture& Capture::junk(std::size_t count, std::uint8_t value) {
    bytes.insert(bytes.end(), count, value);
    return *this;
}

Capture& Capture::cut(std::size_t count) {
    bytes.resize(bytes.size() - count);
    return *this;
}

Capture& Capture::cut_front(std::size_t count) {
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    return *this;
}

Capture& Capture::stamps(std::uint32_t first, std::uint32_t step) {
    stamp_ = first;
    step_ = step;
    return *this;
}

void Recorder::packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                       std::uint64_t byte) {
    for (std::size_t i = 0; i < count; ++i)
        packet(first + i * stride, {.byte = byte + i * stride});
}

void Recorder::packet(const std::uint8_t* packet, const PacketInfo& info) {
    infos.push_back(info);
    const long serial = serial_of(packet);
    if (!info.sync_right) {
        add("~" + std::to_string(serial));
        return;
    }
    if (first_ >= 0 && serial != last_ + 1)
        flush();
    if (first_ < 0)
        first_ = serial;
    last_ = serial;
}

void Recorder::sync_loss(const SyncLoss& loss) {
    static constexpr const char* words[] = {"missing", "inserted", "garbled"};
    add(words[static_cast<int>(loss.kind)] + ("(" + std::to_string(loss.begin_byte)) + "-" +
        std::to_string(loss.end_byte) + ":" + std::to_string(loss.bytes) + ")");
}

void Recorder::datagrams(const DatagramEvent& event) {
    static constexpr const char* words[] = {"loss", "order", "duplicate"};
    add(words[static_cast<int>(event.kind)] + ("(" + std::to_string(event.datagrams)) + ":" +
        std::to_string(event.packets) + ")");
}

void Recorder::truncated(std::uint64_t byte, std::int64_t bytes) {
    add("truncated(" + std::to_string(byte) + ":" + std::to_string(bytes) + ")");
}

std::string Recorder::text() {
    flush();
    return text_;
}

void Recorder::add(const std::string& word) {
    flush();
    if (!text_.empty())
        text_ += ' ';
    text_ += word;
}

void Recorder::flush() {
    if (first_ < 0)
        return;
    std::string run = std::to_string(first_);
    if (last_ > first_)
        run += "-" + std::to_string(last_);
    first_ = -1;
    add(run);
}

} // namespace quarn::inputs
