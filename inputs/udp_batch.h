// Datagrams, many a system call.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <sys/socket.h>

#include "endpoint.h"

namespace quarn::inputs {

/// Room for as many datagrams as are taken at once, each of any size that UDP has (2 MB, of which
/// little is touched while datagrams are small). Shared by all inputs of a thread.
class UdpBatch {
  public:
    static constexpr std::size_t most = 32;

    struct Datagram {
        std::span<const std::uint8_t> bytes;
        std::int64_t stamp_ns = 0; // wall clock of the kernel; 0: none
        /// How many the socket had dropped until it came, modulo 2^32.
        std::optional<std::uint32_t> dropped;
    };

    UdpBatch();
    UdpBatch(const UdpBatch&) = delete;
    UdpBatch& operator=(const UdpBatch&) = delete;

    /// Takes what waits, up to `most`; less: nothing waits any more. The last batch is gone then.
    std::size_t receive(int fd);
    Datagram at(std::size_t index) const;
    /// Who sent it.
    Endpoint from(std::size_t index) const;
    /// Whether it was sent from that address.
    bool is_from(std::size_t index, const Endpoint& source) const;

  private:
    static constexpr std::size_t largest = 65536;
    /// Not a multiple of a page: heads of datagrams would fight for the same lines of the cache.
    static constexpr std::size_t stride = largest + 1344;

    struct Slot {
        sockaddr_in6 from;
        alignas(cmsghdr) std::array<std::uint8_t, 128> control;
        iovec bytes;
    };

    std::unique_ptr<std::uint8_t[]> room_;
    std::array<Slot, most> slots_{};
    std::array<mmsghdr, most> messages_{};
};

} // namespace quarn::inputs
