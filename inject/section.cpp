// section.cpp - sections, PAT and PMT; see section.h.
#include "section.h"

#include <algorithm>

namespace inject {

namespace {

constexpr std::size_t LONG_HEADER = 8; // bytes up to last_section_number
constexpr std::size_t CRC_SIZE = 4;

void put16(Bytes& out, int value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8 & 0xFF));
    out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

int get16(const Bytes& in, std::size_t at) {
    return in.at(at) << 8 | in.at(at + 1);
}

Bytes slice(const Bytes& in, std::size_t at, std::size_t count) {
    const std::size_t end = std::min(in.size(), at + count);
    return at >= end ? Bytes{}
                     : Bytes(in.begin() + static_cast<std::ptrdiff_t>(at),
                             in.begin() + static_cast<std::ptrdiff_t>(end));
}

void append(Bytes& out, const Bytes& more) {
    out.insert(out.end(), more.begin(), more.end());
}

} // namespace

std::uint32_t crc32(const std::uint8_t* data, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= std::uint32_t{data[i]} << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000) != 0 ? crc << 1 ^ 0x04C11DB7 : crc << 1;
        }
    }
    return crc;
}

bool crc_holds(const Bytes& section) {
    return crc32(section.data(), section.size()) == 0;
}

void seal(Bytes& section) {
    const std::size_t at = section.size() - CRC_SIZE;
    const std::uint32_t crc = crc32(section.data(), at);
    for (std::size_t i = 0; i < CRC_SIZE; ++i) {
        section[at + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i) & 0xFF);
    }
}

int table_of(const Bytes& section) {
    return section.at(0);
}

int extension_of(const Bytes& section) {
    return (section.at(1) & 0x80) != 0 ? get16(section, 3) : -1;
}

int number_of(const Bytes& section) {
    return extension_of(section) < 0 ? 0 : section.at(6);
}

int version_of(const Bytes& section) {
    return section.at(5) >> 1 & 0x1F;
}

void set_version(Bytes& section, int version) {
    section.at(5) = static_cast<std::uint8_t>((section.at(5) & 0xC1) | (version & 0x1F) << 1);
    seal(section);
}

void set_number(Bytes& section, int number, int last) {
    section.at(6) = static_cast<std::uint8_t>(number);
    section.at(7) = static_cast<std::uint8_t>(last);
    seal(section);
}

Pat parse_pat(const Bytes& section) {
    Pat pat{get16(section, 3), version_of(section), {}};
    for (std::size_t i = LONG_HEADER; i + 4 + CRC_SIZE <= section.size(); i += 4) {
        pat.programmes.emplace_back(get16(section, i), get16(section, i + 2) & 0x1FFF);
    }
    return pat;
}

Pmt parse_pmt(const Bytes& section) {
    Pmt pmt;
    pmt.programme = get16(section, 3);
    pmt.version = version_of(section);
    pmt.pcr_pid = get16(section, 8) & 0x1FFF;
    const auto info = static_cast<std::size_t>(get16(section, 10) & 0x0FFF);
    pmt.descriptors = slice(section, 12, info);
    for (std::size_t i = 12 + info; i + 5 + CRC_SIZE <= section.size();) {
        const auto size = static_cast<std::size_t>(get16(section, i + 3) & 0x0FFF);
        pmt.streams.push_back(
            {section[i], get16(section, i + 1) & 0x1FFF, slice(section, i + 5, size)});
        i += 5 + size;
    }
    return pmt;
}

Bytes make(const Pat& pat) {
    Bytes body;
    for (const auto& [number, pid] : pat.programmes) {
        put16(body, number);
        put16(body, 0xE000 | pid);
    }
    return make_section(0, pat.transport_stream, pat.version, body);
}

Bytes make(const Pmt& pmt) {
    Bytes body;
    put16(body, 0xE000 | pmt.pcr_pid);
    put16(body, 0xF000 | static_cast<int>(pmt.descriptors.size()));
    append(body, pmt.descriptors);
    for (const Stream& stream : pmt.streams) {
        body.push_back(static_cast<std::uint8_t>(stream.type));
        put16(body, 0xE000 | stream.pid);
        put16(body, 0xF000 | static_cast<int>(stream.descriptors.size()));
        append(body, stream.descriptors);
    }
    return make_section(2, pmt.programme, pmt.version, body);
}

Bytes make_section(int table_id, int extension, int version, const Bytes& body) {
    Bytes out{static_cast<std::uint8_t>(table_id)};
    put16(out, 0xB000 | static_cast<int>(body.size() + LONG_HEADER - 3 + CRC_SIZE));
    put16(out, extension);
    out.push_back(static_cast<std::uint8_t>(0xC1 | (version & 0x1F) << 1));
    out.resize(LONG_HEADER);
    append(out, body);
    out.resize(out.size() + CRC_SIZE);
    seal(out);
    return out;
}

std::vector<Packet> packets_of(const Bytes& section, int pid) {
    std::vector<Packet> out;
    Bytes data{0};
    append(data, section);
    for (std::size_t at = 0; at < data.size(); at += PACKET_SIZE - 4) {
        Packet p = null_packet();
        set_pid(p, pid);
        p[1] = static_cast<std::uint8_t>(p[1] | (at == 0 ? 0x40 : 0));
        const Bytes part = slice(data, at, PACKET_SIZE - 4);
        std::copy(part.begin(), part.end(), p.begin() + 4);
        out.push_back(p);
    }
    return out;
}

} // namespace inject
