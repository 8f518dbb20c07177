// sections.cpp - payloads and sections with whatever in them on the pids of tables, through the
// assembly of sections, the tables and the rules about them. Their CRC is right where an input does
// not say otherwise, so that the bodies reach the readers.
//
// An input is records: what (see below), which pid, the size in two bytes, the bytes.
#include <algorithm>
#include <cstdlib>
#include <span>
#include <vector>

#include "measure/repetition.h"
#include "measure/scrambling.h"
#include "measure/sections.h"
#include "measure/tables.h"
#include "measure/unreferenced.h"
#include "ts_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using namespace quarn;

namespace {

// What a record is, by its first byte.
enum Kind : std::uint8_t {
    section,
    payload,
    more_payload,
    damage,
    silence,
    scrambled,
    later,
    kinds
};
constexpr std::uint8_t wrong_crc = 0x40;
constexpr std::uint8_t twice = 0x80;

void must(bool holds) {
    if (!holds)
        std::abort();
}

bool is_utf8(std::span<const char> text) {
    std::size_t wanted = 0;
    for (const char c : text) {
        const auto byte = static_cast<std::uint8_t>(c);
        if (wanted > 0 ? (byte & 0xC0) != 0x80 : (byte & 0xC0) == 0x80 || byte >= 0xF8)
            return false;
        wanted = wanted > 0 ? wanted - 1 : byte < 0x80 ? 0 : byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
    }
    return wanted == 0;
}

struct Host : EventSink, Output {
    void event(const At& at, EventBody&& body) override {
        const Place now = place(at);
        if (const auto* s = std::get_if<SectionEvent>(&body)) {
            must(s->begin.index <= at.index);
            repetition.section(*s, place(s->begin), now);
            scrambling.section(*s, now);
        } else if (const auto* c = std::get_if<TableChangedEvent>(&body)) {
            must(c->version_unchanged || !c->changes.empty());
            for (const TableChange& change : c->changes)
                must(is_utf8(change.before.value_or("")) && is_utf8(change.after.value_or("")));
        } else {
            const ProgramsPtr programs = std::get<ProgramsEvent>(body).programs;
            must(programs == tables.current());
            repetition.programs(programs, now);
            scrambling.programs(programs, now);
            unreferenced.programs(programs, now);
        }
    }
    void finding(Finding&& f) override {
        must(f.begin.packet <= f.end.packet && f.count > 0);
        must(f.shape == Shape::interval || f.begin.packet == f.end.packet);
    }
    void consequence(Rule) override {}

    Place place(const At& at) const {
        return {at.index + 1, at.byte, started + static_cast<Ticks>(at.index) * 1000, no_time,
                false};
    }
    void packet(std::uint16_t pid, const ts::bytes& bytes, bool unit_start) {
        // A block of its own, so that no read goes beyond it unseen.
        const std::vector<std::uint8_t> given(bytes.begin(), bytes.end());
        tables.feed(at(), pid, given, unit_start);
        const Place now = place(at());
        scrambling.seen(pid, now, now);
        unreferenced.seen(pid, now, now);
        repetition.seen(pid);
        repetition.advance(now);
        scrambling.advance(now);
        unreferenced.advance(now);
        ++index;
    }
    At at() const { return {index, index * packet_size}; }

    Options options = [] {
        Options o;
        o.dvb = true;
        return o;
    }();
    Tables tables{*this};
    Repetition repetition{options, *this};
    Scrambling scrambling{options, *this};
    Unreferenced unreferenced{options, *this};
    std::uint64_t index = 0;
    Ticks started = 0;
};

std::uint16_t pid_of(const Programs& programs, unsigned which) {
    const std::size_t count = programs.programs.size();
    if (which < 0x20 || count == 0)
        return which % 0x20;
    const Program& program = programs.programs[which % count];
    return which < 0xC0 || program.streams.empty() ? program.pmt_pid : program.streams[0].pid;
}

void feed_section(Host& host, std::uint16_t pid, ts::bytes bytes, bool right) {
    bytes.resize(std::min(bytes.size(), section_max - crc_size));
    if (bytes.size() < short_header_size)
        return host.packet(pid, ts::pointed(bytes), true);
    const std::size_t length = bytes.size() + crc_size - short_header_size;
    bytes[1] = static_cast<std::uint8_t>((bytes[1] & 0xF0) | length >> 8);
    bytes[2] = static_cast<std::uint8_t>(length);
    const std::uint32_t crc = ts::crc32(bytes) ^ (right ? 0u : 1u);
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(crc >> shift));
    bool first = true;
    for (const ts::packet& p : ts::section_packets(pid, 0, {bytes}))
        host.packet(pid, {p.begin() + 4, p.end()}, std::exchange(first, false));
}

void feed_record(Host& host, std::uint8_t what, std::uint16_t pid, const ts::bytes& bytes) {
    const Place now = host.place(host.at());
    switch (what % 0x40 % kinds) {
    case section:
        return feed_section(host, pid, bytes, (what & wrong_crc) == 0);
    case payload:
    case more_payload: {
        const auto size = static_cast<std::ptrdiff_t>(std::min<std::size_t>(bytes.size(), 184));
        return host.packet(pid, {bytes.begin(), bytes.begin() + size},
                           what % 0x40 % kinds == payload);
    }
    case damage:
        host.tables.disturbed(bytes.empty() ? null_pid : pid);
        return host.repetition.excuse(bytes.empty() ? null_pid : pid, now, now);
    case silence:
        host.started += static_cast<Ticks>(bytes.size()) * 100 * ticks_per_ms;
        return host.repetition.outage(now, host.place(host.at()));
    case scrambled:
        host.repetition.scrambled(pid, now);
        return host.scrambling.scrambling({pid, bytes.size() % 4 == 0, bytes.size() % 2 == 0, {}},
                                          now, now);
    default:
        host.started += static_cast<Ticks>(bytes.size()) * 100 * ticks_per_ms;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Host host;
    host.repetition.start(host.place(host.at()));
    std::span<const std::uint8_t> in(data, size);
    while (in.size() >= 4) {
        const std::uint8_t what = in[0];
        const std::uint16_t pid = pid_of(*host.tables.current(), in[1]);
        const auto wanted = static_cast<std::size_t>(in[2] << 8 | in[3]);
        in = in.subspan(4);
        const auto bytes = in.first(std::min(wanted % (section_max + 1), in.size()));
        in = in.subspan(bytes.size());
        for (int times = (what & twice) != 0 ? 2 : 1; times > 0; --times)
            feed_record(host, what, pid, {bytes.begin(), bytes.end()});
    }
    const Place end = host.place(host.at());
    host.repetition.finish(end);
    host.scrambling.finish(end);
    host.unreferenced.finish(end);
    for (const auto& [id, names] : host.tables.services())
        must(is_utf8(names.name.value_or("")) && is_utf8(names.provider.value_or("")));
    return 0;
}
