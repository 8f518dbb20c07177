// make_captures.cpp - writes the captures of the golden runs into the directory it is given.
//
// Each capture shows one behaviour in few packets, so that the recorded output can be checked
// against the packets listed here. Times are in ticks of 90 kHz; 90 ticks are a millisecond.
#include <cstdio>
#include <string>

#include "ts_builder.h"

using ts::AUDIO_ID;
using ts::bytes;
using ts::elementary;
using ts::pat_section;
using ts::pmt_section;
using ts::stream;
using ts::VIDEO_ID;

namespace {

constexpr unsigned PAT = 0;
constexpr unsigned PMT = 4096; // of program 1
constexpr unsigned V = 256;    // its video, which carries the PCR
constexpr unsigned A = 257;
constexpr unsigned S = 258;

constexpr unsigned H264 = 0x1b;
constexpr unsigned MPEG2 = 0x02;
constexpr unsigned MPEG1_AUDIO = 0x03;
constexpr unsigned SECTIONS = 0x05; // not analyzed
constexpr unsigned PRIVATE_PES = 0x06;
constexpr unsigned AAC = 0x0f;
constexpr unsigned AC3 = 0x81;

const std::vector<elementary> VIDEO_AUDIO{{H264, V}, {AAC, A}};

// Packets 1 and 2: the tables of program 1.
stream one_program(const std::vector<elementary>& streams = VIDEO_AUDIO) {
    stream s;
    s.section(PAT, pat_section({{1, PMT}})).section(PMT, pmt_section(1, V, streams));
    return s;
}

// 16 packets: two pictures with sound, subtitles and a private section.
void clean_half(stream& s, std::uint64_t start) {
    for (std::uint64_t pcr : {start, start + 3600}) {
        s.pes(V, VIDEO_ID, {.pts = pcr + 18000, .dts = pcr + 14400}, pcr).data(V, 3);
        s.pes(A, AUDIO_ID, {.pts = pcr + 14490}).data(A);
        s.pes(S, ts::PRIVATE_ID, {.pts = pcr + 18000});
        s.section(259, ts::make_section(0x80, 0, {}, {1, 2, 3}));
    }
}

// 36 packets without a fault, every kind of stream among them.
stream clean() {
    const std::vector<elementary> streams{{H264, V},
                                          {AAC, A, ts::descriptor(0x0a, {'e', 'n', 'g', 0})},
                                          {PRIVATE_PES, S},
                                          {SECTIONS, 259}};
    stream s = one_program(streams);
    clean_half(s, 900000);
    s.section(PAT, pat_section({{1, PMT}})).section(PMT, pmt_section(1, V, streams));
    clean_half(s, 907200);
    return s;
}

// Two programs in turn; the PCR pid of the second is in no stream table.
stream two_programs() {
    const bytes pat = pat_section({{1, PMT}, {2, 4112}});
    const bytes second = pmt_section(2, 600, {{MPEG2, 512}, {MPEG1_AUDIO, 513}, {AC3, 514}});
    stream s;
    s.section(PAT, pat).section(PMT, pmt_section(1, V, VIDEO_AUDIO)).section(4112, second);
    for (std::uint64_t pcr : {900000ULL, 903600ULL}) {
        s.pes(V, VIDEO_ID, {.pts = pcr + 9000}, pcr).data(V).pes(A, AUDIO_ID, {.pts = pcr + 9000});
        s.pcr(600, pcr).pes(512, VIDEO_ID, {.pts = pcr + 9000}).data(512, 2);
        s.pes(513, AUDIO_ID, {.pts = pcr + 9000}).pes(514, ts::PRIVATE_ID, {.pts = pcr + 9000});
    }
    return s;
}

// 250 packets: 2 tables, 248 of video with a gap before packets 103 and 203.
stream longer() {
    stream s = one_program({{H264, V}});
    s.data(V, 100).lose(V).data(V, 100).lose(V, 4).data(V, 48);
    return s;
}

// Packet 5 repeats the PAT; 6 drops program 2 and adds 3, whose PMT follows at 7; 9 repeats that;
// 10 only swaps the entries; 11 leaves program 3 alone.
stream pat_diff() {
    const bytes first = pat_section({{1, PMT}, {2, 4112}});
    const bytes second = pat_section({{1, PMT}, {3, 4128}}, {.version = 1});
    stream s;
    s.section(PAT, first).section(PMT, pmt_section(1, V, VIDEO_AUDIO));
    s.section(4112, pmt_section(2, 512, {{MPEG2, 512}})).data(512).section(PAT, first);
    s.section(PAT, second).section(4128, pmt_section(3, 768, {{AAC, 769}, {H264, 768}})).data(769);
    s.section(PAT, second).section(PAT, pat_section({{3, 4128}, {1, PMT}}, {.version = 2}));
    s.section(PAT, pat_section({{3, 4128}}, {.version = 3})).data(V).data(768);
    return s;
}

// Packet 5 repeats the PMT, 6 replaces the audio pid, 8 swaps the entries and adds one that is not
// analyzed, 10 changes only the version, 12 drops the audio.
stream pmt_diff() {
    stream s = one_program();
    s.data(V).data(A).section(PMT, pmt_section(1, V, VIDEO_AUDIO));
    s.section(PMT, pmt_section(1, V, {{H264, V}, {AAC, S}}, {.version = 1})).data(S);
    const std::vector<elementary> swapped{{AAC, S}, {H264, V}, {SECTIONS, 259}};
    s.section(PMT, pmt_section(1, V, swapped, {.version = 2})).data(V);
    s.section(PMT, pmt_section(1, V, swapped, {.version = 3})).data(S);
    s.section(PMT, pmt_section(1, V, {{H264, V}}, {.version = 4})).data(V).data(S);
    return s;
}

// Video counters 0 1 3 3 (adaptation field only) 4 15 0 1, audio 5 6 2 0 1.
stream cc_break() {
    stream s = one_program();
    s.data(V, 2).lose(V).data(V).set_cc(V, 3).data(V).pcr(V, 900000).data(V);
    s.set_cc(V, 15).data(V, 3);
    s.set_cc(A, 5).data(A, 2).set_cc(A, 2).data(A).set_cc(A, 0).data(A, 2);
    return s;
}

// The video counter jumps to 0 in packet 4 and again in packet 101, in the second block that is
// read; a run that waits between the two sees a reset.
stream cc_reset() {
    stream s = one_program({{H264, V}});
    s.set_cc(V, 5).data(V).set_cc(V, 0).data(V).null(2).data(V, 94).set_cc(V, 0).data(V, 2);
    return s;
}

// Audio stamps against PCR 850000: 555 ms ahead, 444, exactly 500, 555 behind, then both stamps
// of one header; last, a stamp that is not new.
stream pcr_delta() {
    stream s = one_program();
    s.pes(A, AUDIO_ID, {.pts = 1}); // no PCR yet
    s.pes(V, VIDEO_ID, {.pts = 990000}, 850000);
    s.pes(A, AUDIO_ID, {.pts = 900000}).pes(A, AUDIO_ID, {.pts = 890000});
    s.pes(A, AUDIO_ID, {.pts = 895000}).pes(A, AUDIO_ID, {.pts = 800000}).data(A);
    s.pes(A, AUDIO_ID, {.pts = 900090, .dts = 900000});
    s.pes(A, AUDIO_ID, {.pts = 900090, .dts = 900000});
    return s;
}

// Gaps: from 0 (not measured), 40 ms, 41 ms, backwards, then to just before the wrap of the 33-bit
// clock, over it (12 ms), and to 0.
stream pcr_freq() {
    stream s = one_program();
    s.pcr(V, 0);
    for (std::uint64_t pcr : {9000ULL, 12600ULL, 16300ULL}) {
        s.pes(V, VIDEO_ID, {.pts = pcr + 9000}, pcr);
    }
    for (std::uint64_t pcr : {10000ULL, 8589934000ULL, 500ULL, 0ULL, 90000ULL}) {
        s.pcr(V, pcr);
    }
    return s;
}

// Audio before any picture, whose check waits for one; then 50 ticks, 0, 500 ms, 501 ms, 510 ms
// behind, and a header with both stamps.
stream av_delta() {
    stream s = one_program({{H264, V}, {AAC, A}, {MPEG2, S}});
    s.pes(A, AUDIO_ID, {.pts = 900000}).data(A);
    s.pes(V, VIDEO_ID, {.pts = 1000000, .dts = 996400}, 950000).data(A);
    for (std::uint64_t pts : {1000050ULL, 1000000ULL, 1045000ULL, 1045090ULL, 954100ULL}) {
        s.pes(A, AUDIO_ID, {.pts = pts});
    }
    s.pes(A, AUDIO_ID, {.pts = 1000089, .dts = 900000}).data(A);
    s.pes(S, VIDEO_ID, {.pts = 1}).pes(A, AUDIO_ID, {.pts = 1000090});
    return s;
}

// Streams 259 and 260 never get a packet; 40 packets of data. From packet 43 on the PMT lists one
// silent stream less.
stream no_data() {
    stream s = one_program({{H264, V}, {AAC, A}, {PRIVATE_PES, 259}, {AAC, 260}});
    for (int i = 0; i < 20; i++) {
        s.data(V).data(A);
    }
    s.section(PMT, pmt_section(1, V, {{H264, V}, {AAC, A}, {PRIVATE_PES, 259}}, {.version = 1}));
    s.data(V, 12);
    return s;
}

// Sections larger than a packet. The PAT starts near the end of packet 1 and ends in 2; the PMT
// takes 3, 5 and 6, with video between; the next version starts in the packet in which a repetition
// of the first one ends (9); a version with a wrong CRC (14, 15) is not used.
stream spanning() {
    const bytes big = ts::descriptor(0x80, bytes(120, 0xaa));
    const std::vector<elementary> streams{{H264, V, big}, {AAC, A, big}, {PRIVATE_PES, S, big}};
    const bytes first = pmt_section(1, V, streams);
    const bytes second = pmt_section(1, V, {{H264, V, big}, {AAC, A, big}}, {.version = 1});
    bytes damaged = pmt_section(1, V, {{H264, V, big}, {AAC, S, big}}, {.version = 2});
    damaged.back() ^= 1;

    stream s;
    s.sections(PAT, {pat_section({{1, PMT}})}, bytes(170, 0xff));
    const std::vector<ts::packet> parts = ts::section_packets(PMT, 0, {first});
    s.add(parts[0]).data(V).add(parts[1]).add(parts[2]).data(V).set_cc(PMT, 3);
    s.sections(PMT, {first, second}).data(V).data(A).sections(PMT, {damaged}).data(A).data(S);
    return s;
}

// Sections that are refused: a PAT with 256 sections (1), one without its fixed fields (2), a PMT
// without them (4), one of more than 1024 bytes (5 to 10). 3 and 11 are good.
stream refused_tables() {
    bytes descriptors;
    for (int i = 0; i < 4; i++) {
        const bytes d = ts::descriptor(0x80, bytes(252));
        descriptors.insert(descriptors.end(), d.begin(), d.end());
    }
    stream s;
    s.section(PAT, pat_section({{1, PMT}}, {.last = 255}));
    s.section(PAT, {0, 0xb0, 8, 0, 1, 0xc1, 0, 0, 0, 0, 0});
    s.section(PAT, pat_section({{1, PMT}}))
        .section(PMT, ts::make_section(2, 1, {}, {0xe1, 0, 0xf0}));
    s.sections(PMT, {pmt_section(1, V, VIDEO_AUDIO, {}, descriptors)});
    s.section(PMT, pmt_section(1, V, VIDEO_AUDIO)).data(V).data(A);
    return s;
}

// A PAT of two sections, of which the second comes first.
stream two_sections() {
    stream s;
    s.section(PAT, pat_section({{3, 4128}, {4, 4144}}, {.section = 1, .last = 1}));
    s.data(V);
    s.section(PAT, pat_section({{1, PMT}, {2, 4112}}, {.section = 0, .last = 1}));
    s.section(PMT, pmt_section(1, V, VIDEO_AUDIO)).data(V).data(A);
    s.section(4144, pmt_section(4, 512, {{MPEG2, 512}})).data(512);
    return s;
}

// Packets that belong to no program: the SDT, null packets, an unknown pid; one of video.
stream other_pids() {
    stream s = one_program({{H264, V}});
    s.section(ts::SDT_PID, ts::make_section(0x42, 1, {}, {0, 1, 0xff}));
    s.null(2).data(1000).data(V);
    return s;
}

// 30 packets, none of a known program.
stream no_tables() {
    stream s;
    s.data(V, 15).null(15);
    return s;
}

// The sixth packet does not begin with the sync byte.
stream out_of_sync() {
    stream s = one_program();
    s.data(V, 3);
    ts::packet bad = ts::make_packet({.pid = V, .cc = 3});
    bad[0] = 0x46;
    s.add(bad).data(V, 4);
    return s;
}

stream no_sync_at_all() {
    stream s;
    ts::packet bad = ts::make_packet({.pid = V});
    bad[0] = 0;
    s.add(bad).data(V, 4);
    return s;
}

stream empty_pat() {
    stream s;
    s.section(PAT, pat_section({}));
    return s;
}

stream pmt_pid_0() {
    stream s;
    s.section(PAT, pat_section({{1, 0}}));
    return s;
}

stream pcr_pid_0() {
    stream s;
    s.section(PAT, pat_section({{1, PMT}})).section(PMT, pmt_section(1, 0, VIDEO_AUDIO));
    return s;
}

// The hundredth packet, the last of the first block that is read, has a counter fault; so has 110.
stream interrupted() {
    stream s = one_program({{H264, V}});
    s.data(V, 97).lose(V).data(V, 10).lose(V).data(V, 11);
    return s;
}

struct capture {
    const char* name;
    stream (*make)();
};

constexpr capture CAPTURES[] = {
    {"clean", clean},
    {"two_programs", two_programs},
    {"longer", longer},
    {"pat_diff", pat_diff},
    {"pmt_diff", pmt_diff},
    {"cc_break", cc_break},
    {"cc_reset", cc_reset},
    {"pcr_delta", pcr_delta},
    {"pcr_freq", pcr_freq},
    {"av_delta", av_delta},
    {"no_data", no_data},
    {"spanning", spanning},
    {"refused_tables", refused_tables},
    {"two_sections", two_sections},
    {"other_pids", other_pids},
    {"no_tables", no_tables},
    {"out_of_sync", out_of_sync},
    {"no_sync_at_all", no_sync_at_all},
    {"empty_pat", empty_pat},
    {"pmt_pid_0", pmt_pid_0},
    {"pcr_pid_0", pcr_pid_0},
    {"interrupted", interrupted},
};

bool write(const std::string& dir, const char* name, const stream& s, const bytes& tail = {}) {
    const std::string path = dir + "/" + name + ".ts";
    if (!s.write(path, tail)) {
        perror(path.c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    for (const capture& c : CAPTURES) {
        if (!write(dir, c.name, c.make())) {
            return 1;
        }
    }
    // A file of nothing, and one whose last record is cut short.
    return write(dir, "empty", {}) && write(dir, "partial", clean(), bytes(187, 0x47)) ? 0 : 1;
}
