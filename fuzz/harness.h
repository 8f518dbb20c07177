// harness.h - what the fuzz targets share: bytes of an input, two contexts with everything switched
// on that are given the same packets, and the guard around one input.
#pragma once

#include <cstddef>
#include <cstdint>

#include "context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// What an input reads its fields from; beyond the end all bytes are 0.
class input_reader {
  public:
    input_reader(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}
    [[nodiscard]] std::size_t left() const { return left_; }
    std::uint8_t byte() { return left_ == 0 ? std::uint8_t{0} : (left_--, *next_++); }
    ts_bytes take(std::size_t most);

  private:
    const std::uint8_t* next_;
    std::size_t left_;
};

// Runs `body` on one input and compares what the two contexts report. One of the named invariants
// ends the input; any other failed assertion, a difference, memory still held end the process.
// Returns 0, always: the type that targets return.
int run_input(void (*body)(input_reader& in), const std::uint8_t* data, std::size_t size);

// Makes the two contexts; each bit of `less` takes one thing away. run_input releases them.
void begin(std::uint8_t less);
const tsan_ctx& context();
// Hands over one packet of 188 bytes in a block of its own. A loss of synchronisation is reported
// as a live host would, and the next packet goes on.
void feed_packet(const std::uint8_t* packet);
void end_segment();
