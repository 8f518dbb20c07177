// Frames of a network, and captures of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inputs/endpoint.h"

namespace quarn::inputs {

using Bytes = std::vector<std::uint8_t>;

template <typename T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// Bytes written as hexadecimal digits, blanks between them or not.
Bytes hex(const std::string& digits);

/// Layers around a payload. Addresses and ports are those of the endpoint.
Bytes rtp(std::uint16_t sequence, const Bytes& payload, std::uint32_t ssrc = 1,
          std::uint8_t type = 33);
Bytes udp(const Endpoint& to, const Bytes& payload);
Bytes ipv4(const Endpoint& to, const Bytes& payload, std::uint16_t fragment = 0,
           const Bytes& options = {});
/// `next` is the type of the first header behind it, which `payload` begins with.
Bytes ipv6(const Endpoint& to, const Bytes& payload, std::uint8_t next = 17);
Bytes ethernet(const Bytes& payload, const std::string& type = "0800");

/// A pcap file, frame by frame, or the same as pcapng.
class PcapWriter {
  public:
    explicit PcapWriter(int link = 1, bool next_generation = false);
    /// `cut`: bytes of the frame's end that were not captured.
    PcapWriter& frame(const Bytes& frame, std::int64_t ns = 0, std::size_t cut = 0);

    Bytes bytes;

  private:
    bool next_generation_;
};

} // namespace quarn::inputs
