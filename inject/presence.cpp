// presence.cpp - streams that stop, pause or never come, null packets only, scrambling,
// transport errors and pids that nothing announces.
#include <algorithm>

#include "job.h"

namespace inject {

namespace {

// The payload of a pid in a stretch goes; its PCRs go on in packets of their own.
void silence(Capture& ts, int pid, double from, double to) {
    for (const std::size_t i : ts.payloads(pid, from, to)) {
        ts.take_out(i, true);
    }
    ts.settle(pid);
}

void apply_stop(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const double from = job.start(4, 0);
    const auto rest = ts.payloads(pid, from);
    const std::size_t last = rest.at(0);
    silence(ts, pid, ts.items[rest.at(1)].time, 1e9);
    job.touches(rest[1], pid);
    job.must("1.6", {"stopped"}, {pid}, job.point(last)).ends({job.last_id(), job.last_id()});
}

void apply_pause(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const double length = job.number("ms") / 1000;
    const double from = job.start(length);
    const auto rest = ts.payloads(pid, from);
    const double end = ts.items[rest.at(0)].time + length;
    const auto stamps_before = ts.pes_starts(pid, 0, ts.items[rest.at(1)].time);
    // It comes back with the start of a PES packet, as an encoder does.
    const auto stamps_behind = ts.pes_starts(pid, end);
    const std::size_t back = stamps_behind.at(0);
    const std::size_t stamped = stamps_before.at(stamps_before.size() - 1);
    silence(ts, pid, ts.items[rest[1]].time, ts.items[back].time);
    const double silent = ts.items[back].time - ts.items[rest[0]].time;
    const double unstamped = ts.items[back].time - ts.items[stamped].time;
    job.touches(rest[1], pid);
    if (silent > 1.05) {
        job.must("1.6", {"stopped"}, {pid}, job.point(rest[0])).ends(job.point(back));
    } else if (silent > 0.95) {
        throw Refused("the pause is too close to the limit of a second");
    } else if (unstamped > 0.72) {
        job.must("2.5", {}, {pid}, job.point(stamped)).ends(job.point(back));
    } else if (unstamped > 0.68) {
        throw Refused("the pause is too close to the limit of 700 ms");
    } else if (ts.kind_of(pid) == StreamKind::video) {
        // Pictures are left out, nothing else: an encoder may do so.
        job.must("q.2", {"frames_missing"}, {pid}, job.point(back));
    }
}

void apply_never(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    if (ts.media_pids().size() < 2) {
        throw Refused("the capture has only one stream");
    }
    const Programme& programme = *ts.programme_of(pid);
    const std::size_t announced = ts.units(programme.pmt_pid).front().items.back();
    const std::size_t first = ts.payloads(pid).front();
    silence(ts, pid, 0, 1e9);
    job.touches(first, pid);
    job.must("1.6", {"never"}, {pid}, job.until(announced, announced, 0.5))
        .ends({job.last_id(), job.last_id()});
}

void apply_off_air(Job& job) {
    Capture& ts = job.ts;
    const double length = job.number("ms") / 1000;
    const bool lost = job.whole("lost") != 0;
    const double from = job.start(length);
    const std::size_t first = ts.at(from);
    const std::size_t last = ts.at(from + length);
    std::vector<int> pids;
    for (std::size_t i = first; i < last; ++i) {
        Item& item = ts.items[i];
        const int pid = pid_of(item.bytes);
        if (pid == NULL_PID || item.gone) {
            continue;
        }
        if (!lost && has_payload(item.bytes)) {
            item.taken = true;
            item.taken_pid = pid;
            pids.push_back(pid);
        }
        item.bytes = null_packet(); // at a variable rate too: time has to go on
    }
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    for (const int pid : pids) {
        ts.settle(pid);
    }
    const auto is_null = [&](std::size_t i) { return ts.is_live(i, NULL_PID); };
    std::size_t before = first;
    while (before > 0 && is_null(before)) {
        --before;
    }
    std::size_t behind = last;
    while (behind + 1 < ts.items.size() && is_null(behind)) {
        ++behind;
    }
    job.touches(first, NO_PID);
    job.must("q.9", {}, {}, job.range(before, first))
        .ends(job.range(last, behind))
        .near("away_ms", length * 1000, 60);
}

void scramble(Packet& p, Random& random) {
    p[3] = static_cast<std::uint8_t>(p[3] | 0x80);
    for (std::size_t i = payload_at(p); i < PACKET_SIZE; ++i) {
        p[i] = static_cast<std::uint8_t>(random.next());
    }
}

void apply_scramble(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const double length = job.number("seconds");
    const bool cat = job.whole("cat") != 0;
    if (cat) {
        add_cat(ts);
    }
    const double from = job.start(length);
    const auto scrambled = ts.payloads(pid, from, from + length);
    const auto clear = ts.payloads(pid, from + length);
    for (const std::size_t i : scrambled) {
        scramble(ts.items[i].bytes, job.random);
    }
    job.touches(scrambled.at(0), pid);
    job.must("q.6", {}, {pid}, job.point(scrambled[0]));
    job.must("q.6", {}, {pid}, job.point(clear.at(0)));
    if (!cat) {
        job.must("2.6", {"absent"}, {}, job.point(scrambled[0])).ends(job.point(scrambled.back()));
    }
}

// Every packet of the streams, from the first on.
void apply_scramble_all(Job& job) {
    Capture& ts = job.ts;
    const bool cat = job.whole("cat") != 0;
    if (cat) {
        add_cat(ts);
    }
    std::size_t first = ts.items.size();
    if (ts.media_pids().empty()) {
        throw Refused("the capture has neither video nor audio");
    }
    for (const int pid : ts.media_pids()) {
        const auto all = ts.payloads(pid);
        first = std::min(first, all.front());
        for (const std::size_t i : all) {
            scramble(ts.items[i].bytes, job.random);
        }
    }
    job.touches(first, NO_PID);
    // Until the PMT has come the pids are nothing in particular.
    const Span begin = job.until(first, first, 0.5);
    if (!cat) {
        job.must("2.6", {"absent"}, {}, begin);
    }
    job.may("q.6", {}, begin);
    job.record.cannot.emplace_back("stamps and frames of scrambled streams");
}

// Packets from within PES packets were never sent: the stream has less to say, and its headers and
// clocks stay. What it says so cannot be decoded, which is no matter here.
void apply_thin(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int percent = job.whole("percent", 95);
    const double from = job.start(5, 0);
    const auto rest = ts.payloads(pid, from);
    job.touches(rest.at(0), pid);
    int owed = 0;
    std::size_t gone = 0;
    for (const std::size_t i : rest) {
        const Packet& p = ts.items[i].bytes;
        owed += percent;
        if (owed >= 100 && !unit_starts(p) && !pcr_of(p)) {
            ts.take_out(i);
            owed -= 100;
            ++gone;
        }
    }
    ts.settle(pid);
    // Where many packets begin something it is less than was asked for.
    job.record.parameters["percent"] = 100 * gone / rest.size();
    job.record.cannot.emplace_back("that there was more before: only who expects it knows");
}

void apply_transport_error(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto all = ts.payloads(pid, job.start(1));
    auto count = std::min(all.size(), static_cast<std::size_t>(job.whole("count")));
    for (std::size_t k = 1; k < count; ++k) { // errors further apart are runs of their own
        if (ts.items[all[k]].time - ts.items[all[k - 1]].time > 0.08) {
            count = k;
        }
    }
    job.record.parameters["count"] = count;
    const bool damaged = job.whole("damaged") != 0;
    for (std::size_t k = 0; k < count; ++k) {
        Packet& p = ts.items[all[k]].bytes;
        p[1] = static_cast<std::uint8_t>(p[1] | 0x80);
        for (int hits = damaged ? 12 : 0; hits > 0; --hits) {
            p[4 + job.random.below(PACKET_SIZE - 4)] ^=
                static_cast<std::uint8_t>(1U << job.random.below(8));
        }
    }
    job.touches(all.at(0), pid);
    job.must("2.1", {}, {pid}, job.point(all[0])).ends(job.point(all[count - 1]));
}

void apply_unreferenced(Job& job) {
    Capture& ts = job.ts;
    const double length = job.number("ms") / 1000;
    const int pid = ts.unused_pid();
    const double from = job.start(length);
    Packet p = null_packet();
    set_pid(p, pid);
    // From the last to the first: what is added moves what stands behind it.
    constexpr double every = 0.05;
    for (int back = 0; length - back * every >= 0; ++back) {
        ts.add(ts.at(from + length - back * every), {p});
    }
    ts.settle(pid);
    const auto added = ts.of(pid);
    job.touches(added.front(), pid);
    if (length > 0.6) {
        job.must("3.4.a", {}, {pid}, job.point(added.front())).ends(job.point(added.back()));
    }
}

constexpr Kind KINDS[] = {
    {"stop", "pid=any", "a stream stops", apply_stop},
    {"pause", "ms=1200..3500,pid=any", "a stream stops and comes back", apply_pause},
    {"pause_short", "ms=300..850,pid=any", "a stream is away for less than a second", apply_pause},
    {"never", "pid=any", "an announced stream never comes", apply_never},
    {"off_air", "ms=500..3000,lost=0|1", "nothing but null packets (lost=1: the counters went on)",
     apply_off_air},
    {"scramble", "seconds=2,cat=0|1,pid=any",
     "a stream is scrambled for a while (cat=1: there is a CAT)", apply_scramble},
    {"scramble_all", "cat=0|1", "all streams are scrambled", apply_scramble_all},
    {"thin", "percent=50,pid=video",
     "a stream has less to say: so many of its packets are gone, nothing else is wrong",
     apply_thin},
    {"transport_error", "count=1..20,damaged=0|1,pid=any", "transport_error_indicator is set",
     apply_transport_error},
    {"unreferenced", "ms=800..3000", "a pid that nothing announces", apply_unreferenced},
    {"unreferenced_short", "ms=50..350", "the same, for less than half a second",
     apply_unreferenced},
};

} // namespace

std::span<const Kind> presence_kinds() {
    return KINDS;
}

} // namespace inject
