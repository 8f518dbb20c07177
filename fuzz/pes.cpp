// pes.cpp - PES headers and adaptation fields on the pids of a known program (video that carries
// the PCR, audio, subtitles) and on one of no program.
//
// An input is one byte that takes settings away, then records of 24 bytes: pid and header bits,
// length of the adaptation field, its first 6 bytes, the first 16 bytes of the payload.
#include <algorithm>
#include <cstring>

#include "harness.h"

namespace {

constexpr std::size_t PACKET = 188;
constexpr std::size_t MAX_RECORDS = 400;
constexpr unsigned FIRST_STREAM_PID = 0x101;

// Two programs; the first one's PMT is on 0x100 and lists 0x101 to 0x103, the second one's is never
// there.
constexpr std::uint8_t PAT[] = {0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xb0, 0x11, 0x00,
                                0x01, 0xc1, 0x00, 0x00, 0x00, 0x01, 0xe1, 0x00, 0x00,
                                0x02, 0xe2, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr std::uint8_t PMT[] = {0x47, 0x41, 0x00, 0x10, 0x00, 0x02, 0xb0, 0x1c, 0x00,
                                0x01, 0xc1, 0x00, 0x00, 0xe1, 0x01, 0xf0, 0x00, 0x1b,
                                0xe1, 0x01, 0xf0, 0x00, 0x0f, 0xe1, 0x02, 0xf0, 0x00,
                                0x06, 0xe1, 0x03, 0xf0, 0x00, 0x00, 0x00, 0x00, 0x00};

template <std::size_t N>
void feed_table(const twins& t, const std::uint8_t (&start)[N]) {
    std::uint8_t packet[PACKET];
    std::memset(packet, 0xff, sizeof packet);
    std::copy_n(start, N, packet);
    feed_packet(t, packet);
}

// The first byte: two bits for the pid, then payload_unit_start, adaptation field, payload, and
// three for what the continuity counter skips.
void feed_record(const twins& t, input_reader* in, unsigned* cc) {
    std::uint8_t packet[PACKET] = {};
    const unsigned bits = in->byte();
    const unsigned pid = FIRST_STREAM_PID + (bits & 3);
    const bool adaptation = (bits & 0x08) != 0;
    *cc += (bits >> 5) == 7 ? 0 : 1 + (bits >> 5);
    packet[0] = 0x47;
    packet[1] = static_cast<std::uint8_t>(pid >> 8 | ((bits & 0x04) != 0 ? 0x40 : 0));
    packet[2] = static_cast<std::uint8_t>(pid);
    packet[3] = static_cast<std::uint8_t>((adaptation ? 0x20 : 0) | (bits & 0x10) | (*cc & 15));
    const std::size_t length = in->byte();
    std::size_t payload = 4;
    std::size_t n = 6;
    const std::uint8_t* field = in->take(&n);
    if (adaptation) {
        packet[4] = static_cast<std::uint8_t>(length);
        std::copy_n(field, n, packet + 5);
        payload = 5 + length;
    }
    n = 16;
    const std::uint8_t* header = in->take(&n);
    if (payload < PACKET)
        std::copy_n(header, std::min(n, PACKET - payload), packet + payload);
    feed_packet(t, packet);
}

void run(input_reader* in) {
    const twins t = noisy_analyzers(in->byte());
    feed_table(t, PAT);
    feed_table(t, PMT);
    unsigned cc = 0;
    for (std::size_t i = 0; i < MAX_RECORDS && in->left() != 0; i++)
        feed_record(t, in, &cc);
    close_analyzers(t);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
