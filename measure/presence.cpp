#include "presence.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {
constexpr double far_over_record = 2.5;
constexpr std::size_t outages_kept = 16;
// Live: a pid's longest silence counts for ten to twenty minutes.
constexpr Ticks records_last = 600 * ticks_per_second;

double ms(Ticks t) {
    return static_cast<double>(t) / ticks_per_ms;
}
Ticks between(const Place& from, const Place& to) {
    return from.time == no_time || to.time == no_time ? 0 : to.time - from.time;
}

// There are null packets for all of that time, by the packets before it, and not just around a hole
// where packets were lost.
bool filled(const Place& from, const Place& to) {
    constexpr double least = 0.25;
    const auto rate = [](std::uint64_t packets, Ticks time) {
        return static_cast<double>(packets) / static_cast<double>(std::max<Ticks>(time, 1));
    };
    return from.time <= 0 || rate(to.packet - from.packet, to.time - from.time) >=
                                 least * rate(from.packet, from.time);
}
} // namespace

Presence::Presence(const Options& options, Output& output, SilenceSink& silences)
    : options_(options), output_(output), silences_(silences) {}

Finding Presence::make(Kind kind, const State& state) const {
    Finding f;
    f.rule = Rule::pid_error;
    f.kind = kind;
    f.severity = state.main() ? Severity::error : Severity::info;
    f.shape = Shape::interval;
    f.pid = state.stream.pid;
    f.programs = programs_->programs_of(state.stream.pid);
    return f;
}

void Presence::programs(const ProgramsPtr& programs, const Place& place) {
    std::map<std::uint16_t, State> wanted;
    for (const Program& p : programs->programs) {
        for (const ElementaryStream& s : p.streams)
            wanted.try_emplace(s.pid).first->second.stream = s;
        if (p.pmt_in_force && p.pcr_pid != null_pid) {
            State& state = wanted[p.pcr_pid];
            state.stream.pid = p.pcr_pid;
            state.is_pcr = true;
        }
    }
    for (auto& [pid, state] : states_) {
        const auto w = wanted.find(pid);
        if (w == wanted.end() || w->second.stream.stream_type != state.stream.stream_type)
            leave(state, place);
    }
    programs_ = programs;
    for (auto& [pid, fresh] : wanted) {
        const auto old = states_.find(pid);
        if (old != states_.end() && old->second.stream.stream_type == fresh.stream.stream_type) {
            if (fresh.is_pcr && !old->second.is_pcr)
                old->second.pcrs = 0;
            if (!fresh.is_pcr && old->second.no_pcr != 0)
                without_pcr(old->second, place, false);
            old->second.stream = fresh.stream;
            old->second.is_pcr = fresh.is_pcr;
            fresh = std::move(old->second);
        } else {
            fresh.since = place;
        }
    }
    states_ = std::move(wanted);
    ever_streams_ = ever_streams_ || std::any_of(states_.begin(), states_.end(),
                                                 [](const auto& s) { return s.second.main(); });
}

void Presence::leave(State& state, const Place& place) {
    if (!state.first)
        never(state, place, false, place);
    else
        without_pcr(state, place, true);
    if (output_.raised(state.interval)) // a stop of what is not wanted any more
        end(state, make_stopped(state, place, between(state.last, place)));
    nothing(state);
}

// ---------------------------------------------------------------- what goes on, and its end

void Presence::goes_on(State& state, Finding&& f) {
    if (state.interval == 0)
        state.interval = output_.new_id();
    f.id = state.interval;
    output_.going_on(std::move(f));
}

void Presence::end(State& state, Finding&& f) {
    f.id = std::exchange(state.interval, 0);
    output_.finding(std::move(f));
}

void Presence::nothing(State& state) {
    output_.withdraw(std::exchange(state.interval, 0));
}

Ticks Presence::never_for(const State& state, const Place& to) const {
    const Ticks waited = between(state.since, to);
    if (state.since.estimated && to.time != no_time) // no estimate makes it longer
        return std::min(waited, to.time - sure_from_);
    return waited;
}

Finding Presence::make_never(const State& state, const Place& end, Ticks waited) const {
    Finding f = make(Kind::never, state);
    f.begin = state.since;
    f.end = end;
    f.detail.interval_ms = ms(waited);
    f.detail.limit_ms = ms(options_.limits.pid_never);
    return f;
}

void Presence::never(State& state, const Place& to, bool open, const Place& place) {
    const Ticks waited = never_for(state, to);
    const bool raised = output_.raised(state.interval);
    if (!raised && waited <= options_.limits.pid_never)
        return nothing(state);
    if (!raised && dark(state.since, to) * 2 > waited) {
        output_.consequence(Rule::pid_error);
        return nothing(state);
    }
    Finding f = make_never(state, place, waited);
    f.open = open;
    end(state, std::move(f));
}

