// Names what an input is that holds no packets.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace quarn::inputs {

/// True for the first bytes of a pcap or pcapng file, whatever its byte order.
bool is_pcap(std::span<const std::uint8_t> head);

/// A text like "an MP4 file; ..." that says what the bytes look like and what would be right.
std::string describe_not_ts(std::span<const std::uint8_t> head);

} // namespace quarn::inputs
