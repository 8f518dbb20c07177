// What this process takes of the machine.
#pragma once

#include <cstdint>

namespace quarn::live {

struct ProcessUse {
    double cpu_s = 0; // of all its threads
    double started_utc_s = 0;
    std::uint64_t resident_bytes = 0;
    std::uint64_t open_descriptors = 0;
    std::uint64_t most_descriptors = 0;
};

/// As it is now; what cannot be read is 0 (proc(5)).
ProcessUse process_use();

} // namespace quarn::live
