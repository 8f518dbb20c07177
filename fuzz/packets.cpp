// packets.cpp - whole packets as they come. An input is one byte that takes settings away, then
// packets of 188 bytes; every 16th ends a segment, so that losses are grouped.
#include <algorithm>

#include "harness.h"

static void run(input_reader& in) {
    begin(in.byte());
    for (unsigned n = 1; in.left() > 0; n++) {
        std::uint8_t packet[TS_PACKET_LEN] = {};
        const ts_bytes given = in.take(TS_PACKET_LEN);
        std::copy(given.begin(), given.end(), packet);
        if (n % 64 != 0) // seldom out of sync
            packet[0] = MPEG_TS_SYNC;
        feed_packet(packet);
        if (n % 16 == 0)
            end_segment();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
