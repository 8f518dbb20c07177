// What an elementary stream carries, by its stream_type and descriptors.
#pragma once

#include <cstdint>
#include <string>

#include "sections.h"
#include "summary.h"

namespace quarn {

/// Calls `f(tag, data)` for each descriptor that is whole.
template <typename F>
void each_descriptor(Bytes loop, F&& f) {
    while (loop.size() >= 2 && loop.size() - 2 >= loop[1]) {
        f(loop[0], loop.subspan(2, loop[1]));
        loop = loop.subspan(2u + loop[1]);
    }
}

struct StreamClass {
    StreamKind kind = StreamKind::unknown;
    Codec codec = Codec::unknown;
    std::string language;       // of the first descriptor that has one; lower case
    bool still_picture = false; // a descriptor declares still pictures
};

/// Sources: ISO/IEC 13818-1 tables 2-34 and 2-45, EN 300 468 6.1 and annex D, ATSC A/53 and A/52,
/// SCTE 35 and 57, SMPTE RP 224 for format identifiers, and what is in common use where none says.
StreamClass classify(std::uint8_t stream_type, Bytes descriptors, Bytes program_descriptors);

} // namespace quarn
