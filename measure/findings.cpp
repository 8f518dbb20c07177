#include "findings.h"

#include <algorithm>
#include <cmath>

namespace quarn {

namespace {
constexpr Ticks hold = 800 * ticks_per_ms;    // until what explains a finding is known
constexpr std::uint64_t hold_packets = 8'000; // the same without a clock
constexpr Ticks near = 600 * ticks_per_ms;    // a loss and the pictures that it took
constexpr double small_step = 500;            // ms, of a clock that a few packets took along
constexpr Ticks quiet = ticks_per_second;     // ends a flood
constexpr std::uint64_t quiet_packets = 10'000;
constexpr unsigned single = 3; // findings of a flood that stay as they are
constexpr std::size_t causes_kept = 256;

using What = Cause::What;
/// What follows from what: a finding of the rule that overlaps the cause.
struct Explanation {
    Rule rule;
    What cause;
    bool same_pid;
};
constexpr Explanation explanations[] = {
    {Rule::pcr_repetition_error, What::sync_lost, false},
    {Rule::pcr_repetition_error, What::transport_error, true},
    {Rule::pcr_repetition_error, What::stopped, true},
    {Rule::pcr_repetition_error, What::outage, false},
    {Rule::pcr_discontinuity_indicator_error, What::sync_lost, false},
    {Rule::pcr_accuracy_error, What::sync_lost, false},
    {Rule::pts_error, What::sync_lost, false},
    {Rule::pts_error, What::stopped, true},
    {Rule::pts_error, What::outage, false},
    {Rule::late_stamp, What::outage, false},
    {Rule::pid_error, What::outage, false},
};
/// An outage explains what is not much longer than itself.
bool covers(const Cause& c, const Finding& f) {
    return c.what != What::outage || f.shape == Shape::point || f.end.time == no_time ||
           2 * c.length >= f.end.time - f.begin.time;
}

/// What follows from a loss of packets or a stamp out of order of the same pid, near in time.
bool beside(const Cause& c, const Finding& f) {
    if (c.time < f.begin.time - near || c.time > f.end.time + near)
        return false;
    if (f.rule == Rule::stamp_jump &&
        f.kind == Kind::frames_missing) // a burst may lack 16 of one pid
        return c.pid == f.pid || c.what == What::lost;
    if (c.what != What::lost || c.pid != f.pid)
        return false;
    const double gap = f.detail.interval_ms.value_or(0);
    return (f.rule == Rule::pts_error && gap <= 2 * f.detail.limit_ms.value_or(0)) ||
           (f.rule == Rule::pcr_discontinuity_indicator_error && f.kind == Kind::ahead &&
            f.detail.step_ms.value_or(0) < small_step);
}

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

Findings::Findings(const Options& options, Sink& sink) : options_(options), sink_(sink) {}

void Findings::finding(Finding&& finding) {
    if (finding.rule == Rule::continuity_count_error && finding.kind == Kind::loss)
        cause({What::lost, finding.pid, 0, 0, finding.begin.time, 0});
    if (finding.rule == Rule::stamp_order)
        cause({What::out_of_order, finding.pid, 0, 0, finding.begin.time, 0});
    if (wanted(finding))
        waiting_.push_back({std::move(finding), now_});
}

void Findings::consequence(Rule rule) {
    ++rows_[index(rule)].consequences;
}

void Findings::cause(const Cause& cause) {
    causes_.push_back(cause);
    if (causes_.size() > causes_kept)
        causes_.pop_front();
}

bool Findings::wanted(const Finding& f) const {
    if (options_.ignore.contains(f.rule))
        return false;
    if (!options_.program)
        return true;
    switch (f.rule) {
    case Rule::ts_sync_loss:
    case Rule::sync_byte_error:
    case Rule::pat_error_2:
    case Rule::transport_error:
    case Rule::off_air:
    case Rule::truncated:
        return true;
    default:
        return std::find(f.programs.begin(), f.programs.end(), *options_.program) !=
               f.programs.end();
    }
}

bool Findings::follows(const Finding& f) const {
    if (f.begin.time != no_time)
        for (const Cause& c : causes_)
            if (c.time != no_time && beside(c, f))
                return true;
    for (const Explanation& e : explanations) {
        if (e.rule != f.rule)
            continue;
        for (const Cause& c : causes_)
            if (c.what == e.cause && covers(c, f) && (!e.same_pid || !c.pid || c.pid == f.pid) &&
                f.begin.packet <= c.to && f.end.packet >= c.from)
                return true;
    }
    return false;
}

bool Findings::apart(const Place& from, const Place& to, Ticks time, std::uint64_t packets) {
    if (from.time != no_time && to.time != no_time)
        return to.time - from.time >= time;
    return to.packet >= from.packet + packets;
}

void Findings::advance(const Place& now) {
    now_ = now;
    while (!waiting_.empty() && apart(waiting_.front().decided, now, hold, hold_packets)) {
        // What was decided together goes on in the order of its places.
        auto end = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& w) {
            return w.decided.packet != waiting_.front().decided.packet;
        });
        std::stable_sort(waiting_.begin(), end, [](const Waiting& a, const Waiting& b) {
            return std::tie(a.finding.begin.packet, a.finding.rule, a.finding.pid) <
                   std::tie(b.finding.begin.packet, b.finding.rule, b.finding.pid);
        });
        for (auto n = end - waiting_.begin(); n > 0; --n) {
            release(waiting_.front().finding);
            waiting_.pop_front();
        }
    }
    close_floods(now, false);
}