// A PCR pid that carries packets and never a PCR. One whose PCRs end has a gap of PCRs instead.
bool Presence::lacks_pcrs(const State& state) const {
    return state.is_pcr && state.pcrs == 0 && state.first &&
           between(*state.first, state.last) > options_.limits.pid_no_pcr;
}

Finding Presence::make_without_pcr(const State& state, const Place& end) const {
    Finding f = make(Kind::no_pcr, state);
    f.begin = *state.first;
    f.end = end;
    f.detail.interval_ms = ms(between(*state.first, end));
    f.detail.limit_ms = ms(options_.limits.pid_no_pcr);
    return f;
}

void Presence::without_pcr(State& state, const Place& to, bool open) {
    if (!output_.raised(state.no_pcr) && !lacks_pcrs(state)) {
        output_.withdraw(std::exchange(state.no_pcr, 0));
        return;
    }
    Finding f = make_without_pcr(state, to);
    f.open = open;
    f.id = std::exchange(state.no_pcr, 0);
    output_.finding(std::move(f));
}

void Presence::look(const Place& now) {
    age_records(now);
    for (auto& [pid, state] : states_) {
        if (lacks_pcrs(state)) {
            if (state.no_pcr == 0)
                state.no_pcr = output_.new_id();
            Finding f = make_without_pcr(state, now);
            f.id = state.no_pcr;
            output_.going_on(std::move(f));
        }
        if (!state.first) {
            const Ticks waited = never_for(state, now);
            if (waited > options_.limits.pid_never && dark(state.since, now) * 2 <= waited)
                goes_on(state, make_never(state, now, waited));
            continue;
        }
        const Ticks gap = between(state.last, now);
        if (!has_stopped(state, gap) || dark(state.last, now) * 2 > gap)
            continue;
        silences_.stopped(pid, state.last, now);
        goes_on(state, make_stopped(state, now, gap));
    }
}

void Presence::age_records(const Place& now) {
    if (records_from_ == no_time)
        records_from_ = now.time;
    if (now.time - records_from_ < records_last)
        return;
    records_from_ = now.time;
    for (auto& [pid, state] : states_)
        state.record_before = std::exchange(state.record, 0);
}

void Presence::anew(const Place& before, const Place& at) {
    for (auto& [pid, state] : states_) {
        if (state.first)
            silent(state, before, true, Sure::exact, before);
        else
            never(state, before, true, before);
        state.since = at;
        if (state.first)
            state.last = at;
    }
    if (outage_ != 0 && output_.raised(outage_)) {
        const Outage& o = outages_.back();
        Finding f = make_off_air(o.from, before, between(o.from, before));
        f.id = outage_;
        f.open = true;
        output_.finding(std::move(f));
    }
    output_.withdraw(std::exchange(outage_, 0));
}

void Presence::away(const Place& last, Ticks time, std::int64_t utc_us) {
    if (away_ == 0) {
        away_ = output_.new_id();
        away_from_ = last;
    }
    away_utc_us_ = utc_us;
    away_for_ = time;
    Finding f = make_off_air(last, last, time);
    f.end.utc_us = utc_us;
    f.id = away_;
    output_.raise(std::move(f));
}

void Presence::back(const Place& at, bool open) {
    if (away_ == 0)
        return;
    // Up to the packet, not to the last look before it, where the input tells.
    if (at.utc_us != no_time && away_from_.utc_us != no_time)
        away_for_ = std::max(away_for_, (at.utc_us - away_from_.utc_us) * 27);
    Finding f = make_off_air(away_from_, at, away_for_);
    f.open = open;
    if (open)
        f.end.utc_us = away_utc_us_;
    f.id = std::exchange(away_, 0);
    output_.finding(std::move(f));
}

void Presence::span(const PidSpan& span) {
    const auto s = states_.find(span.pid);
    if (s == states_.end())
        return;
    State& state = s->second;
    if (!state.first) {
        never(state, span.first, false, span.first);
        state.first = span.first;
    } else {
        silent(state, span.first, false, Sure::exact, span.first);
    }
    state.last = span.last;
    state.packets += span.packets;
}

bool Presence::has_stopped(const State& state, Ticks gap) const {
    const Ticks record = std::max(state.record, state.record_before);
    return state.main() && gap > options_.limits.pid_stopped &&
           static_cast<double>(gap) > far_over_record * static_cast<double>(record);
}

