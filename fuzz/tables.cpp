// tables.cpp - PAT and PMT sections with whatever in them, in framing that is right: lengths, CRC,
// pointer fields and continuity, so that the bodies reach the readers and printers.
//
// An input is one byte that takes settings away, then records: what (see below), which table, the
// body's length in two bytes, the body.
#include "harness.h"
#include "ts_builder.h"

namespace {

constexpr std::size_t MAX_RECORDS = 24; // a rendering of the worst kind takes milliseconds
constexpr std::size_t MAX_BODY = 1100;  // bytes; more than a section may have

// What a record is, by its first byte.
constexpr unsigned KIND = 0x07;
enum kind : unsigned {
    pat = 0,         // the body follows section_length
    pmt = 1,         // the same
    program_desc,    // a PMT made of the body as descriptors of the program
    stream_desc,     // the same, of a stream
    raw_section = 4, // the body is the section, header and CRC included
    raw_payload = 5, // the body is the payload of one packet
    media = 6,       // packets of a stream
};
constexpr unsigned BAD_CRC = 0x08;
constexpr unsigned CUT = 0x10;    // the section starts at the end of a packet
constexpr unsigned LOSE = 0x20;   // its second packet is missing
constexpr unsigned ON_PAT = 0x40; // raw records: on the PAT's pid
constexpr unsigned TWICE = 0x80;  // all of it two times

const std::vector<ts::elementary> STREAMS{{0x1b, 0x101}, {0x0f, 0x102}, {0x06, 0x103}};

// A section with its header and CRC around a body that begins behind section_length.
ts::bytes framed(unsigned table_id, const ts::bytes& body) {
    const std::size_t length = body.size() + 4;
    ts::bytes s(3 + body.size());
    s[0] = static_cast<std::uint8_t>(table_id);
    s[1] = static_cast<std::uint8_t>(0xb0 | length >> 8);
    s[2] = static_cast<std::uint8_t>(length);
    std::copy(body.begin(), body.end(), s.begin() + 3);
    const std::uint32_t crc = ts::crc32(s);
    for (int shift = 24; shift >= 0; shift -= 8)
        s.push_back(static_cast<std::uint8_t>(crc >> shift));
    return s;
}

ts::bytes section_of(unsigned kind, const ts::bytes& body) {
    std::vector<ts::elementary> streams = STREAMS;
    switch (kind) {
    case program_desc:
        return ts::pmt_section(0, 0x101, streams, {}, body);
    case stream_desc:
        streams[1].descriptors = body;
        return ts::pmt_section(0, 0x101, streams);
    case raw_section:
        return body;
    default:
        return framed(kind == pat ? 0 : 2, body);
    }
}

// The pid of a record: the PAT's, a PMT's or a stream's, as the analyzer has learnt them.
unsigned pid_of(unsigned what, unsigned which) {
    const tsan_ctx& tc = context();
    const unsigned kind = what & KIND;
    if (kind == pat || (what & ON_PAT) || tc.nprogs == 0)
        return PAT_PID_NUM;
    const std::size_t i = which % tc.nprogs;
    const program_info& pg = tc.pg[i];
    if (kind == media)
        return pg.nstreams == 0 ? ts::NULL_PID : pg.stm[which / 8 % pg.nstreams].pid;
    return tc.pmt_pid[i];
}

void send(unsigned what, unsigned pid, ts::bytes body) {
    static unsigned cc = 0;
    if ((what & KIND) >= raw_payload) {
        body.resize(std::min<std::size_t>(body.size(), 184));
        return feed_packet(
            ts::make_packet({.pid = pid, .cc = cc++ & 15, .pusi = !(what & CUT), .payload = body})
                .data());
    }
    ts::bytes section = section_of(what & KIND, body);
    if ((what & BAD_CRC) && !section.empty())
        section.back() ^= 1;
    const ts::bytes before((what & CUT) ? 181 : 0, 0xff);
    unsigned n = 0;
    for (const ts::packet& p : ts::section_packets(pid, cc, {section}, before))
        if (++n != 2 || !(what & LOSE))
            feed_packet(p.data());
    cc += n;
}

void run(input_reader& in) {
    begin(in.byte());
    for (std::size_t n = 0; n < MAX_RECORDS && in.left() >= 4; n++) {
        const unsigned what = in.byte(), pid = pid_of(what, in.byte()), low = in.byte();
        const ts_bytes body = in.take((low | in.byte() * 256U) % MAX_BODY);
        for (unsigned times = (what & TWICE) ? 2 : 1; times > 0; times--)
            send(what, pid, {body.begin(), body.end()});
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
