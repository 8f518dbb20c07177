// tables.cpp - faults of PSI and SI sections as they are sent: wrong CRC, too seldom, too often,
// absent, scrambled, tables that do not belong on their pid.
#include <algorithm>

#include "job.h"

namespace inject {

namespace {

struct Table {
    const char* name;
    int pid; // NO_PID: of a PMT
    int table_id;
    double limit; // seconds; 0: none
    const char* rule;
    bool has_minimum; // 25 ms (TR 101 290, 5.3)
};

constexpr Table TABLES[] = {
    {"pat", 0x00, 0x00, 0.5, "1.3.a", false},      {"cat", 0x01, 0x01, 0, "2.6", false},
    {"pmt", NO_PID, 0x02, 0.5, "1.5.a", false},    {"nit", 0x10, 0x40, 10, "3.1.a", true},
    {"nit_other", 0x10, 0x41, 10, "3.1.b", false}, {"sdt", 0x11, 0x42, 2, "3.5.a", true},
    {"sdt_other", 0x11, 0x46, 10, "3.5.b", false}, {"eit", 0x12, 0x4E, 2, "3.6.a", true},
    {"eit_other", 0x12, 0x4F, 10, "3.6.b", false}, {"rst", 0x13, 0x71, 0, "3.7", true},
    {"tdt", 0x14, 0x70, 30, "3.8", true},          {"tot", 0x14, 0x73, 30, "3.2", false},
};

const Table& table_by_parameter(Job& job, int& pid) {
    const std::string name = job.word("table");
    for (const Table& table : TABLES) {
        if (name == table.name) {
            pid = table.pid != NO_PID
                      ? table.pid
                      : job.ts.programmes[job.random.below(job.ts.programmes.size())].pmt_pid;
            return table;
        }
    }
    throw Refused("table=" + name +
                  ": pat, cat, pmt, nit, nit_other, sdt, sdt_other, eit, eit_other, "
                  "rst, tdt or tot is needed");
}

std::vector<Unit> units_of(const Capture& ts, int pid, int table_id) {
    auto out = ts.units(pid);
    std::erase_if(out, [table_id](const Unit& unit) { return table_of(unit.section) != table_id; });
    return out;
}

// The first unit from a time on.
const Unit& unit_behind(const Capture& ts, const std::vector<Unit>& units, double from) {
    for (const Unit& unit : units) {
        if (ts.items[unit.items.front()].time >= from) {
            return unit;
        }
    }
    throw Refused("the table does not come behind this place");
}

Span span_of(const Job& job, const Unit& unit) {
    return job.range(unit.items.front(), unit.items.back());
}

void apply_crc(Job& job) {
    Capture& ts = job.ts;
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    if (table.table_id == 1) {
        add_cat(ts);
    }
    const double from = job.start(1);
    const auto units = units_of(ts, pid, table.table_id);
    const Unit& unit = unit_behind(ts, units, from);
    Bytes section = unit.section;
    if (table.table_id == 0x70) {
        throw Refused("a TDT has no CRC");
    }
    section[section.size() - 1 - job.random.below(4)] ^=
        static_cast<std::uint8_t>(1U << job.random.below(8));
    ts.replace(unit, section);
    job.touches(unit.items.front(), pid);
    job.must("2.2", {}, {pid}, span_of(job, unit)).has("table_id", {table.table_id});
}

// Units with one of the section numbers, from one that stays to the next that does.
void leave_out(Job& job, const Table& table, int pid, const char* rule, int number) {
    Capture& ts = job.ts;
    const double length = table.limit * job.number("percent") / 100;
    const double from = job.start(length);
    auto units = units_of(ts, pid, table.table_id);
    const int extension = extension_of(unit_behind(ts, units, from).section);
    std::erase_if(units, [&](const Unit& unit) {
        return extension_of(unit.section) != extension ||
               (number >= 0 && number_of(unit.section) != number) ||
               ts.items[unit.items.front()].time < from;
    });
    const auto time = [&](std::size_t k) { return ts.items[units[k].items.front()].time; };
    std::size_t last = 1;
    while (last + 1 < units.size() && time(last) - time(0) < length) {
        ++last;
    }
    if (last >= units.size() || time(last) - time(0) < length) {
        throw Refused("the table does not come often enough behind this place");
    }
    // Sections 0 and 1 of an EIT alternate: both are gone between those that stay.
    const bool pair = table.table_id == 0x4E && number < 0;
    const std::size_t first = pair ? 2 : 1;
    for (std::size_t k = first; k < last; ++k) {
        ts.take_out(units[k]);
    }
    job.touches(units.at(first).items.front(), pid);
    Finding& finding =
        job.must(rule, {}, {pid}, job.range(units[0].items.front(), units[first - 1].items.back()));
    finding.ends(job.range(units[last].items.front(),
                           units[std::min(last + first - 1, units.size() - 1)].items.back()));
    finding.has("table_id", {table.table_id});
    if (number < 0 && rule == table.rule) {
        finding.kinds = {"gap"};
    }
    if (pair) {
        job.may(rule, {pid}, finding.begin);
    }
    ts.settle(pid);
}

void apply_gap(Job& job) {
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    if (table.limit <= 0) {
        throw Refused(std::string(table.name) + " has no limit");
    }
    leave_out(job, table, pid, table.rule, -1);
}

// One of the two sections of EIT present and following.
void apply_half(Job& job) {
    const Table& eit = *std::find_if(std::begin(TABLES), std::end(TABLES),
                                     [](const Table& table) { return table.table_id == 0x4E; });
    leave_out(job, eit, eit.pid, "3.6.c", job.whole("section"));
}

void apply_often(Job& job) {
    Capture& ts = job.ts;
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    const double from = job.start(1);
    const auto units = units_of(ts, pid, table.table_id);
    const Unit& unit = unit_behind(ts, units, from);
    const double ended = ts.items[unit.items.back()].time;
    const auto ids = ts.add(unit.items.back() + 1, packets_of(unit.section, pid));
    const std::size_t copy = ts.index_of(ids.front());
    if (ts.items[copy].time - ended > 0.02) {
        throw Refused("no null packet within 20 ms behind the table");
    }
    ts.settle(pid);
    job.touches(copy, pid);
    if (table.has_minimum) {
        job.must(table.rule, {"too_fast"}, {pid}, {ids.front(), ids.back()})
            .has("table_id", {table.table_id});
    }
}

void apply_foreign(Job& job) {
    Capture& ts = job.ts;
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    const int id = job.whole("id");
    const Bytes section = make_section(id, 1, 0, {0, 1, 2, 3, 4, 5, 6, 7});
    const auto ids = ts.add(ts.at(job.start(1)), packets_of(section, pid));
    ts.settle(pid);
    job.touches(ts.index_of(ids.front()), pid);
    job.must(table.rule, {"table_id"}, {pid}, {ids.front(), ids.back()}).has("table_id", {id});
}

void apply_absent(Job& job) {
    Capture& ts = job.ts;
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    const auto all = ts.payloads(pid);
    for (const std::size_t i : all) {
        ts.take_out(i);
    }
    ts.settle(pid);
    job.touches(all.at(0), pid);
    job.must(table.rule, {"absent"}, {pid}, {0, job.id(ts.at(0.6))})
        .ends({job.last_id(), job.last_id()});
}

void apply_scrambled(Job& job) {
    Capture& ts = job.ts;
    int pid = 0;
    const Table& table = table_by_parameter(job, pid);
    const double length = job.number("seconds");
    const double from = job.start(length);
    const auto packets = ts.payloads(pid, from, from + length);
    for (const std::size_t i : packets) {
        Packet& p = ts.items[i].bytes;
        p[3] = static_cast<std::uint8_t>(p[3] | 0x80);
    }
    job.touches(packets.at(0), pid);
    job.must(table.rule, {"scrambled"}, {pid}, job.point(packets[0]))
        .ends(job.point(packets.back()));
    // Nothing on the pid can be read meanwhile: a gap is the same thing said again.
    job.may(table.rule, {pid}, job.range(ts.at(from - 0.5), packets.back()));
}

constexpr Kind KINDS[] = {
    {"crc", "table=pat|cat|pmt|nit|nit_other|sdt|sdt_other|eit|eit_other|tot",
     "a section has a wrong CRC", apply_crc},
    {"table_gap",
     "table=pat|pmt|nit|nit_other|sdt|sdt_other|eit|eit_other|tdt|tot,percent=115..160",
     "a table comes too seldom", apply_gap},
    {"eit_half", "section=0|1,percent=115..200",
     "one of two sections of EIT present and following is missing", apply_half},
    {"table_often", "table=nit|sdt|eit|tdt", "a table comes twice within 25 ms", apply_often},
    {"psi_often", "table=pat|pmt", "PAT or PMT come twice within 25 ms, as is lawful", apply_often},
    {"foreign", "table=pat|cat|nit|sdt|eit|rst|tdt,id=193",
     "a table that does not belong on the pid", apply_foreign},
    {"absent", "table=pat|pmt", "PAT or PMT never come", apply_absent},
    {"psi_scrambled", "table=pat|pmt,seconds=1", "PAT or PMT are scrambled for a while",
     apply_scrambled},
};

} // namespace

void add_cat(Capture& ts) {
    const Bytes cat = make_section(1, 0xFFFF, 0, {0x09, 4, 0x0B, 0x00, 0xE6, 0x00});
    constexpr double every = 0.5;
    for (int back = 1; ts.duration - back * every > 0; ++back) {
        ts.add(ts.at(ts.duration - back * every), packets_of(cat, 1));
    }
    ts.settle(1);
}

std::span<const Kind> table_kinds() {
    return KINDS;
}

} // namespace inject
