// mutate.cpp - what libFuzzer does not come up with by itself: packets that stay aligned and keep
// their sync byte, and descriptors whose inner lengths add up to something near 256. Linked into
// the libFuzzer programs only.
#include <algorithm>
#include <cstring>
#include <random>

#include "harness.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed);

namespace {

// Descriptors that hold lists, texts or lengths of their own.
[[maybe_unused]] constexpr std::uint8_t TAGS[] = {
    0x0a, 0x0d, 0x1f, 0x21, 0x22, 0x24, 0x25, 0x26, 0x2a, 0x40, 0x41, 0x43, 0x44,
    0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x4b, 0x4d, 0x4e, 0x50, 0x51, 0x53, 0x54,
    0x55, 0x57, 0x58, 0x59, 0x5a, 0x5b, 0x5c, 0x5d, 0x5e, 0x5f, 0x62, 0x64, 0x66,
    0x67, 0x68, 0x6c, 0x6d, 0x6e, 0x7a, 0x7b, 0x7c, 0x83, 0x88};

using dice = std::minstd_rand;

std::size_t pick(dice& rnd, std::size_t below) {
    return below == 0 ? 0 : rnd() % below;
}

// Whole packets again, in sync.
[[maybe_unused]] std::size_t align(std::uint8_t* data, std::size_t size) {
    for (std::size_t at = 1; at < size; at += 188)
        data[at] = 0x47;
    return size;
}

// Puts a descriptor somewhere, in place of what is there.
[[maybe_unused]] std::size_t put_descriptor(std::uint8_t* data, std::size_t size, dice& rnd) {
    constexpr std::uint8_t LENGTHS[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 16, 20, 100, 250};
    if (size < 16)
        return size;
    std::size_t at = 5 + pick(rnd, size - 5);
    const std::size_t length = rnd() % 3 == 0 ? 240 + pick(rnd, 16) : LENGTHS[pick(rnd, 16)];
    data[at++] = TAGS[pick(rnd, sizeof TAGS)];
    if (at < size)
        data[at++] = static_cast<std::uint8_t>(length);
    for (std::size_t i = 0; i < length && at < size && i < 24; i++, at++) {
        const unsigned kind = rnd() % 4;
        if (kind == 0)
            data[at] = static_cast<std::uint8_t>(240 + pick(rnd, 16));
        else if (kind == 1)
            data[at] = static_cast<std::uint8_t>(pick(rnd, 12));
    }
    return size;
}

} // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed) {
    [[maybe_unused]] dice rnd(seed);
#if defined(MUTATE_PACKETS)
    size = LLVMFuzzerMutate(data, size, max_size);
    return rnd() % 16 == 0 ? size : align(data, size);
#else
    if (rnd() % 4 == 0)
        return put_descriptor(data, size, rnd);
    return LLVMFuzzerMutate(data, size, max_size);
#endif
}
