#include "pcr.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks jump_constant = 30 * ticks_per_ms; // another program's PCR beside the stream clock
constexpr Ticks jump_variable =
    200 * ticks_per_ms;                       // between PCRs of a varying rate places are guesses
constexpr std::size_t lost_kept = 32;         // stretches
constexpr std::uint32_t enough_to_judge = 20; // PCRs, for 2.4
constexpr std::uint32_t fade_at = 10'000;     // PCRs: live, older ones weigh half

/// What is left of an error without whole packets: lost ones, and PCRs that changed places with
/// others.
double without_packets(double error, double ticks_per_packet) {
    const double whole = std::round(error / ticks_per_packet);
    const double rest = error - whole * ticks_per_packet;
    return whole != 0 && std::abs(rest) < 0.05 * ticks_per_packet ? rest : error;
}

/// The middle of offsets that lie within `limit` of each other.
std::optional<double> level(std::span<double> offsets, double limit) {
    std::sort(offsets.begin(), offsets.end());
    if (offsets.back() - offsets.front() > limit)
        return std::nullopt;
    return (offsets[offsets.size() / 2 - 1] + offsets[offsets.size() / 2]) / 2;
}

double ms(Ticks t) {
    return static_cast<double>(t) / ticks_per_ms;
}

} // namespace

std::optional<PcrAccuracy::Result> PcrAccuracy::add(const Place& place, double error,
                                                    double limit) {
    points_.push_back({place, points_.empty() ? 0 : points_.back().offset + error});
    const double offset = points_.back().offset;
    sorted_.insert(std::upper_bound(sorted_.begin(), sorted_.end(), offset), offset);
    if (points_.size() < 2 * around + 1)
        return std::nullopt;
    const double ns = off(limit) * 1e9 / static_cast<double>(ticks_per_second);
    const Result result = {points_[around].place, ns};
    sorted_.erase(std::lower_bound(sorted_.begin(), sorted_.end(), points_.front().offset));
    points_.pop_front();
    return result;
}

// How far the one in the middle is off the line of those around it.
double PcrAccuracy::off(double limit) const {
    const double middle = points_[around].offset;
    const auto at = static_cast<std::size_t>(
        std::lower_bound(sorted_.begin(), sorted_.end(), middle) - sorted_.begin());
    const auto other = [&](std::size_t i) { return sorted_[i < at ? i : i + 1]; };
    const double off = middle - (other(around - 1) + other(around)) / 2;
    if (std::abs(off) <= limit)
        return off;
    std::array<double, 2 * around> others{}; // in their order
    for (std::size_t i = 0; i < others.size(); ++i)
        others[i] = points_[i < around ? i : i + 1].offset;
    const std::span all(others);
    const auto before = level(all.first(around), limit);
    const auto behind = level(all.last(around), limit);
    const bool steps = before && behind && std::abs(*behind - *before) > limit;
    return steps ? middle - *before : off; // the line itself goes on elsewhere
}

PcrRules::PcrRules(const Options& options, Output& output, JumpSink& jumps)
    : options_(options), output_(output), jumps_(jumps) {}

Finding PcrRules::make(Rule rule, Kind kind, std::uint16_t pid) const {
    Finding f;
    f.rule = rule;
    f.kind = kind;
    f.severity = info(rule).severity;
    f.pid = pid;
    if (programs_)
        f.programs = programs_->programs_of(pid);
    return f;
}

void PcrRules::programs(const ProgramsPtr& programs, const Place& place) {
    programs_ = programs;
    for (auto& [pid, state] : states_)
        if (state.announced && !programs->is_pcr_pid(pid)) {
            gap_is_told(pid, state, place, false);
            State fresh; // what comes back begins anew, but what was judged was judged
            fresh.ever = state.ever;
            fresh.count = state.count;
            fresh.accurate = state.accurate;
            fresh.inaccurate = state.inaccurate;
            state = std::move(fresh);
        }
    for (const Program& p : programs->programs) {
        if (!p.pmt_in_force || p.pcr_pid == null_pid)
            continue;
        State& state = states_[p.pcr_pid];
        if (state.announced)
            continue;
        state.announced = state.ever = true;
        state.since = settled_ ? place : start_;
    }
    settled_ = settled_ || programs->complete();
}

Finding PcrRules::make_gap(std::uint16_t pid, const State& state, const Place& from,
                           const Place& to, Ticks distance) const {
    Finding f = make(Rule::pcr_repetition_error, Kind::none, pid);
    if (!state.announced)
        f.severity = Severity::info;
    f.shape = Shape::interval;
    f.begin = from;
    f.end = to;
    f.detail.interval_ms = ms(distance);
    f.detail.limit_ms = ms(options_.limits.pcr_gap);
    return f;
}

