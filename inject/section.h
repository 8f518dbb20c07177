// section.h - PSI sections as bytes: CRC, PAT and PMT taken apart and put together again
// (ISO/IEC 13818-1, 2.4.4).
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "packet.h"

namespace inject {

using Bytes = std::vector<std::uint8_t>;

struct Stream {
    int type = 0;
    int pid = 0;
    Bytes descriptors;
};

struct Pmt {
    int programme = 0;
    int version = 0;
    int pcr_pid = NULL_PID;
    Bytes descriptors;
    std::vector<Stream> streams;
};

struct Pat {
    int transport_stream = 0;
    int version = 0;
    std::vector<std::pair<int, int>> programmes; // number (0: network), pid
};

std::uint32_t crc32(const std::uint8_t* data, std::size_t size);
bool crc_holds(const Bytes& section);
// Writes the CRC of what stands before it into the last four bytes.
void seal(Bytes& section);

int table_of(const Bytes& section);
// table_id_extension; -1 for a section of the short form.
int extension_of(const Bytes& section);
int number_of(const Bytes& section);
int version_of(const Bytes& section);
// Both seal the section again.
void set_version(Bytes& section, int version);
void set_number(Bytes& section, int number, int last);

// The section must be one of its kind with a right CRC.
Pat parse_pat(const Bytes& section);
Pmt parse_pmt(const Bytes& section);
Bytes make(const Pat& pat);
Bytes make(const Pmt& pmt);
// A section of the long form with this body.
Bytes make_section(int table_id, int extension, int version, const Bytes& body);

// The packets that carry a section, which begins in the first; counters are 0.
std::vector<Packet> packets_of(const Bytes& section, int pid);

} // namespace inject
