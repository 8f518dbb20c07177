#include "damage.h"

#include <algorithm>

namespace quarn {

namespace {
constexpr Ticks one_run = 100 * ticks_per_ms;
constexpr std::uint64_t one_run_packets = 1000;
constexpr std::uint64_t datagram = 7; // packets

bool apart(const Place& from, const Place& to) {
    if (from.time != no_time && to.time != no_time)
        return to.time - from.time > one_run;
    return to.packet > from.packet + one_run_packets;
}
} // namespace

Finding Damage::make(Rule rule, Kind kind, std::optional<std::uint16_t> pid) const {
    Finding f;
    f.rule = rule;
    f.kind = kind;
    f.severity = info(rule).severity;
    f.pid = pid;
    if (pid && programs_)
        f.programs = programs_->programs_of(*pid);
    return f;
}

void Damage::transport_error(std::uint16_t pid, const Place& place) {
    Run& run = runs_[pid];
    if (run.count > 0 && apart(run.last, place)) {
        close(pid, run);
        run = {};
    }
    if (run.count++ == 0)
        run.first = place;
    run.last = place;
}

void Damage::close(std::uint16_t pid, const Run& run) {
    output_.finding(make(pid, run));
}

Finding Damage::make(std::uint16_t pid, const Run& run) const {
    Finding f = make(Rule::transport_error, Kind::none, pid);
    f.shape = Shape::interval;
    f.begin = run.first;
    f.end = run.last;
    f.count = run.count;
    f.id = run.interval;
    return f;
}

void Damage::look(const Place&) {
    for (auto& [pid, run] : runs_) {
        if (run.interval == 0)
            run.interval = output_.new_id();
        output_.going_on(make(pid, run));
    }
}

void Damage::sync_byte(const Place& place) { // its pid may be damaged as well
    Finding f = make(Rule::sync_byte_error, Kind::none, std::nullopt);
    f.begin = f.end = place;
    output_.finding(std::move(f));
}

void Damage::sync_loss(const SyncLoss& loss, const Place& begin, const Place& end) {
    Finding f = make(Rule::ts_sync_loss, loss.kind, std::nullopt);
    f.shape = Shape::interval;
    f.begin = begin;
    f.end = end;
    f.end.byte = loss.end_byte;
    if (loss.kind != Kind::garbled)
        f.detail.bytes = loss.bytes;
    output_.finding(std::move(f));
}

void Damage::truncated(std::int64_t bytes, const Place& place) {
    Finding f = make(Rule::truncated, Kind::none, std::nullopt);
    f.begin = f.end = place;
    f.detail.bytes = bytes;
    output_.finding(std::move(f));
}

void Damage::datagrams(const DatagramEvent& event, const Place& place) {
    Finding f = make(Rule::datagram_error, event.kind, std::nullopt);
    f.severity = event.kind == Kind::loss ? Severity::error : Severity::info;
    f.begin = f.end = place;
    f.detail.datagrams = event.datagrams;
    f.detail.packets = event.packets;
    output_.finding(std::move(f));
}

void Damage::order(const OrderFault& fault, const Place& begin, const Place& end) {
    if (!swaps_.empty()) {
        std::uint64_t to = 0;
        for (const Swap& s : swaps_)
            to = std::max(to, s.end.packet);
        if (begin.packet > to)
            close_swaps();
    }
    swaps_.push_back({fault, begin, end});
}

// Whole datagrams that change places show on all pids in them, and on one with many packets in a
// way that no few packets explain.
void Damage::close_swaps() {
    const bool whole =
        swaps_.size() > 1 || (swaps_.size() == 1 && swaps_[0].fault.packets > datagram + 2);
    Finding one = make(Rule::continuity_count_error, Kind::order, std::nullopt);
    for (const Swap& s : swaps_) {
        Finding f = make(Rule::continuity_count_error, Kind::order, s.fault.pid);
        f.begin = f.end = s.begin;
        f.detail.packets = s.fault.packets;
        if (!whole) {
            output_.finding(std::move(f));
            continue;
        }
        if (one.detail.pids.empty() || s.begin.packet < one.begin.packet)
            one.begin = one.end = s.begin;
        one.detail.pids.push_back(s.fault.pid);
        one.detail.packets = one.detail.packets.value_or(0) + s.fault.packets;
        for (const std::uint16_t n : f.programs)
            if (std::find(one.programs.begin(), one.programs.end(), n) == one.programs.end())
                one.programs.push_back(n);
    }
    swaps_.clear();
    if (!whole)
        return;
    std::sort(one.detail.pids.begin(), one.detail.pids.end());
    one.detail.pids.erase(std::unique(one.detail.pids.begin(), one.detail.pids.end()),
                          one.detail.pids.end());
    std::sort(one.programs.begin(), one.programs.end());
    output_.finding(std::move(one));
}

void Damage::copies(const CopyFault& fault, const Place& place) {
    Finding f = make(Rule::continuity_count_error, Kind::duplicate, fault.pid);
    f.begin = f.end = place;
    f.detail.packets = fault.packets;
    output_.finding(std::move(f));
}

void Damage::frozen(const FrozenRun& run, const Place& begin, const Place& end, bool going_on) {
    Finding f = make(Rule::continuity_count_error, Kind::frozen, run.pid);
    f.shape = Shape::interval;
    f.begin = begin;
    f.end = end;
    f.detail.expected = static_cast<int>((run.counter + 1) & 15);
    f.detail.got = static_cast<int>(run.counter);
    f.detail.packets = run.packets;
    if (going_on) {
        std::uint64_t& id = frozen_[run.pid];
        id = id == 0 ? output_.new_id() : id;
        f.id = id;
        return output_.going_on(std::move(f));
    }
    if (const auto known = frozen_.find(run.pid); known != frozen_.end()) {
        f.id = known->second;
        frozen_.erase(known);
    }
    output_.finding(std::move(f));
}

void Damage::advance(const Place& now) {
    std::erase_if(runs_, [&](const auto& r) {
        if (!apart(r.second.last, now))
            return false;
        close(r.first, r.second);
        return true;
    });
    const bool done = std::all_of(swaps_.begin(), swaps_.end(), [&](const Swap& s) {
        return now.packet > s.end.packet + 4 * datagram;
    });
    if (!swaps_.empty() && done)
        close_swaps();
}

void Damage::finish() {
    for (const auto& [pid, run] : runs_)
        close(pid, run);
    runs_.clear();
    if (!swaps_.empty())
        close_swaps();
}

} // namespace quarn
