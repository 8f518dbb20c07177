// tables.cpp - PAT and PMT sections with whatever in them, in framing that is right: lengths, CRC,
// pointer fields and continuity, so that the bodies reach the readers and printers.
//
// An input is one byte that takes settings away, then records: what (see below), which table, the
// body's length in two bytes, the body.
#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "harness.h"
#include "internal.h"
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
constexpr unsigned ON_PAT = 0x40; // raw records: on the PAT's pid, also a section in which one ends
constexpr unsigned TWICE = 0x80;  // all of it two times

// A section on its way, and the packet under construction.
struct section_writer {
    twins t;
    unsigned what;
    unsigned pid;
    std::uint8_t section[4096 + 3];
    std::size_t length;
    std::uint8_t packet[TS_PACKET_LEN];
};
unsigned g_cc;

void send(section_writer* w, bool unit_start) {
    w->packet[0] = 0x47;
    w->packet[1] = static_cast<std::uint8_t>((unit_start ? 0x40 : 0) | w->pid >> 8);
    w->packet[2] = static_cast<std::uint8_t>(w->pid);
    w->packet[3] = static_cast<std::uint8_t>(0x10 | (g_cc++ & 15));
    feed_packet(w->t, w->packet);
}

// Fills the packet from `at` on with section bytes, the rest with stuffing; returns how many.
std::size_t fill(section_writer* w, std::size_t at, std::size_t done) {
    const std::size_t n = std::min(w->length - done, TS_PACKET_LEN - at);
    std::memcpy(w->packet + at, w->section + done, n);
    std::memset(w->packet + at + n, 0xff, TS_PACKET_LEN - at - n);
    return n;
}

void send_section(section_writer* w) {
    const std::size_t pointer = (w->what & CUT) ? 181 : 0;
    std::memset(w->packet + 4, 0xff, TS_PACKET_LEN - 4);
    w->packet[4] = static_cast<std::uint8_t>(pointer);
    std::size_t done = fill(w, 5 + pointer, 0);
    send(w, true);
    for (unsigned n = 2; done < w->length; n++) {
        done += fill(w, 4, done);
        if (n != 2 || !(w->what & LOSE))
            send(w, false);
    }
}

// Puts the header and the CRC round a body that was written behind the header.
void frame(section_writer* w, unsigned table_id, std::size_t body) {
    const std::size_t claimed = std::min<std::size_t>(body + 4, 0xfff);
    w->section[0] = static_cast<std::uint8_t>(table_id);
    w->section[1] = static_cast<std::uint8_t>(0xb0 | claimed >> 8);
    w->section[2] = static_cast<std::uint8_t>(claimed);
    w->length = 3 + claimed;
    std::uint32_t crc = ts::crc32({w->section, w->length - 4});
    if (w->what & BAD_CRC)
        crc ^= 1;
    for (std::size_t i = 0; i < 4; i++)
        w->section[w->length - 4 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
}

// A PMT of three streams around the descriptors.
std::size_t describe(section_writer* w, const std::uint8_t* descs, std::size_t size) {
    const bool of_program = (w->what & KIND) == program_desc;
    const auto high = static_cast<std::uint8_t>(0xf0 | size >> 8);
    const auto low = static_cast<std::uint8_t>(size);
    std::uint8_t* p = w->section + 3;
    const auto put = [&p](std::initializer_list<std::uint8_t> bytes) {
        p = std::copy(bytes.begin(), bytes.end(), p);
    };
    put({0, 1, 0xc1, 0, 0, 0xe1, 1});
    if (of_program) {
        put({high, low});
        p = std::copy_n(descs, size, p);
    } else {
        put({0xf0, 0});
    }
    put({0x1b, 0xe1, 1, 0xf0, 0});
    put({0x0f, 0xe1, 2});
    if (of_program) {
        put({0xf0, 0});
    } else {
        put({high, low});
        p = std::copy_n(descs, size, p);
    }
    put({0x06, 0xe1, 3, 0xf0, 0});
    return static_cast<std::size_t>(p - w->section) - 3;
}

// A packet without payload_unit_start, or with it and any pointer field.
void send_payload(section_writer* w, const std::uint8_t* body, std::size_t size) {
    std::memset(w->packet + 4, 0xff, TS_PACKET_LEN - 4);
    std::copy_n(body, std::min(size, TS_PACKET_LEN - 4), w->packet + 4);
    send(w, !(w->what & CUT));
}

void send_record(section_writer* w, const std::uint8_t* body, std::size_t size) {
    const unsigned kind = w->what & KIND;
    switch (kind) {
    case program_desc:
    case stream_desc:
        frame(w, 2, describe(w, body, size));
        break;
    case raw_section:
        std::copy_n(body, size, w->section);
        w->length = size;
        break;
    case raw_payload:
    case media:
        send_payload(w, body, size);
        return;
    default:
        std::copy_n(body, size, w->section + 3);
        frame(w, kind == pat ? 0 : 2, size);
        break;
    }
    send_section(w);
}

// The pid of a record: the PAT's, a PMT's or a stream's, as the analyzer has learnt them.
unsigned pid_of(const tsan_ctx* tc, unsigned what, unsigned which) {
    const unsigned kind = what & KIND;
    if (kind == pat || (what & ON_PAT) || tc->nprogs == 0)
        return PAT_PID_NUM;
    const std::size_t i = which % tc->nprogs;
    const program_info& pg = tc->pg[i];
    if (kind == media)
        return pg.nstreams == 0 ? 0x1fffU : pg.stm[which / 8 % pg.nstreams].pid;
    return tc->pmt_pid[i];
}

void run(input_reader* in) {
    static section_writer w;
    w.t = noisy_analyzers(in->byte());
    g_cc = 0;
    for (std::size_t n = 0; n < MAX_RECORDS && in->left() >= 4; n++) {
        w.what = in->byte();
        const unsigned which = in->byte();
        std::size_t size = in->word() % MAX_BODY;
        const std::uint8_t* body = in->take(&size);
        w.pid = pid_of(w.t.quick, w.what, which);
        for (unsigned times = (w.what & TWICE) ? 2 : 1; times > 0; times--)
            send_record(&w, body, size);
    }
    close_analyzers(w.t);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
