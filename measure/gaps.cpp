// When gaps of tables are findings, consequences, or parts of one run.
#include "gaps.h"

#include <algorithm>
#include <utility>

#include "recorder.h"

namespace quarn {

namespace {

// Losses, stops and outages are known this long behind their packets.
constexpr Ticks settle = ticks_per_second;
constexpr Ticks settle_live = 100 * ticks_per_ms;
constexpr std::uint64_t settle_packets = 10'000; // without a clock
constexpr std::size_t pending_max = 4096;
constexpr std::size_t excuses_max = 1024;

bool settled(const Place& place, const Place& now, Ticks by) {
    if (place.time != no_time && now.time != no_time)
        return now.time - place.time >= by;
    return now.packet >= place.packet + settle_packets;
}

} // namespace

void SureClock::see(const Place& place) {
    if (place.time == no_time)
        return;
    runs_ = true;
    if (place.estimated)
        return;
    if (first_ == no_time)
        first_ = place.time;
    last_ = std::max(last_, place.time);
}

Ticks SureClock::sure(const Place& place) const {
    if (!place.estimated)
        return place.time;
    return std::clamp(place.time, first_, last_);
}

std::optional<Ticks> SureClock::distance(const Place& from, const Place& to) const {
    if (from.time == no_time || to.time == no_time)
        return std::nullopt;
    if (first_ == no_time)
        return 0;
    return std::max<Ticks>(0, sure(to) - sure(from));
}

void Gaps::came(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
                const Place& place) {
    const std::optional<Ticks> known = clock_.distance(series.last, place);
    const Ticks distance = known.value_or(0);
    if (recorder_ != nullptr && known)
        recorder_->table(row, place, distance);
    if (distance > row.limit) {
        gap(series, row, std::move(programs), place);
    } else {
        series.usual = std::max(series.usual, distance);
        good(series, place);
    }
    series.last = place;
}

void Gaps::good(Series& series, const Place& place) {
    const std::uint64_t interval = std::exchange(series.interval, 0);
    if (!std::exchange(series.in_run, false))
        return output_.withdraw(interval);
    Pending end;
    end.what = Pending::What::end_of_run;
    end.series = series.id;
    end.until = place;
    push(std::move(end));
}

void Gaps::gap(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
               const Place& to, bool open) {
    if (series.id == 0)
        series.id = new_id();
    if (series.interval == 0)
        series.interval = output_.new_id();
    if (!runs_.contains(series.id))
        output_.withdraw(series.interval); // what becomes of it is decided when all is known
    series.in_run = true;
    push(make(series, row, std::move(programs), to, open));
}

void Gaps::going_on(Series& series, const GapRow& row, std::vector<std::uint16_t> programs,
                    const Place& now) {
    if (series.interval == 0)
        series.interval = output_.new_id();
    if (output_.raised(series.interval) || runs_.contains(series.id))
        return;
    Pending p = make(series, row, std::move(programs), now, true);
    if (!excused(p))
        output_.going_on(std::move(p.finding));
}

Gaps::Pending Gaps::make(const Series& series, const GapRow& row,
                         std::vector<std::uint16_t> programs, const Place& to, bool open) const {
    Pending p;
    p.what = Pending::What::gap;
    p.series = series.id;
    p.excusable = true;
    // One that is missing leaves twice the usual distance, and a little.
    p.limit = series.usual == 0 ? row.limit : std::min(row.limit, series.usual * 3 / 2);
    p.length = clock_.distance(series.last, to).value_or(0);
    p.until = to;
    Finding& f = p.finding;
    f.rule = row.rule;
    f.kind = Kind::gap;
    f.severity = info(row.rule).severity;
    f.shape = Shape::interval;
    f.open = open;
    f.programs = std::move(programs);
    f.pid = row.pid;
    f.begin = series.last;
    f.end = to;
    f.detail.interval_ms = milliseconds(p.length);
    f.detail.limit_ms = milliseconds(row.limit);
    f.detail.table_id = row.table_id;
    f.id = series.interval;
    return p;
}

void Gaps::other(Finding&& finding) {
    Pending p;
    p.until = finding.end;
    p.finding = std::move(finding);
    push(std::move(p));
}

void Gaps::excusable(Finding&& finding, Ticks length, Ticks limit) {
    Pending p;
    p.excusable = true;
    p.length = length;
    p.limit = limit;
    p.until = finding.end;
    p.finding = std::move(finding);
    push(std::move(p));
}

void Gaps::silence(std::uint16_t pid, const Place& from, const Place& to) {
    add({Excuse::What::silence, pid, from, to});
}

void Gaps::damage(std::uint16_t pid, const Place& from, const Place& to) {
    add({Excuse::What::damage, pid, from, to});
}

void Gaps::unreadable(std::uint16_t pid, const Place& from, const Place& to) {
    add({Excuse::What::unreadable, pid, from, to});
}

void Gaps::add(const Excuse& excuse) {
    // A silence that goes on.
    if (excuse.what == Excuse::What::silence && !excuses_.empty() &&
        excuses_.back().what == excuse.what && excuses_.back().pid == excuse.pid &&
        excuses_.back().from.packet == excuse.from.packet) {
        excuses_.back().to = excuse.to;
        return;
    }
    excuses_.push_back(excuse);
    if (excuses_.size() > excuses_max)
        excuses_.pop_front();
}

void Gaps::push(Pending&& pending) {
    pending_.push_back(std::move(pending));
    if (pending_.size() > pending_max) {
        Pending first = std::move(pending_.front());
        pending_.pop_front();
        decide(std::move(first));
    }
}

void Gaps::advance(const Place& now) {
    while (!pending_.empty() &&
           settled(pending_.front().until, now, live_ ? settle_live : settle)) {
        Pending first = std::move(pending_.front());
        pending_.pop_front();
        decide(std::move(first));
    }
}

void Gaps::finish() {
    while (!pending_.empty()) {
        decide(std::move(pending_.front()));
        pending_.pop_front();
    }
    while (!runs_.empty())
        end_run(runs_.begin()->first);
}

void Gaps::decide(Pending&& pending) {
    switch (pending.what) {
    case Pending::What::end_of_run:
        return end_run(pending.series);
    case Pending::What::gap:
        return decide_gap(std::move(pending));
    case Pending::What::other:
        if (pending.excusable && excused(pending))
            output_.consequence(pending.finding.rule);
        else
            output_.finding(std::move(pending.finding));
    }
}

void Gaps::decide_gap(Pending&& pending) {
    const std::uint64_t id = pending.finding.id;
    if (excused(pending) && !output_.raised(id))
        return output_.consequence(pending.finding.rule);
    const auto [run, first] = runs_.try_emplace(pending.series, pending.finding);
    if (first) {
        if (id != 0 && !pending.finding.open && !output_.raised(id))
            output_.going_on(std::move(pending.finding)); // for there may be more of them
        return;
    }
    Finding& f = run->second;
    ++f.count;
    f.end = pending.finding.end;
    f.open = pending.finding.open;
    f.detail.interval_ms = std::max(f.detail.interval_ms, pending.finding.detail.interval_ms);
    f.detail.worst = f.detail.interval_ms;
}

Ticks Gaps::overlap(const Excuse& excuse, const Finding& finding) const {
    const Place& from = excuse.from.packet > finding.begin.packet ? excuse.from : finding.begin;
    const Place& to = excuse.to.packet < finding.end.packet ? excuse.to : finding.end;
    return clock_.distance(from, to).value_or(0);
}

// Each damage may have hit a section. What else was lost while all pids lost something is told by
// the damage of other pids: the packets of a table are too rare for that.
bool Gaps::excused(const Pending& pending) const {
    const Finding& f = pending.finding;
    const bool gap = pending.what == Pending::What::gap;
    Ticks sections = 1;
    bool own = false;
    Ticks lost = 0;
    Ticks lost_of_others = 0;
    for (const Excuse& e : excuses_) {
        if (e.to.packet < f.begin.packet || e.from.packet > f.end.packet)
            continue;
        const bool all = e.pid == null_pid;
        const bool its = e.pid == f.pid;
        if (e.what == Excuse::What::silence && (all || its))
            return true;
        if (!all && (!gap || e.what == Excuse::What::silence))
            continue;
        if (all || its)
            ++sections;
        own = own || its;
        if (all)
            lost += overlap(e, f);
        else if (!its)
            lost_of_others = std::max(lost_of_others, overlap(e, f));
    }
    if (own)
        lost += lost_of_others;
    return sections > 1 && pending.length - lost <= sections * pending.limit;
}

void Gaps::end_run(std::uint32_t series) {
    const auto run = runs_.find(series);
    if (run == runs_.end())
        return;
    Finding finding = std::move(run->second);
    runs_.erase(run);
    output_.finding(std::move(finding));
}

} // namespace quarn