// Live: ends a gap that the host was told of, where what ends it is no distance of two PCRs.
bool PcrRules::gap_is_told(std::uint16_t pid, State& state, const Place& to, bool open) {
    const std::uint64_t id = std::exchange(state.interval, 0);
    if (!output_.raised(id)) {
        output_.withdraw(id);
        return false;
    }
    Finding f = make_gap(pid, state, state.last_place, to, to.time - state.last_place.time);
    f.open = open;
    f.id = id;
    output_.finding(std::move(f));
    return true;
}

void PcrRules::look(const Place& now, std::optional<std::uint16_t> clock) {
    if (options_.profile == Profile::segment)
        return;
    for (auto& [pid, state] : states_) {
        const bool follows = pid == clock && pid != own_; // the clock comes to it only now
        if (!state.announced || !state.last || state.last_place.time == no_time ||
            now.time == no_time || follows)
            continue;
        const Ticks since = now.time - state.last_place.time;
        if (since <= options_.limits.pcr_gap)
            continue;
        if (state.interval == 0)
            state.interval = output_.new_id();
        Finding f = make_gap(pid, state, state.last_place, now, since);
        f.id = state.interval;
        output_.going_on(std::move(f));
    }
}

void PcrRules::anew(const Place& before, const Place& at) {
    for (auto& [pid, state] : states_) {
        gap_is_told(pid, state, before, true);
        state.last.reset();
        state.since = at;
        state.accuracy.clear();
    }
}

void PcrRules::note_distance(const State& state, Ticks distance) {
    if (state.ever && distance > 0)
        intervals_.add(static_cast<double>(distance) / static_cast<double>(ticks_per_second));
}

void PcrRules::gap(std::uint16_t pid, State& state, const Place& from, const Place& to,
                   Ticks distance, bool lost) {
    if (recorder_ != nullptr && state.last)
        recorder_->pcr_interval(pid, to, distance);
    const bool raised = output_.raised(state.interval);
    if (distance <= options_.limits.pcr_gap || options_.profile == Profile::segment) {
        if (raised)
            gap_is_told(pid, state, to, false);
        return;
    }
    if (lost && !raised) {
        output_.withdraw(std::exchange(state.interval, 0));
        output_.consequence(Rule::pcr_repetition_error);
        return;
    }
    Finding f = make_gap(pid, state, from, to, distance);
    f.id = std::exchange(state.interval, 0);
    jumps_.pcr_gap(pid, from, to);
    output_.finding(std::move(f));
    if (options_.profile == Profile::tr101290)
        plain_gap_as_jump(pid, to, distance);
}

// The letter of TR 101 290: a distance above the limit is a discontinuity, whatever caused it.
void PcrRules::plain_gap_as_jump(std::uint16_t pid, const Place& to, Ticks distance) {
    Finding f = make(Rule::pcr_discontinuity_indicator_error, Kind::ahead, pid);
    f.begin = f.end = to;
    f.detail.step_ms = ms(distance);
    output_.finding(std::move(f));
}

void PcrRules::jump(std::uint16_t pid, const Place& from, const Place& to, Ticks step, bool flagged,
                    bool main) {
    if (const auto state = states_.find(pid); state != states_.end())
        gap_is_told(pid, state->second, to, false);
    jumps_.clock_jumped(pid, from, to, flagged, main);
    Finding f = flagged ? make(Rule::clock_jump, Kind::flagged, pid)
                        : make(Rule::pcr_discontinuity_indicator_error,
                               step < 0 ? Kind::back : Kind::ahead, pid);
    f.begin = f.end = to;
    f.detail.step_ms = ms(step);
    output_.finding(std::move(f));
}

// The first PCR of a pid: was it announced for too long?
void PcrRules::first(std::uint16_t pid, State& state, const Place& place) {
    if (state.last || !state.announced || place.estimated || place.time == no_time ||
        state.since.time == no_time)
        return;
    const Place& from = state.since;
    gap(pid, state, from, place, place.time - from.time, false);
}

void PcrRules::lost(const ClockInterval& i) {
    if (i.stretch != Stretch::lost)
        return;
    lost_.push_back({i.from.at.index, i.to.at.index, static_cast<Ticks>(std::max(i.error, 0.0))});
    if (lost_.size() > lost_kept)
        lost_.pop_front();
}

