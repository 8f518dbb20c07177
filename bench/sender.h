// Sends packets over loopback at an even pace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t datagram_size = 7 * 188;

struct Pace {
    unsigned first_port = 20'000;
    unsigned inputs = 1; // ports, one after the other
    double bits_per_second = 10e6;
    double seconds = 5;
};

/// Sends `data` (at least a datagram), from its start again when it is over, to each of the ports.
/// Returns how many datagrams that were, 0 if nothing can be sent.
std::uint64_t send_paced(std::span<const std::uint8_t> data, const Pace& pace);
