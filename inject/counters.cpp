// counters.cpp - faults of continuity: packets lost, sent twice, out of order; counters that are
// set anew or stand still.
#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "job.h"

namespace inject {

namespace {

constexpr int MODULUS = 16;
constexpr std::size_t DATAGRAM = 7; // packets in one UDP datagram

using Lost = std::map<int, std::vector<std::size_t>>; // payload packets by pid

// Sixteen packets more or less leave no break in the counter.
void expect_unseen_loss(Job& job, int pid, const std::vector<std::size_t>& lost, bool alone) {
    Capture& ts = job.ts;
    const auto count = static_cast<std::int64_t>(lost.size());
    const bool frame_gone = std::any_of(lost.begin(), lost.end(), [&](std::size_t i) {
        return pes_of(ts.items[i].bytes).has_value();
    });
    const Span place = job.until(lost.front(), lost.back(), 1.0);
    const auto kind = ts.kind_of(pid);
    if ((ts.constant && alone) || (!ts.constant && kind == StreamKind::audio)) {
        job.must("1.4", {"loss"}, {pid, NO_PID}, place).has("lost", {count});
    } else if (kind == StreamKind::video && frame_gone) {
        Finding& seen = job.must("1.4", {"loss"}, {pid, NO_PID}, place);
        seen.otherwise.push_back({"q.2", {"frames_missing"}, {pid}, place, {}, Json::object(), {}});
        job.record.cannot.emplace_back("how many packets of the picture are missing");
    } else {
        job.may("1.4", {pid, NO_PID}, place);
        job.may("q.2", {pid}, place);
        job.record.cannot.emplace_back("a whole turn of the counter inside one picture");
    }
}

// Fifteen lost between two packets that are alike to the last byte, as in silence, leave what looks
// like a lawful copy.
bool looks_like_copy(const Capture& ts, int pid, std::size_t lost, std::size_t next) {
    const auto before = ts.payloads(pid, ts.items[lost].time - 5, ts.items[lost].time + 1e-9);
    const auto last = std::lower_bound(before.begin(), before.end(), lost);
    return last != before.begin() && ts.items[*(last - 1)].bytes == ts.items[next].bytes;
}

// Inside a picture of unknown length nothing but the counter tells of a loss.
bool looks_like_restart(const Capture& ts, int pid, const std::vector<std::size_t>& lost,
                        std::size_t next) {
    const bool inside = std::none_of(lost.begin(), lost.end(), [&ts](std::size_t i) {
        return unit_starts(ts.items[i].bytes) || pcr_of(ts.items[i].bytes);
    });
    return !ts.constant && ts.kind_of(pid) == StreamKind::video && inside &&
           counter_of(ts.items[next].bytes) == 0;
}

void expect_losses(Job& job, const Lost& lost) {
    Capture& ts = job.ts;
    const bool alone = lost.size() == 1;
    for (const auto& [pid, items] : lost) {
        const auto behind = ts.payloads(pid, ts.items[items.back()].time);
        const auto next = std::upper_bound(behind.begin(), behind.end(), items.back());
        const auto count = static_cast<std::int64_t>(items.size());
        if (next == behind.end()) {
            continue;
        }
        if (count % MODULUS == 0) {
            expect_unseen_loss(job, pid, items, alone);
            continue;
        }
        if (looks_like_copy(ts, pid, items.front(), *next)) {
            job.may("1.4", {pid, NO_PID}, job.point(*next));
            job.record.cannot.emplace_back(
                "a loss between packets that are alike, counter and all");
            continue;
        }
        Finding& finding = job.must("1.4", {"loss"}, {pid}, job.point(*next));
        if (looks_like_restart(ts, pid, items, *next)) {
            finding.kinds.emplace_back("reset");
            job.record.cannot.emplace_back("a loss that ends at counter 0 inside one picture");
        }
        const bool certain = count < MODULUS || (ts.constant && alone) ||
                             (!ts.constant && ts.kind_of(pid) == StreamKind::audio);
        finding.has("lost", certain ? std::vector{count} : std::vector{count, count % MODULUS});
        if (!certain) {
            job.record.cannot.emplace_back("turns of the counter beyond the first");
        }
    }
}

void lose(Job& job, const Lost& lost) {
    for (const auto& [pid, items] : lost) {
        for (const std::size_t i : items) {
            job.ts.items[i].gone = true;
        }
    }
}

// Packets of one pid, one behind the other; those of other pids between them stay.
void apply_loss(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto count = static_cast<std::size_t>(job.whole("count"));
    const auto all = ts.payloads(pid, job.start(1));
    if (all.size() < count + 20) {
        throw Refused("too few packets of the pid behind this place");
    }
    const Lost lost{{pid, {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)}}};
    job.touches(all.front(), pid);
    expect_losses(job, lost);
    lose(job, lost);
}

// Losses in quick succession: three are told one by one, the rest as one interval.
void apply_flood(Job& job) {
    constexpr double STEP = 0.4; // seconds
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int count = job.whole("events");
    const double from = job.start(STEP * count);
    std::vector<std::size_t> behind;
    for (int k = 0; k < count; ++k) {
        const auto packets = ts.payloads(pid, from + STEP * k);
        // Not up to counter 0, which could pass for a restart.
        const std::size_t first = counter_of(ts.items[packets.at(2)].bytes) == 0 ? 1 : 0;
        for (std::size_t lost = 0; lost < 2; ++lost) {
            ts.items[packets[first + lost]].gone = true;
        }
        behind.push_back(packets.at(first + 2));
    }
    job.touches(behind.front(), pid);
    for (std::size_t k = 0; k < 3; ++k) {
        job.must("1.4", {"loss"}, {pid}, job.point(behind[k])).has("lost", {2});
    }
    job.must("1.4", {"loss"}, {pid}, job.point(behind[3]))
        .ends(job.point(behind.back()))
        .has("count", {count - 3});
}

// What a network loses: whole datagrams of seven packets, of whatever pids.
void apply_datagram(Job& job) {
    Capture& ts = job.ts;
    const auto count = static_cast<std::size_t>(job.whole("count"));
    const std::size_t first = ts.at(job.start(1)) / DATAGRAM * DATAGRAM;
    const std::size_t last = std::min(ts.items.size() - 1, first + count * DATAGRAM);
    Lost lost;
    for (std::size_t i = first; i < last; ++i) {
        const int pid = pid_of(ts.items[i].bytes);
        if (pid != NULL_PID && has_payload(ts.items[i].bytes)) {
            lost[pid].push_back(i);
        }
    }
    job.touches(first, NO_PID);
    expect_losses(job, lost);
    if (lost.size() > 1 && count == 1) {
        job.must("q.8", {"loss"}, {}, job.until(first, last, 0.3));
    } else {
        job.may("q.8", {}, job.until(first, last, 0.3));
    }
    for (std::size_t i = first; i < last; ++i) {
        ts.items[i].gone = true;
    }
}

// A copy that the multiplexer sends in a slot of its own, with a PCR of its own.
void copy_into_slot(Job& job, std::size_t i, int pid) {
    Capture& ts = job.ts;
    for (std::size_t k = i + 1; k < ts.items.size() && !ts.is_live(k, pid); ++k) {
        if (ts.is_live(k, NULL_PID)) {
            ts.items[k].bytes = ts.items[i].bytes;
            if (const auto pcr = pcr_of(ts.items[i].bytes); pcr) {
                const double later = (ts.items[k].time - ts.items[i].time) * PCR_HZ;
                set_pcr(ts.items[k].bytes, *pcr + std::llround(later));
            }
            return;
        }
    }
    throw Refused("no null packet before the pid's next packet");
}

// One repetition is lawful (2.4.3.3), a second is not.
void apply_repeat(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto copies = static_cast<std::size_t>(job.whole("copies"));
    const bool slot = job.whole("slot") != 0 && ts.constant && copies == 1;
    const std::size_t i = ts.payloads(pid, job.start(1)).at(0);
    job.touches(i, pid);
    if (slot) {
        copy_into_slot(job, i, pid);
        return;
    }
    std::uint32_t last = 0;
    for (std::size_t k = 0; k < copies; ++k) {
        last = ts.add_copy(i, i + k);
    }
    if (copies > 1) {
        job.must("1.4", {"duplicate"}, {pid}, {last, last});
    }
}

void apply_duplicate_datagram(Job& job) {
    Capture& ts = job.ts;
    std::size_t first = ts.at(job.start(1)) / DATAGRAM * DATAGRAM;
    std::map<int, std::vector<std::size_t>> runs;
    do {
        runs.clear();
        first += DATAGRAM;
        for (std::size_t i = first; i < first + DATAGRAM && i < ts.items.size(); ++i) {
            if (pid_of(ts.items[i].bytes) != NULL_PID && has_payload(ts.items[i].bytes)) {
                runs[pid_of(ts.items[i].bytes)].push_back(i);
            }
        }
    } while (first + 2 * DATAGRAM < ts.items.size() &&
             std::none_of(runs.begin(), runs.end(),
                          [](const auto& run) { return run.second.size() > 1; }));
    if (first + 2 * DATAGRAM > ts.items.size()) {
        throw Refused("no datagram behind this place has several packets of a pid");
    }
    job.touches(first, NO_PID);
    std::vector<std::uint32_t> copies;
    for (std::size_t k = 0; k < DATAGRAM; ++k) {
        copies.push_back(ts.add_copy(first + k, first + DATAGRAM - 1 + k));
    }
    for (const auto& [pid, items] : runs) {
        if (items.size() > 1) {
            // A run of several is no lawful repetition; its copy begins with the first of them.
            job.must("1.4", {"duplicate"}, {pid},
                     {copies[items.front() - first], copies[items.back() - first]});
        }
    }
    job.may("q.8", {}, {ts.items[first].id, copies.back()});
}

void apply_order(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const auto count = static_cast<std::size_t>(job.whole("count", 9));
    const auto all = ts.payloads(pid, job.start(1));
    if (all.size() < count + 20) {
        throw Refused("too few packets of the pid behind this place");
    }
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), 0U);
    do {
        for (std::size_t k = count; k > 1; --k) {
            std::swap(order[k - 1], order[job.random.below(k)]);
        }
    } while (order.front() == 0 || order.back() == count - 1);
    std::vector<Packet> packets;
    for (std::size_t k = 0; k < count; ++k) {
        packets.push_back(ts.items[all[order[k]]].bytes);
    }
    for (std::size_t k = 0; k < count; ++k) {
        ts.items[all[k]].bytes = packets[k];
    }
    job.touches(all[0], pid);
    job.must("1.4", {"order"}, {pid}, job.point(all[0]));
}