void PcrRules::own(const ClockInterval& i, const Place& from, const Place& to,
                   double ticks_per_packet) {
    if (i.stretch == Stretch::bridged)
        return;
    own_ = i.to.pid;
    State& state = states_[i.to.pid];
    if (i.stretch == Stretch::anew) {
        gap_is_told(i.to.pid, state, to, false);
        first(i.to.pid, state, to);
        state.accuracy.clear();
        state.accuracy.add(to, 0, 0);
        state.last = i.to;
        state.last_place = to;
        ++state.count;
        return;
    }
    if (!state.last && state.ever && state.since.packet > from.packet &&
        i.stretch != Stretch::moved) {
        if (i.stretch == Stretch::jump || i.stretch == Stretch::flagged)
            jumps_.clock_jumped(i.to.pid, from, to, true, true);
        first(i.to.pid, state, to); // named anew: begins anew
        state.accuracy.clear();
        state.accuracy.add(to, 0, 0);
        state.last = i.to;
        state.last_place = to;
        ++state.count;
        return;
    }
    if (!state.last && i.stretch != Stretch::moved) {
        State& begin = states_[i.from.pid];
        first(i.from.pid, begin, from);
        begin.last = i.from;
        begin.last_place = from;
        ++begin.count;
        begin.accuracy.add(from, 0, 0);
    }
    if (i.stretch == Stretch::moved) {
        Finding f = make(Rule::clock_jump, Kind::moved, i.to.pid);
        f.begin = f.end = to;
        output_.finding(std::move(f));
        jumps_.clock_jumped(i.to.pid, from, to, true, true);
        for (auto& [pid, other] : states_)
            other.uncertain = true;
        first(i.to.pid, state, to);
    } else if (i.stretch == Stretch::jump || i.stretch == Stretch::flagged) {
        jump(i.to.pid, from, to, i.step, i.stretch == Stretch::flagged, true);
    } else {
        note_distance(state, i.distance);
        gap(i.to.pid, state, from, to, i.distance, i.stretch == Stretch::lost);
    }
    const bool usable = i.constant &&
                        (i.stretch == Stretch::steady || i.stretch == Stretch::lost) &&
                        !i.disturbed && i.added == 0;
    accuracy(i.to.pid, state, to, without_packets(i.error, ticks_per_packet), usable);
    state.last = i.to;
    state.last_place = to;
    ++state.count;
}

void PcrRules::other(const PcrPoint& point, const Place& place, const StreamClock& clock) {
    State& state = states_[point.pid];
    ++state.count;
    const bool uncertain = std::exchange(state.uncertain, false);
    const bool timed = place.time != no_time && state.last_place.time != no_time;
    if (!state.last || uncertain || !timed) {
        if (!state.last && !uncertain)
            first(point.pid, state, place);
        state.accuracy.clear();
        state.accuracy.add(place, 0, 0);
    } else {
        const std::uint64_t from = state.last->at.index;
        const bool disturbed = clock.disturbed_between(from, point.at.index) ||
                               clock.swapped_beside(from, point.at.index);
        const Ticks distance = clock_distance(state.last->value, point.value, pcr_wrap);
        const Ticks off = distance - (place.time - state.last_place.time);
        const bool constant = clock.rate().constant();
        const Ticks lost = (disturbed ? ticks_per_second / 5 : 0) + lost_time(from, point.at.index);
        const bool jumps = std::abs(off) > (constant ? jump_constant : jump_variable) + lost;
        if (jumps && state.announced) {
            jump(point.pid, state.last_place, place, off, point.flagged, false);
        } else if (!jumps) {
            note_distance(state, distance);
            gap(point.pid, state, state.last_place, place,
                constant ? distance : std::min(distance, place.time - state.last_place.time),
                disturbed && distance < 3 * ticks_per_second);
        }
        const auto main = clock.pid() ? states_.find(*clock.pid()) : states_.end();
        const bool exact =
            main == states_.end() ||
            main->second.inaccurate * 2 <= main->second.accurate + main->second.inaccurate;
        const bool usable = exact && constant && !jumps && !disturbed &&
                            clock.added_between(from, point.at.index) == 0;
        const double error =
            static_cast<double>(distance) -
            static_cast<double>(point.at.index - from) * clock.rate().ticks_per_packet();
        accuracy(point.pid, state, place, without_packets(error, clock.rate().ticks_per_packet()),
                 usable);
    }
    state.last = point;
    state.last_place = place;
}

Ticks PcrRules::lost_time(std::uint64_t from, std::uint64_t to) const {
    Ticks sum = 0;
    for (const LostTime& l : lost_)
        if (l.from < to && l.to > from)
            sum += l.time;
    return sum;
}

