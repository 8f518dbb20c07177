// Whether something comes from an input.
#pragma once

#include <cstdint>

namespace quarn::live {

enum class InputState : std::uint8_t {
    waiting, // opened, nothing came yet
    up,      // it is connected, or packets come
    gone,    // it was up; it is being tried again
};

} // namespace quarn::live
