// Whether these tests run under an emulator of another machine, which does not start programs of
// that machine, joins no groups and keeps what the kernel tells of datagrams to itself.
#pragma once

#include <cstdlib>

inline bool emulated() {
    const char* const emulator = std::getenv("QUARN_EMULATOR");
    return emulator && *emulator;
}
