#include "presence.h"

#include <algorithm>

namespace quarn {

namespace {
constexpr double far_over_record = 2.5;
constexpr std::size_t outages_kept = 16;

double ms(Ticks t) {
    return static_cast<double>(t) / ticks_per_ms;
}
Ticks between(const Place& from, const Place& to) {
    return from.time == no_time || to.time == no_time ? 0 : to.time - from.time;
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
        without_pcr(state, place);
}

void Presence::never(const State& state, const Place& to, bool open, const Place& end) {
    Ticks waited = between(state.since, to);
    if (state.since.estimated && to.time != no_time) // no estimate makes it longer
        waited = std::min(waited, to.time - sure_from_);
    if (waited <= options_.limits.pid_never)
        return;
    if (dark(state.since, to) * 2 > waited) {
        output_.consequence(Rule::pid_error);
        return;
    }
    Finding f = make(Kind::never, state);
    f.open = open;
    f.begin = state.since;
    f.end = end;
    f.detail.interval_ms = ms(waited);
    f.detail.limit_ms = ms(options_.limits.pid_never);
    output_.finding(std::move(f));
}

// A PCR pid that carries packets and never a PCR. One whose PCRs end has a gap of PCRs instead.
void Presence::without_pcr(const State& state, const Place& to) {
    if (!state.is_pcr || state.pcrs > 0 || !state.first ||
        between(*state.first, state.last) <= options_.limits.pid_no_pcr)
        return;
    Finding f = make(Kind::no_pcr, state);
    f.open = true;
    f.begin = *state.first;
    f.end = to;
    f.detail.interval_ms = ms(between(*state.first, to));
    f.detail.limit_ms = ms(options_.limits.pid_no_pcr);
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

void Presence::silent(State& state, const Place& to, bool open, Sure sure, const Place& end) {
    const Ticks gap = between(state.last, to);
    if (!state.main() || gap <= options_.limits.pid_stopped ||
        static_cast<double>(gap) <= far_over_record * static_cast<double>(state.record)) {
        state.record = std::max(state.record, gap);
        return;
    }
    if (dark(state.last, to) * 2 > gap) {
        output_.consequence(Rule::pid_error);
        return;
    }
    Finding f = make(Kind::stopped, state);
    f.open = open;
    f.sure = sure;
    f.begin = state.last;
    f.end = end;
    f.detail.interval_ms = ms(gap);
    f.detail.limit_ms = ms(options_.limits.pid_stopped);
    silences_.stopped(state.stream.pid, state.last, to);
    output_.finding(std::move(f));
}

Ticks Presence::dark(const Place& from, const Place& to) const {
    Ticks sum = 0;
    for (const Outage& o : outages_)
        sum += std::max<Ticks>(0, std::min(o.to.time, to.time) - std::max(o.from.time, from.time));
    return sum;
}

void Presence::pcr(std::uint16_t pid) {
    const auto s = states_.find(pid);
    if (s != states_.end())
        ++s->second.pcrs;
}

void Presence::nulls(const Place& from, const Place& to, bool open) {
    if (between(from, to) <= options_.limits.off_air || (open && to.estimated))
        return;
    const bool was_on_air = std::any_of(states_.begin(), states_.end(), [](const auto& s) {
        return s.second.stream.is_av() && s.second.first;
    });
    if (!was_on_air)
        return;
    outages_.push_back({from, to});
    if (outages_.size() > outages_kept)
        outages_.erase(outages_.begin());
    silences_.outage(from, to);
    Finding f;
    f.rule = Rule::off_air;
    f.severity = Severity::error;
    f.shape = Shape::interval;
    f.open = open;
    for (const Program& p : programs_->programs)
        f.programs.push_back(p.number);
    f.begin = from;
    f.end = to;
    f.detail.away_ms = ms(between(from, to));
    output_.finding(std::move(f));
}

void Presence::finish(const Place& end, const Place& sure) {
    for (auto& [pid, state] : states_) {
        if (!state.first) {
            never(state, sure, true, end);
            continue;
        }
        without_pcr(state, end);
        const Ticks gap = between(state.last, end);
        if (between(state.last, sure) > options_.limits.pid_stopped || !end.estimated) {
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
