// Where the packets around a finding are.
#pragma once

#include <cstdint>
#include <string>

namespace quarn::cuts {

struct Where {
    std::string file;         // its path
    std::uint64_t packet = 0; // number of the finding's first packet in it, from 1
};

} // namespace quarn::cuts
