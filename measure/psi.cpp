// Readers of tables (ISO/IEC 13818-1, 2.4.4; EN 300 468, 5.2).
#include "psi.h"

#include <algorithm>

#include "psi_read.h"
#include "si_text.h"
#include "stream_kind.h"

namespace quarn {

namespace {

constexpr std::uint8_t ca_descriptor = 0x09;
constexpr std::uint8_t service_descriptor = 0x48;

void add_pid(std::vector<std::uint16_t>& pids, std::uint16_t pid) {
    if (std::find(pids.begin(), pids.end(), pid) == pids.end())
        pids.push_back(pid);
}

// Adds the pids of CA descriptors; returns whether there were any.
bool read_ca(Bytes descriptors, std::vector<std::uint16_t>& pids) {
    bool any = false;
    each_descriptor(descriptors, [&](std::uint8_t tag, Bytes bytes) {
        if (tag != ca_descriptor || bytes.size() < 4)
            return;
        any = true;
        add_pid(pids, read_13(bytes, 2));
    });
    return any;
}

ServiceNames read_names(Bytes descriptors) {
    ServiceNames names;
    each_descriptor(descriptors, [&](std::uint8_t tag, Bytes bytes) {
        if (tag != service_descriptor || bytes.size() < 2)
            return;
        const std::size_t provider_size = std::min<std::size_t>(bytes[1], bytes.size() - 2);
        names.provider = si_text(bytes.subspan(2, provider_size));
        const Bytes rest = bytes.subspan(2 + provider_size);
        if (!rest.empty())
            names.name = si_text(rest.subspan(1, std::min<std::size_t>(rest[0], rest.size() - 1)));
    });
    return names;
}

} // namespace

Pat read_pat(const Sections& sections) {
    Pat pat;
    for (const auto& section : sections) {
        const Bytes body = section_body(section);
        for (std::size_t i = 0; i + 4 <= body.size(); i += 4) {
            const std::uint16_t number = read_16(body, i);
            const std::uint16_t pid = read_13(body, i + 2);
            if (number == 0)
                pat.network_pid = pid;
            else if (pat.pmt_pids.size() < programs_max || pat.pmt_pids.contains(number))
                pat.pmt_pids[number] = pid;
        }
    }
    return pat;
}

Program read_pmt(std::uint16_t number, std::uint16_t pmt_pid, const Sections& sections) {
    Program program{number, pmt_pid, true, null_pid, {}, {}};
    for (const auto& section : sections) {
        const PmtSection pmt = pmt_section(section);
        if (&section == &sections.front())
            program.pcr_pid = pmt.pcr_pid;
        const bool all = read_ca(pmt.descriptors, program.ca_pids);
        each_stream(pmt, [&](std::uint8_t type, std::uint16_t pid, Bytes descriptors) {
            if (program.streams.size() == streams_max)
                return;
            StreamClass is = classify(type, descriptors, pmt.descriptors);
            const bool own = read_ca(descriptors, program.ca_pids);
            program.streams.push_back({pid, type, is.kind, is.codec, std::move(is.language),
                                       is.still_picture, all || own});
        });
    }
    return program;
}

std::vector<std::uint16_t> read_cat(const Sections& sections) {
    std::vector<std::uint16_t> pids;
    for (const auto& section : sections)
        read_ca(section_body(section), pids);
    return pids;
}

std::map<std::uint16_t, ServiceNames> read_sdt(const Sections& sections) {
    std::map<std::uint16_t, ServiceNames> services;
    for (const auto& section : sections)
        each_service(section, [&](std::uint16_t id, std::uint8_t, Bytes descriptors) {
            if (services.size() < programs_max)
                services.insert_or_assign(id, read_names(descriptors));
        });
    return services;
}

} // namespace quarn