void apply_order_datagram(Job& job) {
    Capture& ts = job.ts;
    std::size_t first = ts.at(job.start(1)) / DATAGRAM * DATAGRAM;
    const auto pids_in = [&ts](std::size_t from) {
        std::map<int, int> out;
        for (std::size_t i = from; i < from + DATAGRAM; ++i) {
            if (pid_of(ts.items[i].bytes) != NULL_PID && has_payload(ts.items[i].bytes)) {
                ++out[pid_of(ts.items[i].bytes)];
            }
        }
        return out;
    };
    std::vector<int> both;
    for (; both.empty() && first + 2 * DATAGRAM < ts.items.size(); first += DATAGRAM) {
        const auto behind = pids_in(first + DATAGRAM);
        for (const auto& [pid, count] : pids_in(first)) {
            if (behind.contains(pid)) {
                both.push_back(pid);
            }
        }
    }
    if (both.empty()) {
        throw Refused("no two datagrams behind this place have a pid in common");
    }
    first -= DATAGRAM;
    for (std::size_t k = 0; k < DATAGRAM; ++k) {
        std::swap(ts.items[first + k].bytes, ts.items[first + DATAGRAM + k].bytes);
    }
    job.touches(first, NO_PID);
    both.push_back(NO_PID);
    job.must("1.4", {"order"}, both, job.range(first, first + 2 * DATAGRAM));
    job.may("q.8", {}, job.range(first, first + 2 * DATAGRAM));
}

