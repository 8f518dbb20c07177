// clocks.cpp - faults of program clock references: gaps, jumps, jitter, an end, a wrap.
#include <algorithm>
#include <cmath>

#include "job.h"

namespace inject {

namespace {

constexpr double STAMP_HZ = 90e3;

std::vector<int> stream_pids(const Capture& ts, int pcr_pid) {
    std::vector<int> out;
    for (const Programme& programme : ts.programmes) {
        if (programme.pmt.pcr_pid == pcr_pid) {
            for (const Stream& stream : programme.pmt.streams) {
                out.push_back(stream.pid);
            }
        }
    }
    return out;
}

// A PCR pid of a programme that has at least two PCRs behind a place.
int clock_of(Job& job) {
    const int pid = job.programme_by_parameter().pmt.pcr_pid;
    job.record.parameters["pid"] = pid;
    if (job.ts.pcrs(pid).size() < 2) {
        throw Refused("the programme has no PCRs");
    }
    return pid;
}

bool has_other_clock(const Capture& ts, int pid) {
    return std::any_of(ts.programmes.begin(), ts.programmes.end(), [&](const Programme& other) {
        return other.pmt.pcr_pid != pid && ts.pcrs(other.pmt.pcr_pid).size() > 1;
    });
}

// PCRs and time stamps of all streams of this clock from an item on.
void move_clock(Capture& ts, int pcr_pid, std::size_t from, std::int64_t stamp_ticks) {
    const auto streams = stream_pids(ts, pcr_pid);
    for (std::size_t i = from; i < ts.items.size(); ++i) {
        Packet& p = ts.items[i].bytes;
        if (ts.items[i].gone) {
            continue;
        }
        if (pid_of(p) == pcr_pid && pcr_of(p)) {
            set_pcr(p, *pcr_of(p) + stamp_ticks * 300);
        }
        if (std::find(streams.begin(), streams.end(), pid_of(p)) != streams.end()) {
            shift_stamps(p, stamp_ticks);
        }
    }
}

void apply_gap(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const double length = job.number("ms") / 1000;
    const double from = job.start(length);
    const auto marks = ts.pcrs(pid, from);
    std::size_t last = 1;
    while (last + 1 < marks.size() &&
           ts.items[marks[last]].time - ts.items[marks[0]].time < length) {
        remove_pcr(ts.items[marks[last++]].bytes);
    }
    const double gap = ts.items[marks.at(last)].time - ts.items[marks[0]].time;
    job.touches(marks[0], pid);
    job.must("2.3.a", {}, {pid}, job.point(marks[0]))
        .ends(job.point(marks[last]))
        .near("interval_ms", gap * 1000, 2);
}

void apply_jump(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const double step = job.number("ms") * job.number("sign");
    const bool flagged = job.whole("flagged") != 0;
    const auto marks = ts.pcrs(pid, job.start(1));
    const std::size_t first = marks.at(0);
    job.touches(first, pid);
    move_clock(ts, pid, first, std::llround(step / 1000 * STAMP_HZ));
    const double within = ts.constant ? 5 : 150;
    if (!flagged) {
        job.must("2.3.b", {step < 0 ? "back" : "ahead"}, {pid}, job.point(first))
            .near("step_ms", step, within);
        return;
    }
    set_discontinuity(ts.items[first].bytes);
    job.must("q.7", {"flagged"}, {pid}, job.point(first)).near("step_ms", step, within);
    const int by = job.whole("counter");
    if (by != 0) {
        ts.shift_counters(pid, first, by); // lawful with the flag
    }
}

// The flag alone, on a clock that goes on.
void apply_flag(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const std::size_t first = ts.pcrs(pid, job.start(1)).at(0);
    set_discontinuity(ts.items[first].bytes);
    job.touches(first, pid);
}

void apply_jitter(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const double limit = job.number("ns");
    const double length = job.number("seconds");
    const double from = job.start(length);
    const auto marks = ts.pcrs(pid, from, from + length);
    for (const std::size_t i : marks) {
        // Between half of the limit and all of it, so that none of them stays hidden.
        const double size =
            job.random.between(0.5, 1) * limit * (job.random.below(2) == 0 ? 1 : -1);
        set_pcr(ts.items[i].bytes, *pcr_of(ts.items[i].bytes) + std::llround(size * PCR_HZ / 1e9));
    }
    job.touches(marks.at(0), pid);
    if (ts.constant) {
        job.must("2.4", {}, {pid}, job.range(ts.at(from - 0.7), marks.back()))
            .near("error_ns", 0, limit * 1.5);
        // A rate that is fitted over neighbours drags them along.
        job.may("2.4", {pid}, job.range(ts.at(from - 0.7), ts.at(from + length + 0.7)));
    } else {
        job.record.cannot.emplace_back("jitter where the rate varies");
    }
}

// All clocks and stamps are moved so that the 33-bit base comes round at the place.
void apply_wrap(Job& job) {
    Capture& ts = job.ts;
    const std::size_t first = ts.pcrs(ts.clock_pid, job.start(1)).at(0);
    const std::int64_t by = (PCR_WRAP - *pcr_of(ts.items[first].bytes)) / 300;
    std::vector<int> done;
    for (const Programme& programme : ts.programmes) {
        const int pid = programme.pmt.pcr_pid;
        if (std::find(done.begin(), done.end(), pid) == done.end()) {
            move_clock(ts, pid, 0, by);
            done.push_back(pid);
        }
    }
    job.touches(first, ts.clock_pid);
}

void apply_end(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const bool other = has_other_clock(ts, pid);
    const auto marks = ts.pcrs(pid, job.start(4, 0));
    for (std::size_t k = 1; k < marks.size(); ++k) {
        remove_pcr(ts.items[marks[k]].bytes);
    }
    job.touches(marks.at(0), pid);
    const Span rest{job.id(marks[0]), job.last_id()};
    if (ts.constant || other) {
        job.must("2.3.a", {}, {pid}, job.point(marks[0])).ends({job.last_id(), job.last_id()});
    } else {
        job.record.cannot.emplace_back("time behind the last PCR at a variable rate");
    }
    if (other && pid == ts.clock_pid) {
        job.must("q.7", {"moved"}, {}, rest);
    }
}

void apply_never(Job& job) {
    Capture& ts = job.ts;
    const int pid = clock_of(job);
    const auto marks = ts.pcrs(pid);
    const bool other = has_other_clock(ts, pid);
    for (const std::size_t i : marks) {
        remove_pcr(ts.items[i].bytes);
    }
    job.touches(marks[0], pid);
    if (other) {
        job.must("1.6", {"no_pcr"}, {pid}, {0, job.id(ts.at(3))});
    } else {
        job.record.cannot.emplace_back("anything that needs a clock");
    }
}

constexpr Kind KINDS[] = {
    {"pcr_gap", "ms=130..700,programme=0", "PCRs are left out", apply_gap},
    {"pcr_jump", "ms=500..6000,sign=-1|1,flagged=0,programme=0",
     "clock and stamps of a programme jump, not flagged", apply_jump},
    {"pcr_jump_far", "ms=20000..40000000,sign=-1|1,flagged=0,programme=0",
     "clock and stamps of a programme jump far, not flagged", apply_jump},
    {"pcr_jump_flagged", "ms=300..90000,sign=-1|1,flagged=1,counter=0|5,programme=0",
     "the same with the discontinuity_indicator (counter: a jump of it as well)", apply_jump},
    {"pcr_flag", "programme=0", "the discontinuity_indicator is set, the clock goes on",
     apply_flag},
    {"pcr_jitter", "ns=3000|20000|200000|1000000,seconds=2,programme=0",
     "PCRs are off by up to so much", apply_jitter},
    {"pcr_wrap", "", "the 33-bit clock comes round, as is lawful", apply_wrap},
    {"pcr_end", "programme=0", "no PCR comes any more", apply_end},
    {"pcr_never", "programme=0", "the PCR pid carries packets and never a PCR", apply_never},
};

} // namespace

std::span<const Kind> clock_kinds() {
    return KINDS;
}

} // namespace inject
