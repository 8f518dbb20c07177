// packets.cpp - whole packets as they come. An input is one byte that takes settings away, then
// packets of 188 bytes; every 16th packet ends a segment, so that losses are grouped.
#include "harness.h"

static void run(input_reader* in) {
    const twins t = noisy_analyzers(in->byte());
    for (unsigned n = 1; in->left() >= 188; n++) {
        std::size_t length = 188;
        feed_packet(t, in->take(&length));
        if (n % 16 == 0)
            end_segment(t);
    }
    close_analyzers(t);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