// The counter starts anew though nothing is missing, as a restarted encoder does.
void apply_reset(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int value = job.whole("value", 15);
    for (const std::size_t i : ts.payloads(pid, job.start(1))) {
        const int away = (value - counter_of(ts.items[i].bytes) + MODULUS) % MODULUS;
        if (away == 0 || away == MODULUS - 1) {
            continue; // right as it is, or the same as the one before
        }
        job.touches(i, pid);
        ts.shift_counters(pid, i, away);
        Finding& finding = job.must("1.4", {"reset"}, {pid}, job.point(i));
        if (!ts.constant && ts.kind_of(pid) == StreamKind::video) {
            finding.kinds.emplace_back("loss");
            job.record.cannot.emplace_back(
                "whether packets of a picture of unknown length are missing");
        }
        return;
    }
    throw Refused("no packet to set the counter at");
}

// A break that the discontinuity_indicator announces is lawful (2.4.3.4).
void apply_flagged_break(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    const int by = job.whole("by", 15);
    for (const std::size_t i : ts.payloads(pid, job.start(1))) {
        if (has_flags(ts.items[i].bytes)) {
            set_discontinuity(ts.items[i].bytes);
            ts.shift_counters(pid, i, by);
            job.touches(i, pid);
            return;
        }
    }
    throw Refused("no packet of the pid has an adaptation field");
}

