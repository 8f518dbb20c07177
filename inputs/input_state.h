// Whether something comes from a live input.
#pragma once

#include <cstdint>

namespace quarn::inputs {

enum class InputState : std::uint8_t {
    waiting, // opened, nothing came yet
    up,      // it is connected, or packets come
    gone,    // it could not be opened, or was up; it is being tried again
    ended,   // a file or standard input that is over; said by who gets it, never by a receiver
};

} // namespace quarn::inputs
