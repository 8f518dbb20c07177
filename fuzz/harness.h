// harness.h - what the fuzz targets share: settings with everything switched on, logs that lead
// nowhere, packets in blocks of exactly their size, and the guard around one input.
//
// The guard ends an input where one of the named invariants is broken, and the process where
// anything else is: another assertion, memory still held when the input is done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "tsanalyze.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// What an input reads its fields from; beyond the end all bytes are 0.
class input_reader {
  public:
    input_reader(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}

    [[nodiscard]] std::size_t left() const { return left_; }
    std::uint8_t byte();
    unsigned word(); // 16 bits, least significant byte first
    // At most `count` bytes; sets `count` to how many there are. They lie in the input.
    const std::uint8_t* take(std::size_t* count);

  private:
    const std::uint8_t* next_;
    std::size_t left_;
};

// Runs `body` on one input. Returns 0, always: the type that targets return.
int run_input(void (*body)(input_reader* in), const std::uint8_t* data, std::size_t size);

// Inputs of this process that a named invariant has ended.
std::size_t inputs_ended_by_invariant();

// A stream that takes everything and keeps nothing.
FILE* nowhere();

// Leads both logs there, and everything into them.
void log_nowhere();

// Two contexts that are given the same packets. The second takes no shortcut for packets in order
// and for tables that repeat; what they have counted in the end must be the same.
struct twins {
    tsan_t quick;
    tsan_t careful;
};

// Contexts with all checks and traces on. Each bit of `less` takes one thing away, see the source.
twins noisy_analyzers(std::uint8_t less);

// Hands over one packet of 188 bytes as a block of its own. A loss of synchronisation is reported
// as a live host would, and the next packet goes on.
void feed_packet(const twins& t, const std::uint8_t* packet);

// Ends an input segment.
void end_segment(const twins& t);

// What a host does at the end of a run, and more: all reports, then the release.
void close_analyzers(const twins& t);