void PcrRules::accuracy(std::uint16_t pid, State& state, const Place& place, double error,
                        bool usable) {
    if (!usable) {
        state.accuracy.clear();
        error = 0;
    }
    const double limit = options_.limits.pcr_accuracy_ns * ticks_per_second / 1e9;
    const auto result = state.accuracy.add(place, error, limit);
    if (!result)
        return;
    if (recorder_ != nullptr)
        recorder_->pcr_error(pid, result->place, result->error_ns);
    const bool bad = std::abs(result->error_ns) > options_.limits.pcr_accuracy_ns;
    ++(bad ? state.inaccurate : state.accurate);
    if (options_.live && state.accurate + state.inaccurate >= fade_at) {
        state.accurate /= 2;
        state.inaccurate /= 2;
    }
    if (!bad)
        return;
    const std::uint32_t all = state.accurate + state.inaccurate;
    if (all < enough_to_judge) {
        state.early.push_back(*result);
        return;
    }
    if (state.inaccurate * 2 > all)
        return; // not exact enough to be held against the limit
    for (const auto& r : state.early)
        inaccurate(pid, r);
    state.early.clear();
    inaccurate(pid, *result);
}

void PcrRules::inaccurate(std::uint16_t pid, const PcrAccuracy::Result& result) {
    Finding f = make(Rule::pcr_accuracy_error, Kind::none, pid);
    f.begin = f.end = result.place;
    f.detail.error_ns = result.error_ns;
    output_.finding(std::move(f));
}

void PcrRules::finish(const Place& end, const Place& sure, double ticks_per_packet) {
    for (auto& [pid, state] : states_) {
        if (!state.early.empty() && state.inaccurate * 2 <= state.accurate + state.inaccurate)
            for (const auto& r : state.early)
                inaccurate(pid, r);
        if (!state.announced || !state.last || end.time == no_time ||
            options_.profile == Profile::segment)
            continue;
        const Ticks since = sure.time - state.last_place.time; // an estimate opens no gap
        const double by_packets =
            static_cast<double>(end.packet - state.last_place.packet) * ticks_per_packet;
        state.undecided = end.estimated && since <= options_.limits.pcr_gap &&
                          end.time - state.last_place.time > 10 * options_.limits.pcr_gap;
        if (since <= options_.limits.pcr_gap ||
            by_packets <= static_cast<double>(options_.limits.pcr_gap)) {
            gap_is_told(pid, state, end, true);
            continue;
        }
        Finding f = make(Rule::pcr_repetition_error, Kind::none, pid);
        f.shape = Shape::interval;
        f.open = true;
        f.begin = state.last_place;
        f.end = end;
        f.detail.interval_ms = ms(since);
        f.detail.limit_ms = ms(options_.limits.pcr_gap);
        f.id = std::exchange(state.interval, 0);
        output_.finding(std::move(f));
    }
}

std::optional<Ticks> PcrRules::value_at(std::uint16_t pid, const At& at, const Rate& rate) const {
    const auto s = states_.find(pid);
    if (s == states_.end() || !s->second.last)
        return std::nullopt;
    const PcrPoint& last = *s->second.last;
    if (!rate.constant() || at.index < last.at.index)
        return last.value;
    const auto since =
        static_cast<Ticks>(static_cast<double>(at.index - last.at.index) * rate.ticks_per_packet());
    return (last.value + since) % pcr_wrap;
}

void PcrRules::judge(Judgement& judgement, bool has_clock) const {
    for (const auto& [pid, state] : states_) {
        if (!state.ever)
            continue;
        if (options_.profile == Profile::segment)
            judgement.not_applicable(Rule::pcr_repetition_error, "profile segment");
        else if (state.undecided)
            judgement.no(Rule::pcr_repetition_error, "no PCR at the end", pid);
        else if (state.count >= 2)
            judgement.yes(Rule::pcr_repetition_error);
        else
            judgement.no(Rule::pcr_repetition_error, has_clock ? "fewer than two PCRs" : "no clock",
                         pid);
        if (state.count >= 2)
            judgement.yes(Rule::pcr_discontinuity_indicator_error);
        else
            judgement.no(Rule::pcr_discontinuity_indicator_error, "fewer than two PCRs", pid);
        const std::uint32_t all = state.accurate + state.inaccurate;
        if (all == 0)
            judgement.no(Rule::pcr_accuracy_error, "no constant rate", pid);
        else if (state.inaccurate * 2 > all)
            judgement.no(Rule::pcr_accuracy_error, "rate not constant enough for the limit", pid);
        else
            judgement.yes(Rule::pcr_accuracy_error);
    }
}

} // namespace quarn
