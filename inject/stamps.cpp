// stamps.cpp - faults of PTS and DTS: offsets, drift, late stamps, wrong order, none.
#include <algorithm>
#include <cmath>

#include "job.h"

namespace inject {

namespace {

constexpr double STAMP_HZ = 90e3;

std::int64_t ticks(double ms) {
    return std::llround(ms / 1000 * STAMP_HZ);
}

// Stamps that lie before the clock are late; close to it, either answer will do.
void expect_late(Job& job, int pid, const std::vector<std::size_t>& starts) {
    constexpr double CLOSE = 0.005; // seconds
    std::vector<std::size_t> late;
    std::vector<std::size_t> near;
    for (const std::size_t i : starts) {
        const double margin = job.ts.margin_at(i);
        if (margin < CLOSE) {
            near.push_back(i);
        }
        if (margin < -CLOSE) {
            late.push_back(i);
        }
    }
    if (!late.empty()) {
        job.must("q.1", {}, {pid}, job.range(near.front(), late.front()));
    }
    if (!near.empty()) {
        job.may("q.1", {pid}, job.until(near.front(), near.back(), 0.5));
    }
}

// Frames of LATM and the like are not counted by their headers: nothing tells a step of theirs from
// a pause.
void refuse_uncounted(const Job& job, int pid) {
    constexpr std::array<int, 6> COUNTED{0x03, 0x04, 0x06, 0x0F, 0x81, 0x87};
    const int type = job.ts.type_of(pid);
    if (job.ts.kind_of(pid) == StreamKind::audio &&
        std::find(COUNTED.begin(), COUNTED.end(), type) == COUNTED.end()) {
        throw Refused("the frames of this sound cannot be counted");
    }
}

// For a while, or to the end where seconds is 0.
void apply_offset(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    refuse_uncounted(job, pid);
    const double ms = job.number("ms") * job.number("sign");
    const double length = job.number("seconds");
    const bool returns = length > 0;
    const double from = job.start(returns ? length : 1);
    const auto starts = ts.pes_starts(pid, from, returns ? from + length : 1e9);
    const auto behind = ts.pes_starts(pid, from + length);
    for (const std::size_t i : starts) {
        shift_stamps(ts.items[i].bytes, ticks(ms));
    }
    job.touches(starts.at(0), pid);
    const Span back = returns && !behind.empty() ? job.point(behind[0]) : Span{};
    if (ts.kind_of(pid) == StreamKind::audio) {
        job.must("q.2", {"jump"}, {pid}, job.point(starts[0])).near("step_ms", ms, 2);
        if (returns && !behind.empty()) {
            job.must("q.2", {"jump"}, {pid}, back).near("step_ms", -ms, 2);
        }
    } else {
        job.must(ms > 0 ? "q.2" : "q.3", {}, {pid}, job.point(starts[0]));
        if (returns && !behind.empty()) {
            job.must(ms > 0 ? "q.3" : "q.2", {}, {pid}, back);
        }
    }
    expect_late(job, pid, starts);
}

void apply_drift(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    refuse_uncounted(job, pid);
    const double rate = job.number("ms_per_s") * job.number("sign");
    const double length = job.number("seconds");
    const double from = job.start(length);
    const auto starts = ts.pes_starts(pid, from);
    for (const std::size_t i : starts) {
        const double since = std::min(length, ts.items[i].time - from);
        shift_stamps(ts.items[i].bytes, ticks(rate * since));
    }
    job.touches(starts.at(0), pid);
    const double seen = std::min(length, 150 / std::abs(rate) + 1.5);
    // The step that a drift begins with ends at the first stamp that is off and starts before it.
    const auto before = ts.pes_starts(pid, 0, from);
    job.must("q.2", {"drift"}, {pid}, job.range(before.at(before.size() - 1), ts.at(from + seen)))
        .near("drift_ms_per_s", rate, std::abs(rate) * 0.35);
    Finding& more = job.may("q.2", {pid}, job.range(before.back(), ts.at(from + length + 0.5)));
    more.kinds = {"drift"};
    expect_late(job, pid, starts);
}

// One stream, or all of a programme by its clock, from the first packet on.
void apply_late(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const double by = job.number("ms") / 1000;
    const auto starts = ts.pes_starts(pid);
    double most = 0;
    for (std::size_t k = 1; k + 1 < starts.size();
         k += std::max(std::size_t{1}, starts.size() / 60)) {
        const double margin = ts.margin_at(starts[k]);
        most = std::max(most, margin < 1e6 ? margin : 0);
    }
    for (const std::size_t i : starts) {
        shift_stamps(ts.items[i].bytes, -ticks((most + by) * 1000));
    }
    job.touches(starts.at(0), pid);
    // Until the rate is known to be constant, only the last PCR is there to compare with.
    job.must("q.1", {}, {pid}, job.range(starts[0], ts.at(4)));
    job.may("q.1", {pid}, {job.id(starts[0]), job.last_id()});
}

// A single stamp earlier than the one before.
void apply_order(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto starts = ts.pes_starts(pid, job.start(1));
    const auto before = pes_of(ts.items[starts.at(0)].bytes);
    const auto header = pes_of(ts.items[starts.at(1)].bytes);
    set_decode(ts.items[starts[1]].bytes, *header, *before->decode() - ticks(job.number("ms")));
    job.touches(starts[1], pid);
    job.must("q.3", {}, {pid}, job.point(starts[1]));
    job.may("q.2", {pid}, job.range(starts[1], starts.at(2)));
    expect_late(job, pid, {starts[1]});
}

void apply_far(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto starts = ts.pes_starts(pid, job.start(1));
    const double ms = job.number("ms") * job.number("sign");
    for (const std::size_t i : starts) {
        shift_stamps(ts.items[i].bytes, ticks(ms));
    }
    job.touches(starts.at(0), pid);
    job.must("q.3", {}, {pid}, job.point(starts[0])).near("step_ms", ms, 500);
    expect_late(job, pid, starts);
}

// PES packets without stamps for longer than is allowed.
void apply_missing(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const double length = job.number("ms") / 1000;
    const double from = job.start(length);
    const auto starts = ts.pes_starts(pid, from);
    std::size_t last = 1;
    while (last + 1 < starts.size() &&
           ts.items[starts[last]].time - ts.items[starts[0]].time < length) {
        Packet& p = ts.items[starts[last++]].bytes;
        remove_stamps(p, *pes_of(p));
    }
    const double gap = ts.items[starts.at(last)].time - ts.items[starts[0]].time;
    job.touches(starts[0], pid);
    job.must("2.5", {}, {pid}, job.point(starts[0]))
        .ends(job.point(starts[last]))
        .near("interval_ms", gap * 1000, 3);
}

constexpr Kind KINDS[] = {
    {"pts_offset", "ms=60..3000,sign=-1|1,seconds=2..4,pid=audio",
     "the stamps of a sound are off for a while", apply_offset},
    {"pts_jump", "ms=60..3000,sign=-1|1,seconds=0,pid=audio", "the stamps of a sound jump",
     apply_offset},
    {"pts_video", "ms=200..3000,sign=-1|1,seconds=2..4,pid=video",
     "the stamps of a picture are off for a while", apply_offset},
    {"pts_drift", "ms_per_s=20..120,sign=-1|1,seconds=6,pid=audio",
     "the stamps of a sound drift away", apply_drift},
    {"pts_late", "ms=20..400,pid=any", "all stamps of a stream lie before the clock", apply_late},
    {"pts_order", "ms=40..400,pid=video", "a DTS before the one before", apply_order},
    {"pts_far", "ms=11000..600000,sign=-1|1,pid=any",
     "stamps jump by more than ten seconds, the clock does not", apply_far},
    {"pts_missing", "ms=800..1600,pid=any", "PES packets have no stamps", apply_missing},
};

} // namespace

std::span<const Kind> stamp_kinds() {
    return KINDS;
}

} // namespace inject
