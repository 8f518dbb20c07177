// The loops of tables. Each stops at the first length that leads out of the section.
#pragma once

#include <cstdint>

#include "packet.h"
#include "sections.h"

namespace quarn {

/// Takes `size` bytes from the front, or all that are left.
inline Bytes take_front(Bytes& bytes, std::size_t size) {
    const Bytes front = bytes.first(size < bytes.size() ? size : bytes.size());
    bytes = bytes.subspan(front.size());
    return front;
}

struct PmtSection {
    std::uint16_t pcr_pid = null_pid;
    Bytes descriptors; // of the program
    Bytes streams;
};
inline PmtSection pmt_section(Bytes section) {
    Bytes body = section_body(section);
    if (body.size() < 4)
        return {};
    PmtSection pmt;
    pmt.pcr_pid = read_13(body, 0);
    const std::size_t info = read_12(body, 2);
    body = body.subspan(4);
    pmt.descriptors = take_front(body, info);
    pmt.streams = body;
    return pmt;
}

/// Calls `f(stream_type, pid, descriptors)`.
template <typename F>
void each_stream(const PmtSection& pmt, F&& f) {
    for (Bytes rest = pmt.streams; rest.size() >= 5;) {
        const Bytes head = take_front(rest, 5);
        f(head[0], read_13(head, 1), take_front(rest, read_12(head, 3)));
    }
}

/// Calls `f(service_id, flags, descriptors)` for each service of an SDT section; flags:
/// running_status (3 bits), free_CA_mode, 4 bits of the length.
template <typename F>
void each_service(Bytes section, F&& f) {
    Bytes rest = section_body(section);
    take_front(rest, 3); // original_network_id, reserved
    while (rest.size() >= 5) {
        const Bytes head = take_front(rest, 5);
        f(read_16(head, 0), head[3], take_front(rest, read_12(head, 3)));
    }
}

/// Calls `f(transport_stream_id, original_network_id, descriptors)` for each transport stream of a
/// NIT section.
template <typename F>
void each_transport_stream(Bytes section, F&& f) {
    Bytes rest = section_body(section);
    if (rest.size() < 2)
        return;
    take_front(rest, 2u + read_12(rest, 0));
    take_front(rest, 2); // length of the loop
    while (rest.size() >= 6) {
        const Bytes head = take_front(rest, 6);
        f(read_16(head, 0), read_16(head, 2), take_front(rest, read_12(head, 4)));
    }
}

} // namespace quarn
