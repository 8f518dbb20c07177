#include "network.h"

#include "ts_builder.h"

namespace quarn::inputs {
namespace {

Bytes be16(std::size_t value) {
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Bytes be32(std::size_t value) {
    return be16(value >> 16) + be16(value);
}

Bytes le32(std::size_t value) {
    const Bytes be = be32(value);
    return {be.rbegin(), be.rend()};
}

Bytes address(const Endpoint& endpoint) {
    return {endpoint.address.begin(), endpoint.address.begin() + (endpoint.v6 ? 16 : 4)};
}

} // namespace

Bytes hex(const std::string& digits) {
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size();) {
        if (digits[i] == ' ') {
            ++i;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return bytes;
}

Bytes rtp(std::uint16_t sequence, const Bytes& payload, std::uint32_t ssrc, std::uint8_t type) {
    return Bytes{0x80, type} + be16(sequence) + be32(0) + be32(ssrc) + payload;
}

Bytes udp(const Endpoint& to, const Bytes& payload) {
    return be16(4000) + be16(to.port) + be16(8 + payload.size()) + be16(0) + payload;
}

Bytes ipv4(const Endpoint& to, const Bytes& payload, std::uint16_t fragment, const Bytes& options) {
    const std::size_t header = 20 + options.size();
    return Bytes{static_cast<std::uint8_t>(0x40 + header / 4), 0} + be16(header + payload.size()) +
           be16(77) + be16(fragment) + hex("40 11 0000 0A000001") + address(to) + options + payload;
}

Bytes ipv6(const Endpoint& to, const Bytes& payload, std::uint8_t next) {
    return hex("60000000") + be16(payload.size()) + Bytes{next, 64} + Bytes(16, 0xFE) +
           address(to) + payload;
}

Bytes ethernet(const Bytes& payload, const std::string& type) {
    return hex("01005E010101 020000000001") + hex(type) + payload;
}

PcapWriter::PcapWriter(int link, bool next_generation) : next_generation_(next_generation) {
    const auto type = static_cast<std::size_t>(link);
    if (next_generation) // stamps in nanoseconds
        bytes = hex("0A0D0D0A 0000001C 1A2B3C4D 0001 0000 FFFFFFFF FFFFFFFF 0000001C"
                    "00000001 00000020") +
                be16(type) + hex("0000 00000000 0009 0001 09 000000 0000 0000 00000020");
    else
        bytes = hex("4D3CB2A1 0200 0400 00000000 00000000 00000400") + le32(type);
}

PcapWriter& PcapWriter::frame(const Bytes& frame, std::int64_t ns, std::size_t cut) {
    const auto time = static_cast<std::uint64_t>(ns);
    const std::size_t kept = frame.size() - cut;
    const Bytes content(frame.begin(), frame.end() - static_cast<std::ptrdiff_t>(cut));
    if (next_generation_) {
        const Bytes padding((4 - kept % 4) % 4, 0);
        const Bytes length = be32(32 + kept + padding.size());
        bytes = std::move(bytes) + hex("00000006") + length + be32(0) +
                be32(static_cast<std::size_t>(time >> 32)) +
                be32(static_cast<std::size_t>(time & 0xFFFFFFFF)) + be32(kept) +
                be32(frame.size()) + content + padding + length;
    } else {
        bytes = std::move(bytes) + le32(static_cast<std::size_t>(time / 1'000'000'000)) +
                le32(static_cast<std::size_t>(time % 1'000'000'000)) + le32(kept) +
                le32(frame.size()) + content;
    }
    return *this;
}

} // namespace quarn::inputs
