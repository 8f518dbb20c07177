#include "findings.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace quarn {

namespace {
constexpr Ticks hold = 800 * ticks_per_ms;    // until what explains a finding is known
constexpr std::uint64_t hold_packets = 8'000; // the same without a clock
constexpr Ticks near = 600 * ticks_per_ms;    // a loss and the pictures that it took
constexpr double small_step = 500;            // ms, of a clock that a few packets took along
// Live: until an interval is told that goes on. A stream that stopped is known after a second, and
// explains that its PCRs are missing.
constexpr Ticks hold_raise = 1'000 * ticks_per_ms;
constexpr std::size_t begun_max = 1024;
constexpr std::size_t waiting_max = 4096;
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
    {Rule::unexpected, What::outage, false},
    {Rule::unexpected, What::stopped, true},
};
/// An outage explains what is not much longer than itself.
bool covers(const Cause& c, const Finding& f) {
    return c.what != What::outage || f.shape == Shape::point || f.end.time == no_time ||
           2 * c.length >= f.end.time - f.begin.time;
}

/// Of what is not as expected only how much comes can follow from anything; what it is cannot.
bool can_follow(const Finding& f) {
    if (f.rule != Rule::unexpected)
        return true;
    return std::any_of(f.detail.changes.begin(), f.detail.changes.end(), [](const auto& change) {
        return change.what == TableChange::What::bitrate || change.what == TableChange::What::table;
    });
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

Findings::Findings(const Options& options, Sink& sink)
    : options_(options), floods_(options.live, sink) {}

void Findings::finding(Finding&& finding) {
    if (finding.rule == Rule::continuity_count_error && finding.kind == Kind::loss)
        cause({What::lost, finding.pid, 0, 0, finding.begin.time, 0});
    if (finding.rule == Rule::stamp_order)
        cause({What::out_of_order, finding.pid, 0, 0, finding.begin.time, 0});
    if (finding.rule == Rule::continuity_count_error)
        lost_packets_ += static_cast<std::uint64_t>(finding.detail.lost.value_or(0));
    if (!wanted(finding))
        return;
    if (finding.id != 0 && raised(finding.id)) {
        note(finding, finding.count - std::min(floods_.counted(finding.id), finding.count));
        floods_.clear(finding);
        return;
    }
    begun_.erase(finding.id);
    waiting_.push_back({std::move(finding), now_});
}

void Findings::consequence(Rule rule) {
    ++rows_[index(rule)].consequences;
}

void Findings::cause(const Cause& cause) {
    const bool lasts = cause.what == What::stopped || cause.what == What::outage;
    const auto known = std::find_if(causes_.rbegin(), causes_.rend(), [&](const Cause& c) {
        return lasts && c.what == cause.what && c.pid == cause.pid && c.from == cause.from;
    });
    if (known != causes_.rend()) { // it goes on
        *known = cause;
        return;
    }
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
    if (!can_follow(f))
        return false;
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

bool Findings::by_place(const Waiting& a, const Waiting& b) {
    return std::tie(a.finding.begin.packet, a.finding.rule, a.finding.pid) <
           std::tie(b.finding.begin.packet, b.finding.rule, b.finding.pid);
}

void Findings::advance(const Place& now) {
    now_ = now;
    if (options_.live) {
        release_live(now);
        raise_due(now);
        floods_.advance(now);
        return;
    }
    while (!waiting_.empty() && apart(waiting_.front().decided, now, hold, hold_packets)) {
        // What was decided together goes on in the order of its places.
        auto end = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& w) {
            return w.decided.packet != waiting_.front().decided.packet;
        });
        std::stable_sort(waiting_.begin(), end, by_place);
        for (auto n = end - waiting_.begin(); n > 0; --n) {
            release(waiting_.front().finding);
            waiting_.pop_front();
        }
    }
    floods_.advance(now);
}

void Findings::finish() {
    std::stable_sort(waiting_.begin(), waiting_.end(), [](const Waiting& a, const Waiting& b) {
        return std::tie(a.decided.packet, a.finding.begin.packet, a.finding.rule, a.finding.pid) <
               std::tie(b.decided.packet, b.finding.begin.packet, b.finding.rule, b.finding.pid);
    });
    for (Waiting& w : waiting_)
        release(w.finding);
    waiting_.clear();
    floods_.finish();
}

void Findings::release(Finding& f) {
    if (follows(f)) {
        ++rows_[index(f.rule)].consequences;
        return;
    }
    if (recorder_ != nullptr && f.rule == Rule::continuity_count_error && f.kind == Kind::loss)
        recorder_->loss(f);
    note(f, f.count);
    floods_.event(f);
}

// Counts events of a finding that is no consequence.
void Findings::note(const Finding& f, std::uint64_t events) {
    Row& row = rows_[index(f.rule)];
    row.count += events;
    counts_.at(f.rule, f.severity) += events;
    if (!row.first)
        row.first = f.begin;
    row.last = f.end;
    if (const auto m = magnitude(f))
        row.worst = std::max(row.worst.value_or(0), *m);
    row.severity = std::max(row.severity.value_or(Severity::info), f.severity);
}

// ---------------------------------------------------------------- live

void Findings::going_on(Finding&& f) {
    if (!wanted(f) || raised(f.id))
        return;
    const auto begun = begun_.find(f.id);
    const std::uint64_t id = f.id;
    if (begun != begun_.end())
        begun->second.finding = std::move(f);
    else if (begun_.size() < begun_max)
        begun_.emplace(id, Begun{std::move(f), now_});
}

bool Findings::raise_is_due(const Finding& f, const Place& now) {
    const double limit = f.detail.limit_ms.value_or(0) * static_cast<double>(ticks_per_ms);
    return apart(f.begin, now, static_cast<Ticks>(limit) + hold_raise, 0);
}

void Findings::raise_due(const Place& now) {
    for (auto entry = begun_.begin(); entry != begun_.end();) {
        Finding& f = entry->second.finding;
        const bool due = f.begin.time != no_time
                             ? raise_is_due(f, now)
                             : apart(entry->second.since, now, hold_raise, hold_packets);
        const bool told = due && !follows(f);
        if (told)
            begin(f);
        entry = told ? begun_.erase(entry) : std::next(entry);
    }
}

void Findings::raise(Finding&& f) {
    if (wanted(f) && !raised(f.id))
        begin(f);
}

void Findings::begin(Finding& f) {
    f.shape = Shape::interval;
    f.open = true;
    note(f, f.count);
    floods_.raise(f);
}

// Behind the place that it is about, for whatever was decided late has waited already.
bool Findings::is_due(const Waiting& w, const Place& now) const {
    const Finding& f = w.finding;
    const bool timed = f.end.time != no_time;
    return apart(timed ? f.end : w.decided, now, hold, hold_packets) ||
           (timed && f.id != 0 && raise_is_due(f, now));
}

void Findings::release_live(const Place& now) {
    const auto due = [&](const Waiting& w) { return is_due(w, now); };
    while (waiting_.size() > waiting_max) {
        release(waiting_.front().finding);
        waiting_.pop_front();
    }
    if (std::none_of(waiting_.begin(), waiting_.end(), due))
        return;
    const auto end = std::stable_partition(waiting_.begin(), waiting_.end(), due);
    std::stable_sort(waiting_.begin(), end, by_place);
    for (auto n = end - waiting_.begin(); n > 0; --n) {
        release(waiting_.front().finding);
        waiting_.pop_front();
    }
}

void Findings::count(Counters& counters) const {
    counters.lost_packets = lost_packets_;
    counters.findings = counts_;
    counters.open = floods_.open();
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