Finding Presence::make_stopped(const State& state, const Place& end, Ticks gap) const {
    Finding f = make(Kind::stopped, state);
    f.begin = state.last;
    f.end = end;
    f.detail.interval_ms = ms(gap);
    f.detail.limit_ms = ms(options_.limits.pid_stopped);
    return f;
}

void Presence::silent(State& state, const Place& to, bool open, Sure sure, const Place& place) {
    const Ticks gap = between(state.last, to);
    const bool raised = output_.raised(state.interval);
    if (!raised && !has_stopped(state, gap)) {
        state.record = std::max(state.record, gap);
        return nothing(state);
    }
    if (!raised && dark(state.last, to) * 2 > gap) {
        output_.consequence(Rule::pid_error);
        return nothing(state);
    }
    Finding f = make_stopped(state, place, gap);
    f.open = open;
    f.sure = sure;
    silences_.stopped(state.stream.pid, state.last, to);
    end(state, std::move(f));
}

Ticks Presence::dark(const Place& from, const Place& to) const {
    Ticks sum = 0;
    for (const Outage& o : outages_)
        sum += std::max<Ticks>(0, std::min(o.to.time, to.time) - std::max(o.from.time, from.time));
    return sum;
}

bool Presence::pcr(std::uint16_t pid) {
    const auto s = states_.find(pid);
    if (s == states_.end())
        return false;
    State& state = s->second;
    ++state.pcrs;
    if (state.no_pcr == 0)
        return false;
    const std::uint64_t id = std::exchange(state.no_pcr, 0);
    if (!output_.raised(id)) {
        output_.withdraw(id);
        return false;
    }
    Finding f = make_without_pcr(state, state.last);
    f.id = id;
    output_.finding(std::move(f));
    return true;
}

Finding Presence::make_off_air(const Place& from, const Place& to, Ticks time) const {
    Finding f;
    f.rule = Rule::off_air;
    f.severity = Severity::error;
    f.shape = Shape::interval;
    for (const Program& p : programs_ ? programs_->programs : std::vector<Program>{})
        f.programs.push_back(p.number);
    f.begin = from;
    f.end = to;
    f.detail.away_ms = ms(time);
    return f;
}

// One that goes on was noted before.
void Presence::note_outage(const Place& from, const Place& to) {
    if (outage_ != 0 && !outages_.empty() && outages_.back().from.packet == from.packet)
        outages_.back().to = to;
    else
        outages_.push_back({from, to});
    if (outages_.size() > outages_kept)
        outages_.erase(outages_.begin());
    silences_.outage(from, to);
}

void Presence::nulls(const Place& from, const Place& to, bool open, bool going_on) {
    if (between(from, to) <= options_.limits.off_air || (open && to.estimated))
        return;
    if (!filled(from, to))
        return;
    const bool was_on_air = std::any_of(states_.begin(), states_.end(), [](const auto& s) {
        return s.second.stream.is_av() && s.second.first;
    });
    if (!was_on_air)
        return;
    note_outage(from, to);
    if (outage_ == 0)
        outage_ = output_.new_id();
    Finding f = make_off_air(from, to, between(from, to));
    f.open = open;
    f.id = outage_;
    if (going_on)
        return output_.going_on(std::move(f));
    outage_ = 0;
    output_.finding(std::move(f));
}

void Presence::finish(const Place& end, const Place& sure) {
    for (auto& [pid, state] : states_) {
        if (!state.first) {
            never(state, sure, true, end);
            continue;
        }
        without_pcr(state, end, true);
        const Ticks gap = between(state.last, end);
        if (between(state.last, sure) > options_.limits.pid_stopped || !end.estimated ||
            output_.raised(state.interval)) {
            silent(state, end.estimated ? sure : end, true, Sure::exact, end);
            continue;
        }
        if (gap > 3 * options_.limits.pid_stopped) // an estimate has to be clear
            silent(state, end, true, Sure::guess, end);
        else
            state.undecided = gap > options_.limits.pid_stopped;
    }
}

void Presence::judge(Judgement& judgement, std::optional<Ticks> duration) const {
    for (const auto& [pid, state] : states_) {
        if (!state.main())
            continue;
        if (!duration)
            judgement.no(Rule::pid_error, "no clock", pid);
        else if (*duration < options_.limits.pid_stopped)
            judgement.no(Rule::pid_error, "shorter than its limit", pid);
        else if (state.undecided)
            judgement.no(Rule::pid_error, "no PCR at the end", pid);
        else
            judgement.yes(Rule::pid_error);
    }
    if (ever_streams_ && duration)
        judgement.yes(Rule::off_air);
    else if (ever_streams_)
        judgement.no(Rule::off_air, "no clock");
}

} // namespace quarn
