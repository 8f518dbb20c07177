// make_live.cpp - writes the input of the example host to standard output: datagrams of seven
// packets with losses that hit two pids alike, and stray bytes that cost the synchronisation.
#include <cstdio>

#include "ts_builder.h"

int main() {
    constexpr unsigned PMT = 4096;
    constexpr unsigned V = 256;
    constexpr unsigned A = 257;
    ts::stream s;
    // Datagram 1: tables and the start of both streams; nothing will come on pid 258.
    s.section(0, ts::pat_section({{1, PMT}}));
    s.section(PMT, ts::pmt_section(1, V, {{0x1b, V}, {0x0f, A}, {0x06, 258}}));
    s.pes(V, ts::VIDEO_ID, {.pts = 909000}, 900000).data(V);
    s.pes(A, ts::AUDIO_ID, {.pts = 909000}).data(A).data(V);
    // Datagram 2: two packets are lost on each pid.
    s.null(5).lose(V, 2).data(V).lose(A, 2).data(A);
    const std::size_t before = s.size() * ts::PACKET_SIZE;
    // Datagram 3 and half of a fourth, behind stray bytes.
    s.data(V, 7).pes(A, ts::AUDIO_ID, {.pts = 990000}).data(V, 3);
    const ts::bytes all = s.flat();
    const ts::bytes stray = {1, 2, 0x47, 4, 5};
    std::fwrite(all.data(), 1, before, stdout);
    std::fwrite(stray.data(), 1, stray.size(), stdout);
    std::fwrite(all.data() + before, 1, all.size() - before, stdout);
}
