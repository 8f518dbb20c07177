// How far some seconds of packets reach in an input that can be read again: by the PCRs in it.
#pragma once

#include <cstdint>

#include "inputs/input.h"

namespace quarn::cuts {

/// Reads parts of an input anew. Offsets are those of sync bytes. Seconds count by the PCRs of the
/// pid that has most of them there; what lies between PCRs that jump or are more than half a second
/// apart, and everything where there are none, counts by the usual bytes a second.
class Stretch {
  public:
    /// `rate`: bytes a second where no PCR tells. The input must outlive it.
    Stretch(inputs::Input& input, double rate) : input_(input), rate_(rate) {}

    /// The last packet that comes at least so long before `byte`; the begin of what is kept if that
    /// is less, or if it would be more than `most` bytes.
    std::uint64_t before(std::uint64_t byte, double seconds, std::uint64_t most);

    struct End {
        std::uint64_t byte = 0; // behind the last packet
        bool reached = true;    // false: the input has less so far
    };
    /// The end of the first packet that comes at least so long behind `byte`.
    End behind(std::uint64_t byte, double seconds, std::uint64_t most);

    /// Packets that begin from `begin` on and before `end`.
    std::uint64_t packets(std::uint64_t begin, std::uint64_t end);

  private:
    void scan(std::uint64_t from, std::uint64_t to, inputs::Sink& sink);
    std::uint64_t first_look(double seconds) const;

    inputs::Input& input_;
    double rate_;
};

/// Where the bytes of a packet begin whose sync byte is at `byte`: 192-byte packets have four in
/// front of it.
std::uint64_t front(std::uint64_t byte, std::size_t packet_size);

} // namespace quarn::cuts