void Findings::finish() {
    std::stable_sort(waiting_.begin(), waiting_.end(), [](const Waiting& a, const Waiting& b) {
        return std::tie(a.decided.packet, a.finding.begin.packet, a.finding.rule, a.finding.pid) <
               std::tie(b.decided.packet, b.finding.begin.packet, b.finding.rule, b.finding.pid);
    });
    for (Waiting& w : waiting_)
        release(w.finding);
    waiting_.clear();
    close_floods(now_, true);
}

void Findings::release(Finding& f) {
    Row& row = rows_[index(f.rule)];
    if (follows(f)) {
        ++row.consequences;
        return;
    }
    if (recorder_ != nullptr && f.rule == Rule::continuity_count_error && f.kind == Kind::loss)
        recorder_->loss(f);
    row.count += f.count;
    if (!row.first)
        row.first = f.begin;
    row.last = f.end;
    if (const auto m = magnitude(f))
        row.worst = std::max(row.worst.value_or(0), *m);
    row.severity = std::max(row.severity.value_or(Severity::info), f.severity);
    thin(f);
}

void Findings::thin(Finding& f) {
    Flood& flood = floods_[{f.rule, f.kind, f.pid}];
    if (flood.run > 0 && apart(flood.last, f.begin, quiet, quiet_packets)) {
        if (flood.held)
            hand_on(*flood.held);
        flood = {};
    }
    ++flood.run;
    flood.last = f.end;
    if (flood.run <= single) {
        hand_on(f);
        return;
    }
    const auto size = magnitude(f);
    if (!flood.held) {
        flood.held = f;
        flood.held->shape = Shape::interval;
        flood.held->detail.worst = size;
        return;
    }
    Finding& held = *flood.held;
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

void Findings::close_floods(const Place& now, bool all) {
    for (auto i = floods_.begin(); i != floods_.end();) {
        if (!all &&
            !apart(i->second.last, now, quiet + 2 * hold, quiet_packets + 2 * hold_packets)) {
            ++i;
            continue;
        }
        if (i->second.held)
            hand_on(*i->second.held);
        i = floods_.erase(i);
    }
}

void Findings::hand_on(const Finding& f) {
    sink_.finding(f);
}

void Findings::summarise(RuleSummary& row) const {
    const Row& r = rows_[index(row.rule)];
    row.count = r.count;
    row.consequences = r.consequences;
    row.first = r.first;
    row.last = r.last;
    row.worst = r.worst;
}

} // namespace quarn
