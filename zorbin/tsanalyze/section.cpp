// section.cpp - finds the sections of a table's pid in its packets: most lie in one packet, longer
// ones are collected over several. Called by tables for packets of their pids. The bytes of an
// unfinished section lie in the context; sections are handed on as views that hold for the call.
#include <algorithm>
#include <cstring>

#include <bitstream/mpeg/psi/psi.h>

#include "tables.h"

LOG_MODULE(0);

namespace {

// What a section of a table must be to be taken.
struct table_facts {
    const char* name;
    std::uint8_t table_id;
    unsigned min_length; // section_length that holds the fixed fields and the CRC
};

constexpr table_facts facts_of(table_kind table) {
    return table == table_kind::pat ? table_facts{"PAT", 0, 9} : table_facts{"PMT", 2, 13};
}

// One packet on its way through a collector.
struct section_input {
    tsan_ctx* tc;
    section_collector* c;
    table_kind table;
    unsigned pid;
    section_handler handle;
};

constexpr std::size_t HEADER_LEN = 3;   // up to and including section_length
constexpr std::size_t LAST_SECTION = 7; // offset of last_section_number

std::size_t claimed_size(ts_bytes header) {
    return HEADER_LEN + ((header[1] & 0x0fU) << 8 | header[2]);
}

// Whether a section of this size can be used at all.
bool acceptable(const section_input& in, std::size_t size) {
    const table_facts facts = facts_of(in.table);
    if (size >= HEADER_LEN + facts.min_length && size <= MAX_SECTION)
        return true;
    LOG(&g_log, WARN_level, "[%s] %s section of %zu bytes refused (pid%u) at %s\n", source(in.tc),
        facts.name, size, in.pid, ptag(in.tc));
    return false;
}

void hand_on(const section_input& in, const section_view& section) {
    // The loops of the section tables count in 8 bits and would never get past section 255.
    if (in.table == table_kind::pat && section.bytes[LAST_SECTION] == 255) {
        LOG(&g_log, WARN_level, "[%s] %s with last section 255 refused (pid%u) at %s\n",
            source(in.tc), facts_of(in.table).name, in.pid, ptag(in.tc));
        return;
    }
    in.handle(in.tc, section);
}

// Nothing that follows such a section can be trusted to begin one, until a unit start says so.
void drop(const section_input& in, const char* why) {
    in.c->used = 0;
    in.c->skipping = true;
    LOG(&g_log, DEBUG_level, "[%s] %s section dropped (pid%u): %s at %s\n", source(in.tc),
        facts_of(in.table).name, in.pid, why, ptag(in.tc));
}

// Appends at most `want` bytes in all; returns those of `data` that are left.
ts_bytes append(section_collector* c, ts_bytes data, std::size_t want) {
    const std::size_t n = std::min(data.size(), want - c->used);
    std::memcpy(c->bytes + c->used, data.data(), n);
    c->used += static_cast<unsigned>(n);
    return data.subspan(n);
}

// Adds bytes to the pending section and hands it on when it is complete. Leaves nothing pending
// if the section turns out not to be wanted.
void collect(const section_input& in, ts_bytes data) {
    section_collector* c = in.c;
    if (c->used < HEADER_LEN) {
        data = append(c, data, HEADER_LEN);
        if (c->used < HEADER_LEN)
            return;
        if (c->bytes[0] != facts_of(in.table).table_id)
            return drop(in, "other table id");
        if (!acceptable(in, claimed_size(c->bytes))) {
            c->used = 0;
            c->skipping = true;
            return;
        }
    }
    const std::size_t size = claimed_size(c->bytes);
    data = append(c, data, size);
    if (c->used < size)
        return;
    if (!psi_check_crc(c->bytes))
        return drop(in, "bad CRC");
    c->used = 0;
    hand_on(in, {ts_bytes(c->bytes).first(size), data});
}

// The first section that starts in a packet.
void start(const section_input& in, ts_bytes data) {
    if (data.size() >= HEADER_LEN && claimed_size(data) <= data.size()) {
        const std::size_t size = claimed_size(data);
        if (acceptable(in, size))
            hand_on(in, {data.first(size), data.subspan(size)});
    } else {
        collect(in, data);
    }
}

} // namespace

// A section that lies in its packet is taken as it stands; one that was collected must have the
// table's id and a correct CRC, since a lost packet leaves a hole in it. A changed PAT may give a
// program's collector another pid.
// intended: a packet that announces no start is taken for one when it begins like a section that
// ends in it.
void collect_sections(tsan_ctx* tc, section_collector* c, table_kind table, ts_packet pkt,
                      section_handler handle) {
    const section_input in = {tc, c, table, ts_pid(pkt), handle};
    if (c->pid != in.pid)
        *c = {};
    c->pid = in.pid;
    const ts_bytes payload = ts_get_payload(pkt);
    if (payload.empty())
        return;
    if (!ts_unit_start(pkt)) {
        if (c->used != 0)
            collect(in, payload);
        else if (!c->skipping && payload.size() >= HEADER_LEN &&
                 claimed_size(payload) <= payload.size())
            start(in, payload);
        return;
    }
    const ts_bytes data = payload.subspan(1);
    const std::size_t pointer = payload[0];
    if (c->used != 0)
        collect(in, data.first(std::min(pointer, data.size())));
    if (c->used != 0)
        drop(in, "cut short");
    c->skipping = false;
    if (pointer < data.size())
        start(in, data.subspan(pointer));
}

// What follows counts as well: a descriptor may claim it. (No section has the length 0 of "none".)
bool is_seen(const seen_section* seen, const section_view& section) {
    const std::size_t len = section.bytes.size();
    return seen->len == len && seen->behind == section.behind.size() &&
           std::memcmp(seen->bytes, section.bytes.data(), len) == 0 &&
           std::equal(section.behind.begin(), section.behind.end(), seen->bytes + len);
}

void note_seen(seen_section* seen, const section_view& section, std::size_t count) {
    std::uint8_t* end = std::copy(section.bytes.begin(), section.bytes.end(), seen->bytes);
    std::copy(section.behind.begin(), section.behind.end(), end);
    seen->len = static_cast<unsigned>(section.bytes.size());
    seen->behind = static_cast<unsigned>(section.behind.size());
    seen->count = count;
}