void apply_frozen(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    auto count = static_cast<std::size_t>(job.whole("count"));
    const bool resume = job.whole("resume") != 0;
    if (!resume && count % MODULUS == 0) {
        ++count; // the first that goes on would have the same counter
        job.record.parameters["count"] = count;
    }
    const auto all = ts.payloads(pid, job.start(1));
    if (all.size() < count + 20) {
        throw Refused("too few packets of the pid behind this place");
    }
    const int value = counter_of(ts.items[all[0]].bytes);
    for (std::size_t i = all[0]; i < all[count]; ++i) {
        if (ts.is_live(i, pid)) {
            set_counter(ts.items[i].bytes, value);
        }
    }
    if (resume) {
        ts.shift_counters(pid, all[count], -static_cast<int>(count - 1));
    }
    job.touches(all[1], pid);
    job.must("1.4", {"frozen"}, {pid}, job.point(all[1])).ends(job.point(all[count - 1]));
}

constexpr Kind KINDS[] = {
    {"loss", "count=1..14,pid=any", "packets of a pid are lost", apply_loss},
    {"loss_15", "count=15..15,pid=any", "15 packets are lost: the counter seems to stand",
     apply_loss},
    {"loss_16", "count=16..16,pid=any", "16 packets are lost: the counter shows no break",
     apply_loss},
    {"loss_many", "count=17..45,pid=any", "more packets are lost than the counter can tell",
     apply_loss},
    {"loss_flood", "events=6..15,pid=any", "a pid loses two packets again and again", apply_flood},
    {"datagram", "count=1..1", "a datagram of seven packets is lost", apply_datagram},
    {"burst", "count=2..12", "several datagrams in a row are lost", apply_datagram},
    {"repeat", "copies=1..1,slot=0|1,pid=any",
     "a packet is sent twice, as is lawful (slot=1: by the multiplexer)", apply_repeat},
    {"repeat_twice", "copies=2..2,slot=0,pid=any", "a packet is sent three times", apply_repeat},
    {"duplicate_datagram", "", "a datagram of seven packets is sent twice",
     apply_duplicate_datagram},
    {"order", "count=2..6,pid=any", "packets of a pid are out of order", apply_order},
    {"order_datagram", "", "two datagrams of seven packets change places", apply_order_datagram},
    {"reset", "value=0,pid=any", "a counter starts anew, nothing is missing", apply_reset},
    {"flagged_break", "by=1..15,pid=any",
     "a counter jumps where the discontinuity_indicator is set", apply_flagged_break},
    {"frozen", "count=4..24,resume=0|1,pid=any",
     "a counter stands still (resume=1: and goes on from there)", apply_frozen},
};

} // namespace

std::span<const Kind> counter_kinds() {
    return KINDS;
}

} // namespace inject
