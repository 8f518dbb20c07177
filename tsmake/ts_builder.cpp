// ts_builder.cpp - see ts_builder.h. Sizes that do not fit are mistakes of the caller and abort.
#include "ts_builder.h"

#include <algorithm>
#include <cassert>
#include <fstream>
#include <iterator>

namespace ts {

namespace {

std::uint8_t byte(std::uint64_t value) {
    return static_cast<std::uint8_t>(value & 0xff);
}

// Appends the low byte of each value.
void put(bytes& out, std::initializer_list<std::uint64_t> values) {
    std::transform(values.begin(), values.end(), std::back_inserter(out), byte);
}

void append(bytes& out, const bytes& more) {
    out.insert(out.end(), more.begin(), more.end());
}

// adaptation_field_length and the field behind it, stuffed to at least `least` bytes.
bytes adaptation_field(const adaptation& a, std::size_t least) {
    bytes field;
    const std::size_t wanted = std::max(a.length, least);
    if (a.pcr) {
        const std::uint64_t base = *a.pcr; // then six reserved bits, extension 0
        put(field, {0x10, base >> 25, base >> 17, base >> 9, base >> 1, base << 7 | 0x7e, 0});
    } else if (wanted > 0) {
        field.push_back(0);
    }
    field.resize(std::max(wanted, field.size()), 0xff);
    assert(field.size() <= 183);
    field.insert(field.begin(), byte(field.size()));
    return field;
}

// One time stamp: prefix, 33 bits in three parts, a marker bit behind each.
void put_stamp(bytes& out, std::uint64_t prefix, std::uint64_t value) {
    put(out, {prefix << 4 | (value >> 30 & 7) << 1 | 1, value >> 22, (value >> 14 & 0xfe) | 1,
              value >> 7, (value << 1 & 0xfe) | 1});
}

} // namespace

packet make_packet(const packet_fields& fields) {
    bytes p{0x47, byte((fields.pusi ? 0x40U : 0U) | fields.pid >> 8), byte(fields.pid)};
    const bool has_adaptation = fields.adapt.has_value() || !fields.has_payload;
    p.push_back(
        byte((has_adaptation ? 0x20U : 0U) | (fields.has_payload ? 0x10U : 0U) | fields.cc));
    const std::size_t least = fields.has_payload ? 0 : PACKET_SIZE - 5;
    if (has_adaptation)
        append(p, adaptation_field(fields.adapt.value_or(adaptation{}), least));
    append(p, fields.payload);
    assert(fields.pid <= NULL_PID && fields.cc <= 15 && p.size() <= PACKET_SIZE);
    p.resize(PACKET_SIZE, 0xff);
    packet result;
    std::copy(p.begin(), p.end(), result.begin());
    return result;
}

packet filled(unsigned pid, bool start, const bytes& payload) {
    packet_fields fields{.pid = pid, .pusi = start, .payload = payload};
    if (payload.size() < PACKET_SIZE - 4)
        fields.adapt = adaptation{.pcr = {}, .length = PACKET_SIZE - 5 - payload.size()};
    return make_packet(fields);
}

bytes pes_header(unsigned stream_id, const stamps& when) {
    const std::uint64_t pts = when.pts ? 1 : 0, dts = when.dts ? 1 : 0;
    bytes h;
    put(h, {0, 0, 1, stream_id, 0, 0, 0x80, pts << 7 | dts << 6, 5 * (pts + dts)});
    if (when.pts)
        put_stamp(h, 2 + dts, *when.pts);
    if (when.dts)
        put_stamp(h, 1, *when.dts);
    return h;
}

std::uint32_t crc32(std::span<const std::uint8_t> data) {
    std::uint32_t crc = 0xffffffff;
    for (std::uint8_t b : data) {
        crc ^= static_cast<std::uint32_t>(b) << 24;
        for (int bit = 0; bit < 8; bit++)
            crc = (crc & 0x80000000) != 0 ? crc << 1 ^ 0x04c11db7 : crc << 1;
    }
    return crc;
}

bytes make_section(unsigned table_id, unsigned ext, const table_head& head, const bytes& body) {
    const std::size_t length = 5 + body.size() + 4;
    assert(length <= 0xfff);
    bytes s;
    put(s, {table_id, 0xb0 | length >> 8, length}); // long header, reserved bits set
    put(s, {ext >> 8, ext, 0xc1 | head.version << 1, head.section, head.last});
    append(s, body);
    const std::uint32_t crc = crc32(s);
    put(s, {crc >> 24, crc >> 16, crc >> 8, crc});
    return s;
}

bytes pat_section(const std::vector<program>& programs, const table_head& head, unsigned tsid) {
    bytes body;
    for (const program& p : programs)
        put(body, {p.number >> 8, p.number, 0xe0 | p.pid >> 8, p.pid});
    return make_section(0, tsid, head, body);
}

bytes pmt_section(unsigned number, unsigned pcr_pid, const std::vector<elementary>& streams,
                  const table_head& head, const bytes& descriptors) {
    bytes body;
    const auto pid_and_descriptors = [&body](unsigned pid, const bytes& descs) {
        put(body, {0xe0 | pid >> 8, pid, 0xf0 | descs.size() >> 8, descs.size()});
        append(body, descs);
    };
    pid_and_descriptors(pcr_pid, descriptors);
    for (const elementary& es : streams) {
        body.push_back(byte(es.type));
        pid_and_descriptors(es.pid, es.descriptors);
    }
    return make_section(2, number, head, body);
}

bytes descriptor(unsigned tag, const bytes& data) {
    bytes d{byte(tag), byte(data.size())};
    append(d, data);
    return d;
}

bytes pointed(const bytes& section, const bytes& prefix) {
    bytes payload{byte(prefix.size())};
    append(payload, prefix);
    append(payload, section);
    return payload;
}

std::vector<packet> section_packets(unsigned pid, unsigned first_cc,
                                    const std::vector<bytes>& sections, const bytes& prefix) {
    bytes all = prefix;
    std::vector<std::size_t> starts;
    for (const bytes& sec : sections) {
        starts.push_back(all.size());
        append(all, sec);
    }
    std::vector<packet> result;
    for (std::size_t at = 0; at < all.size();) {
        // A pointer field takes a byte, so a section at the last place of a payload moves on.
        const auto next = std::lower_bound(starts.begin(), starts.end(), at);
        const bool starts_here = next != starts.end() && *next - at < PACKET_SIZE - 5;
        const std::size_t room = PACKET_SIZE - (starts_here ? 5 : 4);
        const std::size_t stop = starts_here || next == starts.end() ? all.size() : *next;
        const std::size_t count = std::min(room, stop - at);
        packet_fields fields{.pid = pid, .cc = first_cc++ & 15, .pusi = starts_here};
        if (starts_here)
            fields.payload.push_back(byte(*next - at));
        std::copy_n(&all[at], count, std::back_inserter(fields.payload));
        result.push_back(make_packet(fields));
        at += count;
    }
    return result;
}

// ---- a stream ----------------------------------------------------------------------------------

unsigned stream::step(unsigned pid) {
    unsigned& next = next_cc_[pid];
    const unsigned cc = next;
    next = (next + 1) & 15;
    return cc;
}

stream& stream::add(packet_fields fields) {
    fields.cc = fields.has_payload ? step(fields.pid) : (next_cc_[fields.pid] + 15) & 15;
    return add(make_packet(fields));
}

stream& stream::section(unsigned pid, const bytes& sec, const bytes& prefix) {
    return add(packet_fields{.pid = pid, .pusi = true, .payload = pointed(sec, prefix)});
}

stream& stream::sections(unsigned pid, const std::vector<bytes>& secs, const bytes& prefix) {
    std::vector<bytes> all = std::exchange(held_, {});
    all.insert(all.end(), secs.begin(), secs.end());
    for (const packet& p : section_packets(pid, next_cc_[pid], all, prefix)) {
        step(pid);
        add(p);
    }
    return *this;
}

stream& stream::part(unsigned pid, const bytes& sec, unsigned n) {
    return add(section_packets(pid, step(pid) + 16 - n % 16, {sec}).at(n));
}

stream& stream::pes(unsigned pid, unsigned stream_id, const stamps& when,
                    std::optional<std::uint64_t> pcr) {
    packet_fields fields{.pid = pid, .pusi = true, .payload = pes_header(stream_id, when)};
    if (pcr)
        fields.adapt = adaptation{.pcr = pcr};
    return add(fields);
}

stream& stream::data(unsigned pid, std::size_t count) {
    while (count-- > 0)
        add(packet_fields{.pid = pid});
    return *this;
}

stream& stream::pcr(unsigned pid, std::uint64_t value) {
    return add(packet_fields{.pid = pid, .has_payload = false, .adapt = adaptation{.pcr = value}});
}

stream& stream::null(std::size_t count) {
    packets_.insert(packets_.end(), count, make_packet({}));
    return *this;
}

bytes stream::flat() const {
    bytes all;
    for (const packet& p : packets_)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

bool stream::write(const std::string& path, const bytes& tail) const {
    bytes all = flat();
    append(all, tail);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(all.data()), static_cast<std::streamsize>(all.size()));
    return out.flush().good();
}

} // namespace ts
