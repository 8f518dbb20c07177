// content.cpp - tables that say something else from a place on: streams and programmes that come,
// go and move; versions that do not tell; sections over several packets.
#include <algorithm>

#include "job.h"

namespace inject {

namespace {

std::vector<Unit> from_time(const Capture& ts, int pid, int table_id, double from,
                            double to = 1e9) {
    auto out = ts.units(pid);
    std::erase_if(out, [&](const Unit& unit) {
        const double time = ts.items[unit.items.front()].time;
        return table_of(unit.section) != table_id || time < from || time >= to;
    });
    if (out.empty()) {
        throw Refused("the table does not come behind this place");
    }
    return out;
}

// From the last to the first: what is added moves what stands behind it.
template <typename Change>
void rewrite(Capture& ts, int pid, const std::vector<Unit>& units, Change change) {
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
        ts.replace(*unit, change(unit->section));
    }
    ts.settle(pid);
}

// Where null packets are rare, what was put in may come too late to be lawful.
void refuse_gaps(const Capture& ts, int pid) {
    constexpr double CLOSE = 0.45; // seconds; the limit is 0.5
    double last = -1;
    for (const Unit& unit : ts.units(pid)) {
        const double time = ts.items[unit.items.back()].time;
        if (last >= 0 && time - last > CLOSE) {
            throw Refused("too few null packets: the table would come too seldom");
        }
        last = time;
    }
}

Span span_of(const Job& job, const Unit& unit) {
    return job.range(unit.items.front(), unit.items.back());
}

void drop(Capture& ts, int pid, double from, double to) {
    for (const std::size_t i : ts.of(pid, from, to)) {
        ts.take_out(i);
    }
    ts.settle(pid);
}

void without_stream(Pmt& pmt, int pid) {
    std::erase_if(pmt.streams, [pid](const Stream& stream) { return stream.pid == pid; });
}

// A stream that no programme takes its clock from.
int side_stream(Job& job) {
    const int pid = job.media_pid();
    for (const Programme& programme : job.ts.programmes) {
        if (programme.pmt.pcr_pid == pid) {
            throw Refused("the stream carries the clock");
        }
    }
    return pid;
}

// A pid goes on though nothing names it any more.
void expect_unreferenced(Job& job, int pid, double from, double to, std::size_t table) {
    const auto packets = job.ts.of(pid, from, to);
    if (packets.size() > 1 &&
        job.ts.items[packets.back()].time - job.ts.items[packets[0]].time > 0.7) {
        // It begins there, or with the last packet that was still named.
        const double time = job.ts.items[table].time;
        const auto before = job.ts.of(pid, time - 1, time);
        const std::size_t first = before.empty() ? table : std::min(table, before.back());
        job.must("3.4.a", {}, {pid}, job.until(first, packets[0], 0.15));
    }
}

void apply_pmt_remove(Job& job) {
    Capture& ts = job.ts;
    const int pid = side_stream(job);
    const bool keep = job.word("packets") == "keep";
    const int pmt_pid = ts.programme_of(pid)->pmt_pid;
    const auto units = from_time(ts, pmt_pid, 2, job.start(1, 2.5));
    const double time = ts.items[units[0].items.back()].time;
    job.touches(units[0].items.front(), pid);
    job.record.pid = pmt_pid;
    job.must("q.4", {}, {pmt_pid}, span_of(job, units[0])).change("removed", pid);
    if (keep) {
        expect_unreferenced(job, pid, time, 1e9, units[0].items.front());
    } else {
        drop(ts, pid, time, 1e9);
    }
    rewrite(ts, pmt_pid, units, [pid](const Bytes& section) {
        Pmt pmt = parse_pmt(section);
        without_stream(pmt, pid);
        ++pmt.version;
        return make(pmt);
    });
}

// The stream is there from the place on; before it, its packets and its entry are not.
void apply_pmt_add(Job& job) {
    Capture& ts = job.ts;
    const int pid = side_stream(job);
    const int pmt_pid = ts.programme_of(pid)->pmt_pid;
    const auto units = from_time(ts, pmt_pid, 2, job.start(1));
    const double time = ts.items[units[0].items.front()].time;
    job.touches(units[0].items.front(), pmt_pid);
    job.must("q.4", {}, {pmt_pid}, span_of(job, units[0])).change("added", pid);
    drop(ts, pid, 0, time);
    rewrite(ts, pmt_pid, from_time(ts, pmt_pid, 2, 0, time), [pid](const Bytes& section) {
        Pmt pmt = parse_pmt(section);
        without_stream(pmt, pid);
        pmt.version += 31;
        return make(pmt);
    });
}

void apply_pmt_move(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int to = ts.unused_pid();
    const Programme& programme = *ts.programme_of(pid);
    const int pmt_pid = programme.pmt_pid;
    const auto units = from_time(ts, pmt_pid, 2, job.start(1));
    const double time = ts.items[units[0].items.back()].time;
    job.record.parameters["to"] = to;
    job.touches(units[0].items.front(), pmt_pid);
    job.must("q.4", {}, {pmt_pid}, span_of(job, units[0])).detail["changes"] = {
        {"has", {{"op", "moved"}}}};
    if (pid == ts.clock_pid) {
        job.must("q.7", {"moved"}, {},
                 job.until(units[0].items.front(), units[0].items.back(), 0.5));
    }
    for (const std::size_t i : ts.of(pid, time)) {
        set_pid(ts.items[i].bytes, to);
    }
    rewrite(ts, pmt_pid, units, [pid, to](const Bytes& section) {
        Pmt pmt = parse_pmt(section);
        for (Stream& stream : pmt.streams) {
            stream.pid = stream.pid == pid ? to : stream.pid;
        }
        pmt.pcr_pid = pmt.pcr_pid == pid ? to : pmt.pcr_pid;
        ++pmt.version;
        return make(pmt);
    });
}

void apply_pmt_type(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int pmt_pid = ts.programme_of(pid)->pmt_pid;
    const int to = ts.kind_of(pid) == StreamKind::video ? 0x24 : 0x11;
    const auto units = from_time(ts, pmt_pid, 2, job.start(1));
    const int type = ts.type_of(pid);
    const int other = type == to ? (to == 0x24 ? 0x1B : 0x0F) : to;
    job.record.parameters["type"] = other;
    job.touches(units[0].items.front(), pmt_pid);
    job.must("q.4", {}, {pmt_pid}, span_of(job, units[0]));
    rewrite(ts, pmt_pid, units, [pid, other](const Bytes& section) {
        Pmt pmt = parse_pmt(section);
        for (Stream& stream : pmt.streams) {
            if (stream.pid == pid) {
                stream.type = other;
                stream.descriptors.clear();
            }
        }
        ++pmt.version;
        return make(pmt);
    });
}

// A stream says that its language is another one.
void apply_pmt_language(Job& job) {
    constexpr std::uint8_t LANGUAGE = 0x0A;
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int pmt_pid = ts.programme_of(pid)->pmt_pid;
    const auto units = from_time(ts, pmt_pid, 2, job.start(1));
    const std::string to = job.word("to");
    const Bytes said = {LANGUAGE,
                        4,
                        static_cast<std::uint8_t>(to.at(0)),
                        static_cast<std::uint8_t>(to.at(1)),
                        static_cast<std::uint8_t>(to.at(2)),
                        0};
    job.touches(units[0].items.front(), pmt_pid);
    job.must("q.4", {}, {pmt_pid}, span_of(job, units[0])).detail["changes"] = {
        {"has", {{"op", "changed"}, {"pid", pid}}}};
    rewrite(ts, pmt_pid, units, [pid, &said](const Bytes& section) {
        Pmt pmt = parse_pmt(section);
        for (Stream& stream : pmt.streams) {
            if (stream.pid != pid) {
                continue;
            }
            Bytes others;
            for (std::size_t at = 0; at + 2 <= stream.descriptors.size();) {
                const std::size_t end =
                    std::min(stream.descriptors.size(), at + 2 + stream.descriptors[at + 1]);
                if (stream.descriptors[at] != LANGUAGE) {
                    others.insert(others.end(), stream.descriptors.begin() + static_cast<long>(at),
                                  stream.descriptors.begin() + static_cast<long>(end));
                }
                at = end;
            }
            stream.descriptors = said;
            stream.descriptors.insert(stream.descriptors.end(), others.begin(), others.end());
        }
        ++pmt.version;
        return make(pmt);
    });
}

// A programme of streams that are there already, with a PMT behind each PAT.
void apply_pat_add(Job& job) {
    Capture& ts = job.ts;
    const bool ghost = job.whole("ghost") != 0;
    const auto units = from_time(ts, 0, 0, job.start(1, 2.5));
    const int pmt_pid = ts.unused_pid();
    Pmt pmt = ts.programmes.front().pmt;
    pmt.programme = ts.programmes.back().number + 1;
    job.record.parameters["number"] = pmt.programme;
    job.touches(units[0].items.front(), 0);
    job.record.programme = pmt.programme;
    job.must("q.4", {}, {0}, span_of(job, units[0])).detail["changes"] = {
        {"has", {{"op", "added"}, {"number", pmt.programme}}}};
    if (ghost) {
        job.must("1.5.a", {"absent"}, {pmt_pid},
                 job.until(units[0].items.front(), units[0].items.back(), 0.1));
    }
    for (auto unit = units.rbegin(); unit != units.rend() && !ghost; ++unit) {
        ts.add(unit->items.back() + 1, packets_of(make(pmt), pmt_pid));
    }
    ts.settle(pmt_pid);
    refuse_gaps(ts, pmt_pid);
    rewrite(ts, 0, from_time(ts, 0, 0, ts.items[units[0].items.front()].time),
            [&](const Bytes& section) {
                Pat pat = parse_pat(section);
                pat.programmes.emplace_back(pmt.programme, pmt_pid);
                ++pat.version;
                return make(pat);
            });
}

std::vector<int> own_pids(const Capture& ts, const std::vector<int>& numbers) {
    std::vector<int> out;
    std::vector<int> others;
    for (const Programme& programme : ts.programmes) {
        auto& list = std::find(numbers.begin(), numbers.end(), programme.number) != numbers.end()
                         ? out
                         : others;
        list.push_back(programme.pmt_pid);
        list.push_back(programme.pmt.pcr_pid);
        for (const Stream& stream : programme.pmt.streams) {
            list.push_back(stream.pid);
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    std::erase_if(
        out, [&](int pid) { return std::find(others.begin(), others.end(), pid) != others.end(); });
    return out;
}

// Programmes leave the PAT for a while, or for good where seconds is 0.
void leave_pat(Job& job, const std::vector<int>& numbers) {
    Capture& ts = job.ts;
    const double length = job.number("seconds");
    const bool keep = job.word("packets") == "keep";
    const double from = job.start(std::max(1.0, length), length > 0 ? 1.5 : 2.5);
    if (!keep && !ts.constant && numbers.size() == ts.programmes.size()) {
        throw Refused("without packets nothing tells the time at a variable rate");
    }
    const auto units = from_time(ts, 0, 0, from, length > 0 ? from + length : 1e9);
    const double begin = ts.items[units[0].items.back()].time;
    double end = 1e9;
    const int clock_programme = ts.programme_of(ts.clock_pid)->number;
    job.touches(units[0].items.front(), 0);
    job.must("q.4", {}, {0}, span_of(job, units[0])).detail["changes"] = {
        {"has", {{"op", "removed"}, {"number", numbers[0]}}}};
    if (length > 0) {
        const auto back = from_time(ts, 0, 0, from + length);
        end = ts.items[back[0].items.front()].time;
        job.must("q.4", {}, {0}, span_of(job, back[0])).detail["changes"] = {
            {"has", {{"op", "added"}, {"number", numbers[0]}}}};
        // The PAT that comes back is new content once more.
        rewrite(ts, 0, back, [](Bytes section) {
            set_version(section, version_of(section) + 2);
            return section;
        });
    }
    if (numbers.size() < ts.programmes.size() && numbers[0] == clock_programme) {
        job.must("q.7", {"moved"}, {}, job.until(units[0].items.front(), units[0].items.back(), 1));
        job.may("q.7", {}, {job.id(units[0].items.front()), job.last_id()});
    }
    for (const int pid : own_pids(ts, numbers)) {
        if (keep) {
            expect_unreferenced(job, pid, begin, end, units[0].items.front());
        } else {
            drop(ts, pid, begin, end);
        }
    }
    rewrite(ts, 0, from_time(ts, 0, 0, from, length > 0 ? from + length : 1e9),
            [&](const Bytes& section) {
                Pat pat = parse_pat(section);
                std::erase_if(pat.programmes, [&](const auto& entry) {
                    return std::find(numbers.begin(), numbers.end(), entry.first) != numbers.end();
                });
                ++pat.version;
                return make(pat);
            });
}

void apply_pat_remove(Job& job) {
    const int number = job.programme_by_parameter().number;
    if (job.ts.programmes.size() < 2) {
        throw Refused("the capture has only one programme");
    }
    job.record.programme = number;
    leave_pat(job, {number});
}

void apply_pat_empty(Job& job) {
    std::vector<int> numbers;
    for (const Programme& programme : job.ts.programmes) {
        numbers.push_back(programme.number);
    }
    leave_pat(job, numbers);
}

// Entries at the end of a section whose last loop has a length of `loop_at`, 0 where it has none.
Bytes grown(Bytes section, const Bytes& more, std::size_t loop_at) {
    const auto widen = [&](std::size_t at) {
        const std::size_t size =
            (static_cast<std::size_t>(section.at(at) & 0x0F) << 8 | section.at(at + 1)) +
            more.size();
        section[at] = static_cast<std::uint8_t>((section[at] & 0xF0) | (size >> 8 & 0x0F));
        section[at + 1] = static_cast<std::uint8_t>(size & 0xFF);
    };
    widen(1);
    if (loop_at != 0) {
        widen(loop_at);
    }
    section.insert(section.end() - 4, more.begin(), more.end());
    seal(section);
    return section;
}

struct Place {
    int pid;
    int table_id;
};

Place table_by_parameter(Job& job) {
    const std::string name = job.word("table");
    if (name == "pat" || name == "sdt" || name == "nit") {
        return name == "pat" ? Place{0, 0} : name == "sdt" ? Place{0x11, 0x42} : Place{0x10, 0x40};
    }
    if (name != "pmt") {
        throw Refused("table=" + name + ": pat, pmt, sdt or nit is needed");
    }
    return {job.ts.programmes[job.random.below(job.ts.programmes.size())].pmt_pid, 2};
}

constexpr int SPARSE_PID = 0x1E50; // announced, never sent

// Something that does no harm to any stream.
Bytes changed(const Bytes& section) {
    switch (table_of(section)) {
    case 0: // the network's own pid
        return grown(section, {0, 0, 0xE0, 0x10}, 0);
    case 2: // a stream of sections, which may be sparse
        return grown(section, {0x05, 0xE0 | SPARSE_PID >> 8, SPARSE_PID & 0xFF, 0xF0, 0x00}, 0);
    case 0x42: // a service
        return grown(section, {0x03, 0x85, 0xFC, 0x80, 0x00}, 0);
    default: { // a transport stream
        const std::size_t names =
            static_cast<std::size_t>(section.at(8) & 0x0F) << 8 | section.at(9);
        return grown(section, {0x03, 0x85, 0xFF, 0x01, 0xF0, 0x00}, 10 + names);
    }
    }
}

void apply_change(Job& job) {
    Capture& ts = job.ts;
    const bool same_version = job.whole("version") == 0;
    const auto [pid, table_id] = table_by_parameter(job);
    const auto units = from_time(ts, pid, table_id, job.start(1));
    job.touches(units[0].items.front(), pid);
    const Span place = span_of(job, units[0]);
    job.may("1.6", {SPARSE_PID}, {place.first, job.last_id()});
    if (same_version) {
        job.must("q.5", {}, {pid}, place);
        job.may("q.4", {pid}, place);
    } else {
        job.must("q.4", {}, {pid}, place);
    }
    rewrite(ts, pid, units, [&](const Bytes& section) {
        Bytes out = changed(section);
        set_version(out, version_of(out) + (same_version ? 0 : 1));
        return out;
    });
}

void apply_version(Job& job) {
    Capture& ts = job.ts;
    const auto [pid, table_id] = table_by_parameter(job);
    const auto units = from_time(ts, pid, table_id, job.start(1));
    job.touches(units[0].items.front(), pid);
    rewrite(ts, pid, units, [](Bytes section) {
        set_version(section, version_of(section) + 1);
        return section;
    });
}

// What is announced for later (current_next_indicator 0) is not in force.
void apply_next(Job& job) {
    Capture& ts = job.ts;
    const Programme& programme = ts.programmes[job.random.below(ts.programmes.size())];
    const auto units = from_time(ts, programme.pmt_pid, 2, job.start(2));
    Pmt pmt = programme.pmt;
    pmt.streams.clear();
    ++pmt.version;
    Bytes section = make(pmt);
    section[5] &= 0xFE;
    seal(section);
    job.touches(units[0].items.front(), programme.pmt_pid);
    for (std::size_t k = std::min<std::size_t>(units.size(), 10); k-- > 0;) {
        ts.add(units[k].items.back() + 1, packets_of(section, programme.pmt_pid));
    }
    ts.settle(programme.pmt_pid);
}

void apply_long_pmt(Job& job) {
    Capture& ts = job.ts;
    const auto size = static_cast<std::size_t>(job.whole("bytes", 700));
    for (const Programme& programme : ts.programmes) {
        const auto units = from_time(ts, programme.pmt_pid, 2, 0);
        job.touches(units[0].items.front(), programme.pmt_pid);
        rewrite(ts, programme.pmt_pid, units, [size](const Bytes& section) {
            Pmt pmt = parse_pmt(section);
            for (std::size_t left = size; left > 2;) {
                const std::size_t body = std::min<std::size_t>(left - 2, 200);
                pmt.descriptors.push_back(0xFE);
                pmt.descriptors.push_back(static_cast<std::uint8_t>(body));
                pmt.descriptors.resize(pmt.descriptors.size() + body, 0x5A);
                left -= body + 2;
            }
            return make(pmt);
        });
        refuse_gaps(ts, programme.pmt_pid);
    }
}

// The last programme, or the network's pid, stands in a second section of the PAT.
void apply_pat_sections(Job& job) {
    Capture& ts = job.ts;
    const auto units = from_time(ts, 0, 0, 0);
    Pat first = ts.pat;
    Pat second = ts.pat;
    second.programmes = {{0, 0x10}};
    if (first.programmes.size() > 1) {
        second.programmes = {first.programmes.back()};
        first.programmes.pop_back();
    }
    Bytes sections[] = {make(first), make(second)};
    set_number(sections[0], 0, 1);
    set_number(sections[1], 1, 1);
    job.touches(units[0].items.front(), 0);
    // One behind the other in the same packet.
    sections[0].insert(sections[0].end(), sections[1].begin(), sections[1].end());
    rewrite(ts, 0, units, [&](const Bytes&) { return sections[0]; });
}

// As if another capture stood behind this one: other pids, another clock, counters of its own.
void apply_join(Job& job) {
    constexpr int AWAY = 0x400;
    constexpr std::int64_t STAMPS = 90; // in a millisecond
    Capture& ts = job.ts;
    const auto by = static_cast<std::int64_t>(job.number("ms") * job.number("sign")) * STAMPS;
    const std::size_t first = ts.at(job.start(1));
    const double from = ts.items[first].time;
    const auto moved = [](int pid) {
        return pid > 0x1F && pid != NULL_PID ? (pid + AWAY) & 0x1FFF : pid;
    };
    for (const Programme& programme : ts.programmes) {
        rewrite(ts, programme.pmt_pid, from_time(ts, programme.pmt_pid, 2, from),
                [&](const Bytes& section) {
                    Pmt pmt = parse_pmt(section);
                    pmt.programme += 100;
                    pmt.pcr_pid = moved(pmt.pcr_pid);
                    for (Stream& stream : pmt.streams) {
                        stream.pid = moved(stream.pid);
                    }
                    return make(pmt);
                });
    }
    const auto pats = from_time(ts, 0, 0, from);
    rewrite(ts, 0, pats, [&](const Bytes& section) {
        Pat pat = parse_pat(section);
        pat.transport_stream += 7;
        for (auto& [number, pid] : pat.programmes) {
            number += number == 0 ? 0 : 100;
            pid = moved(pid);
        }
        return make(pat);
    });
    for (std::size_t i = first; i < ts.items.size(); ++i) {
        Packet& p = ts.items[i].bytes;
        if (pid_of(p) == NULL_PID) {
            continue;
        }
        if (const auto pcr = pcr_of(p); pcr) {
            set_pcr(p, *pcr + by * 300);
        }
        shift_stamps(p, by);
        set_counter(p, counter_of(p) + 5);
        set_pid(p, moved(pid_of(p)));
    }
    job.touches(first, NO_PID);
    const Span joint = job.until(first, first, 1.2);
    job.must("q.4", {}, {0}, span_of(job, pats[0]));
    job.must("q.7", {"moved"}, {}, joint);
    job.may("q.5", {0}, span_of(job, pats[0])); // the version happens to be the same
}

constexpr Kind KINDS[] = {
    {"pmt_add", "pid=audio", "a stream comes into the PMT", apply_pmt_add},
    {"pmt_remove", "packets=drop|keep,pid=audio",
     "a stream leaves the PMT (its packets go with it or not)", apply_pmt_remove},
    {"pmt_move", "pid=any", "a stream moves to another pid", apply_pmt_move},
    {"pmt_type", "pid=any", "a stream changes its stream_type", apply_pmt_type},
    {"pmt_language", "pid=audio,to=qaa|qab", "a stream changes its language", apply_pmt_language},
    {"pat_add", "ghost=0", "a programme comes into the PAT", apply_pat_add},
    {"pat_ghost", "ghost=1", "a programme comes into the PAT, its PMT never does", apply_pat_add},
    {"pat_remove", "programme=0,packets=drop|keep,seconds=0", "a programme leaves the PAT",
     apply_pat_remove},
    {"pat_back", "programme=0,packets=drop|keep,seconds=2",
     "a programme leaves the PAT and comes back", apply_pat_remove},
    {"pat_empty", "packets=drop|keep,seconds=2", "the PAT is empty for a while", apply_pat_empty},
    {"join", "ms=2000..80000,sign=-1|1",
     "another capture follows, with other pids and another clock", apply_join},
    {"table_change", "table=pat|pmt|sdt|nit,version=1", "a table says something new", apply_change},
    {"same_version", "table=pat|pmt|sdt|nit,version=0",
     "a table says something new under the old version", apply_change},
    {"new_version", "table=pat|pmt|sdt|nit", "a new version of the same content, as is lawful",
     apply_version},
    {"next_pmt", "", "a PMT for later (current_next_indicator 0), as is lawful", apply_next},
    {"long_pmt", "bytes=180..700", "PMTs of several packets, as is lawful", apply_long_pmt},
    {"pat_sections", "", "a PAT of two sections in one packet, as is lawful", apply_pat_sections},
};

} // namespace

std::span<const Kind> content_kinds() {
    return KINDS;
}

} // namespace inject
