// What a host is told of findings that are many, and of intervals while they last.
#include "floods.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks quiet = ticks_per_second; // ends a flood
constexpr std::uint64_t quiet_packets = 10'000;
// Findings come that long behind their places:
constexpr Ticks behind = 1600 * ticks_per_ms;
constexpr Ticks behind_live = 1050 * ticks_per_ms;
constexpr std::uint64_t behind_packets = 16'000;
constexpr unsigned single = 3; // findings of a flood that stay as they are
} // namespace

std::optional<double> magnitude(const Finding& f) {
    const Detail& d = f.detail;
    const auto size = [](double x) { return std::abs(x); };
    if (d.interval_ms)
        return *d.interval_ms;
    if (d.step_ms)
        return size(*d.step_ms);
    if (d.error_ns)
        return size(*d.error_ns);
    if (d.late_ms)
        return *d.late_ms;
    if (d.away_ms)
        return *d.away_ms;
    if (d.lost)
        return static_cast<double>(*d.lost);
    if (d.packets)
        return static_cast<double>(*d.packets);
    if (d.bytes)
        return static_cast<double>(*d.bytes);
    return std::nullopt;
}

// Counts the finding; whether it is one too many to stay as it is.
bool Floods::joins(Flood& flood, const Finding& f) {
    const bool held_open = flood.going_on > 0;
    if (flood.run > 0 && !held_open && apart(flood.last, f.begin, quiet, quiet_packets)) {
        close(flood);
        flood.run = 0;
    }
    ++flood.run;
    flood.last = f.end;
    return flood.run > single && f.rule != Rule::unexpected; // each is about a thing of its own
}

void Floods::event(const Finding& f) {
    Flood& flood = floods_[key(f)];
    if (joins(flood, f)) {
        hold(flood, f);
        return;
    }
    if (!live_ || f.shape == Shape::point) {
        tell(f, State::event);
        return;
    }
    Finding both = f;
    both.id = new_id();
    both.open = true;
    tell(both, State::raise);
    both.open = f.open;
    tell(both, State::clear);
}

void Floods::raise(const Finding& f) {
    Flood& flood = floods_[key(f)];
    Raised& raised = raised_[f.id];
    raised = {f, joins(flood, f)};
    if (raised.in_flood) {
        ++flood.going_on;
        hold(flood, f);
        return;
    }
    ++open_.at(f.rule, f.severity);
    tell(f, State::raise);
}

void Floods::clear(const Finding& f) {
    const Raised raised = raised_.at(f.id);
    raised_.erase(f.id);
    Flood& flood = floods_[key(f)];
    flood.run = std::max(flood.run, 1U);
    if (flood.last.packet <= f.end.packet)
        flood.last = f.end;
    if (raised.in_flood) {
        --flood.going_on;
        Finding rest = f; // its first events are in
        rest.count -= std::min(raised.finding.count, rest.count);
        merge(*flood.held, rest);
        return;
    }
    --open_.at(f.rule, raised.finding.severity);
    tell(f, State::clear);
}

void Floods::hold(Flood& flood, const Finding& f) {
    if (flood.held) {
        merge(*flood.held, f);
        return;
    }
    flood.held = f;
    flood.held->shape = Shape::interval;
    flood.held->detail.worst = magnitude(f);
    if (!live_)
        return;
    flood.held->id = new_id();
    flood.severity = f.severity;
    ++open_.at(f.rule, f.severity);
    Finding raise = *flood.held;
    raise.open = true;
    tell(raise, State::raise);
}

void Floods::merge(Finding& held, const Finding& f) const {
    const auto size = magnitude(f);
    if (!live_ || f.end.packet >= held.end.packet) // live they may be decided in another order
        held.end = f.end;
    held.count += f.count;
    held.open = f.open;
    held.severity = std::max(held.severity, f.severity);
    held.sure = std::max(held.sure, f.sure);
    if (size)
        held.detail.worst = std::max(held.detail.worst.value_or(0), *size);
    if (held.detail.lost && f.detail.lost)
        *held.detail.lost += *f.detail.lost;
}

void Floods::close(Flood& flood) {
    if (!flood.held)
        return;
    if (live_)
        --open_.at(flood.held->rule, flood.severity);
    tell(*flood.held, live_ ? State::clear : State::event);
    flood.held.reset();
}

bool Floods::over(const Key& key, const Flood& flood, const Place& now) const {
    if (flood.going_on > 0)
        return false;
    // Errors of PCRs are known ten PCRs later.
    const bool late = !live_ || std::get<Rule>(key) == Rule::pcr_accuracy_error;
    return apart(flood.last, now, quiet + (late ? behind : behind_live),
                 quiet_packets + behind_packets);
}

void Floods::advance(const Place& now) {
    for (auto flood = floods_.begin(); flood != floods_.end();) {
        const bool ends = over(flood->first, flood->second, now);
        if (ends)
            close(flood->second);
        flood = ends ? floods_.erase(flood) : std::next(flood);
    }
}

void Floods::finish() {
    while (!raised_.empty()) // what no rule has ended
        clear(Finding(raised_.begin()->second.finding));
    for (auto& [key, flood] : floods_)
        close(flood);
    floods_.clear();
}

void Floods::tell(const Finding& f, State state) {
    if (state == State::event) {
        sink_.finding(f);
        return;
    }
    Finding told = f;
    told.state = state;
    if (told.end.time != no_time) // the first may have been an estimate
        told.end.time = std::max(told.begin.time, told.end.time);
    sink_.finding(told);
}

} // namespace quarn
