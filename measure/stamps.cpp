// Rules about time stamps, on the stream clock.
#include "stamps.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace quarn {

namespace {

using Cause = Excuses::Cause;

constexpr Ticks ticks_per_stamp = 300; // 27 MHz in 90 kHz
/// What follows from something else is known by then.
constexpr Ticks wait_file = 1300 * ticks_per_ms;
constexpr Ticks wait_live = 1000 * ticks_per_ms;
constexpr Ticks look_time = 100 * ticks_per_ms;
/// A stretch of late stamps is over when none was late for so long.
constexpr Ticks in_time = Excuses::quiet_time;

constexpr const char* no_clock = "no clock";
constexpr const char* no_stamps = "no time stamps";
constexpr const char* too_short = "shorter than its limit";

double ms_of_stamps(double ticks) {
    return ticks / 90;
}

double ms_of(Ticks ticks) {
    return static_cast<double>(ticks) / static_cast<double>(ticks_per_ms);
}

bool is_exact(const Place& place) {
    return place.time != no_time && !place.estimated;
}

bool same_stream(const ElementaryStream& a, const ElementaryStream& b) {
    return a.stream_type == b.stream_type && a.codec == b.codec && a.kind == b.kind;
}

} // namespace

Stamps::Stamps(const Options& options, Output& out) : options_(options), out_(out) {}

Ticks Stamps::wait_time() const {
    return options_.live ? wait_live : wait_file;
}

// ---- what happens to the streams ----------------------------------------------------------------

void Stamps::programs(ProgramsPtr programs, const Place& place) {
    see(place);
    std::map<std::uint16_t, Stream> streams;
    for (const Program& program : programs->programs) {
        for (const ElementaryStream& entry : program.streams) {
            if (streams.count(entry.pid))
                continue;
            const auto before = streams_.find(entry.pid);
            if (before != streams_.end() && same_stream(before->second.entry, entry)) {
                streams.insert(streams_.extract(before));
            } else {
                const double limit = static_cast<double>(options_.limits.stamp_step) /
                                     static_cast<double>(ticks_per_stamp);
                streams.emplace(entry.pid, Stream(limit));
            }
            Stream& stream = streams.at(entry.pid);
            stream.entry = entry;
            stream.programs = programs->programs_of(entry.pid);
            records_[entry.pid].entry = entry;
        }
    }
    for (auto& [pid, stream] : streams_) { // those that are no longer named
        restart(stream);
        leave_pts(stream, place, false);
        if (stream.late)
            close_late(stream, place, false);
    }
    streams_ = std::move(streams);
    if (options_.live)
        std::erase_if(records_, [&](const auto& entry) { return !streams_.contains(entry.first); });
    programs_ = std::move(programs);
}

void Stamps::see(const Place& place) {
    if (!is_exact(place))
        return;
    if (!first_exact_)
        first_exact_ = place;
    last_exact_ = place;
}

/// The next stamp is not held against the last one.
void Stamps::restart(Stream& stream) {
    stream.stamp.reset();
    audio_fault(stream, stream.audio.restart());
}

void Stamps::hold_off(std::uint16_t pid, const Place& place) {
    excuses_.add(Cause::hold_off, pid, place, place);
    for (auto& [number, stream] : streams_) {
        if (pid != null_pid && pid != number)
            continue;
        if (place.time != no_time)
            stream.quiet_until = std::max(stream.quiet_until, place.time + Excuses::quiet_time);
        if (!stream.stamp || stream.stamp_place.packet < place.packet)
            restart(stream);
    }
}

void Stamps::scrambled(std::uint16_t pid, const Place& place) {
    hold_off(pid, place);
    if (const auto stream = streams_.find(pid); stream != streams_.end()) {
        leave_pts(stream->second, place, false);
        stream->second.last_pts.reset();
    }
    if (const auto record = records_.find(pid); record != records_.end())
        record->second.scrambled = true;
}

void Stamps::clock_jump(std::uint16_t program, const Place& place, bool flagged) {
    excuses_.add(Cause::clock_jump, program, place, place);
    for (auto& [pid, stream] : streams_) {
        if (std::find(stream.programs.begin(), stream.programs.end(), program) ==
            stream.programs.end())
            continue;
        bool was_late = stream.late.has_value();
        if (was_late && place.time != no_time &&
            std::abs(place.time - stream.late->begin.time) < Excuses::quiet_time) {
            leave_late(stream); // stamps of the new time base came before its clock
            was_late = false;
        } else if (was_late) {
            close_late(stream, place, false);
        }
        stream.late_by_jump = !flagged && !was_late;
        if (place.time != no_time)
            stream.quiet_until = std::max(stream.quiet_until, place.time + Excuses::quiet_time);
        restart(stream);
    }
}

void Stamps::stopped(std::uint16_t pid, const Place& from, const Place& to) {
    excuses_.add(Cause::stop, pid, from, to);
}

void Stamps::outage(const Place& from, const Place& to) {
    excuses_.add(Cause::outage, null_pid, from, to);
}

void Stamps::pcr_gap(std::uint16_t pcr_pid, const Place& from, const Place& to) {
    excuses_.add(Cause::pcr_gap, pcr_pid, from, to);
}

std::optional<Ticks> Stamps::lead(std::uint16_t pid) const {
    const auto stream = streams_.find(pid);
    return stream == streams_.end() ? std::nullopt : stream->second.lead;
}

bool Stamps::is_quiet(const Stream& stream, const Place& place) const {
    return stream.quiet_until != no_time && place.time != no_time &&
           place.time < stream.quiet_until;
}

// ---- PES packets --------------------------------------------------------------------------------

void Stamps::pes(const PesEvent& event, const Place& place, std::optional<Ticks> program_clock) {
    see(place);
    const auto stream = streams_.find(event.pid);
    if (stream == streams_.end())
        return;
    Record& record = records_[event.pid];
    record.units = record.units || event.valid;
    unit(stream->second, record, event, place, program_clock);
    advance(place);
}

void Stamps::unit(Stream& stream, Record& record, const PesEvent& event, const Place& place,
                  std::optional<Ticks> clock) {
    if (event.disturbed || !event.valid)
        restart(stream);
    if (!event.pts)
        return;
    record.stamps = true;
    if (stream.entry.is_av() && place.time != no_time)
        distance(stream, place, false);
    if (clock) {
        record.clocked = true;
        lateness(stream, record, event, place, *clock);
    }
    steps(stream, record, event, place);
    stream.stamp = event.stamp();
    stream.stamp_place = place;
}

/// Time between two places of which none is made longer by an estimate.
std::optional<Ticks> Stamps::elapsed(const Place& from, const Place& to) const {
    if (!first_exact_ || from.time == no_time || to.time == no_time)
        return std::nullopt;
    const Ticks begin = from.estimated ? std::max(from.time, first_exact_->time) : from.time;
    const Ticks end = to.estimated ? std::min(to.time, last_exact_->time) : to.time;
    return end - begin;
}

/// 2.5: how long ago was the last PTS?
void Stamps::distance(Stream& stream, const Place& place, bool open) {
    const std::optional<Place> last = std::exchange(stream.last_pts, place);
    if (!last || stream.entry.still_picture || options_.profile == Profile::segment)
        return;
    const std::optional<Ticks> gap = elapsed(*last, place);
    if (!gap || *gap <= options_.limits.pts)
        return;
    Candidate c = make_distance(stream, *last, place, *gap);
    c.finding.open = open;
    c.finding.id = std::exchange(stream.pts_gap, 0);
    out_.withdraw(c.finding.id); // what becomes of it is decided when all is known
    wait(std::move(c));
}

Stamps::Candidate Stamps::make_distance(const Stream& stream, const Place& last, const Place& place,
                                        Ticks gap) const {
    Candidate c = candidate(Rule::pts_error, stream, last, place);
    c.finding.shape = Shape::interval;
    c.finding.begin = last;
    c.finding.detail.interval_ms = ms_of(gap);
    c.finding.detail.limit_ms = ms_of(options_.limits.pts);
    return c;
}

// Live: the next PTS is not held against the last one.
void Stamps::leave_pts(Stream& stream, const Place& place, bool open) {
    const std::uint64_t id = std::exchange(stream.pts_gap, 0);
    if (!out_.raised(id) || !stream.last_pts)
        return out_.withdraw(id);
    const Ticks gap = elapsed(*stream.last_pts, place).value_or(0);
    Finding f = make_distance(stream, *stream.last_pts, place, gap).finding;
    f.open = open;
    f.id = id;
    out_.finding(std::move(f));
}

/// q.1: did it come before the decoder needs it?
void Stamps::lateness(Stream& stream, Record& record, const PesEvent& event, const Place& place,
                      Ticks clock) {
    stream.lead = clock_distance(clock, *event.stamp() * ticks_per_stamp, pcr_wrap);
    if (place.estimated || event.split || is_quiet(stream, place) || record.told_late)
        return;
    // A stamp is a rounded value of the 27 MHz clock.
    if (-*stream.lead >= ticks_per_stamp) {
        late(stream, -*stream.lead, place);
        return;
    }
    stream.late_by_jump = false;
    if (!stream.late)
        return;
    if (!stream.late->good)
        stream.late->good = place;
}

void Stamps::late(Stream& stream, Ticks by, const Place& place) {
    if (stream.late_by_jump) {
        out_.consequence(Rule::late_stamp);
        return;
    }
    if (!stream.late)
        stream.late = Late{place, by, {}};
    stream.late->worst = std::max(stream.late->worst, by);
    stream.late->good.reset();
}

void Stamps::close_late(Stream& stream, const Place& end, bool open) {
    Candidate c = make_late(stream, end);
    c.finding.open = open;
    c.finding.id = stream.late->interval;
    out_.withdraw(c.finding.id);
    stream.late.reset();
    if (!stream.entry.is_av())
        records_[stream.entry.pid].told_late = true;
    wait(std::move(c));
}

Stamps::Candidate Stamps::make_late(const Stream& stream, const Place& end) const {
    Candidate c = candidate(Rule::late_stamp, stream, stream.late->begin, stream.late->begin);
    c.finding.shape = Shape::interval;
    c.finding.end = end;
    c.finding.detail.late_ms = ms_of(stream.late->worst);
    if (!stream.entry.is_av())
        c.finding.severity = Severity::info;
    return c;
}

// The stamps were in time by another clock.
void Stamps::leave_late(Stream& stream) {
    if (out_.raised(stream.late->interval)) {
        Finding f = make_late(stream, stream.late->begin).finding;
        f.id = stream.late->interval;
        out_.finding(std::move(f));
    } else {
        out_.withdraw(stream.late->interval);
    }
    stream.late.reset();
}

// ---- live: what goes on -------------------------------------------------------------------------

void Stamps::goes_on(std::uint64_t& id, Candidate&& candidate) {
    if (id == 0)
        id = out_.new_id();
    if (out_.raised(id) || follows(candidate))
        return;
    candidate.finding.id = id;
    out_.going_on(std::move(candidate.finding));
}

void Stamps::look(const Place& now) {
    for (auto& [pid, stream] : streams_) {
        if (stream.late && !stream.late->good)
            goes_on(stream.late->interval, make_late(stream, now));
        const bool judged = stream.entry.is_av() && !stream.entry.still_picture &&
                            options_.profile != Profile::segment;
        if (!judged || !stream.last_pts)
            continue;
        const std::optional<Ticks> gap = elapsed(*stream.last_pts, now);
        if (gap && *gap > options_.limits.pts)
            goes_on(stream.pts_gap, make_distance(stream, *stream.last_pts, now, *gap));
    }
}

void Stamps::wait(const Place& now) {
    for (auto& [pid, stream] : streams_) {
        const std::optional<AudioStep>& step = stream.audio.waiting();
        if (step && now.time - step->to.time >= wait_time())
            audio_fault(stream, stream.audio.flush());
    }
    while (!waiting_.empty() && waiting_.front().due <= now.time) {
        decide(std::move(waiting_.front()));
        waiting_.pop_front();
    }
}

void Stamps::anew(const Place& before, const Place& at) {
    for (auto& [pid, stream] : streams_) {
        if (stream.last_pts && stream.entry.is_av())
            distance(stream, before, true);
        stream.last_pts.reset();
        if (stream.late)
            close_late(stream, stream.late->good.value_or(before), !stream.late->good);
        stream.lead.reset();
    }
    hold_off(null_pid, at);
}

/// q.2 and q.3: the stamp against the last one.
void Stamps::steps(Stream& stream, Record& record, const PesEvent& event, const Place& place) {
    if (!stream.stamp)
        return;
    const std::int64_t step = clock_distance(*stream.stamp, *event.stamp(), stamp_wrap);
    if (is_quiet(stream, place) || order(stream, record, event, place, step))
        return;
    const std::optional<Ticks> gap = elapsed(stream.stamp_place, place);
    if (!gap || !stream.entry.is_av())
        return;
    if (event.frame_ticks) {
        record.counted = true;
        AudioStep audio{stream.stamp_place, place, static_cast<double>(step), *event.frame_ticks,
                        static_cast<double>(place.time - stream.stamp_place.time) /
                            static_cast<double>(ticks_per_stamp)};
        audio_fault(stream, stream.audio.step(audio));
        return;
    }
    if (stream.entry.kind != StreamKind::video)
        return;
    const std::optional<double> more = stream.pictures.step(step, event.starts);
    if (!more || *gap > options_.limits.pts)
        return;
    Candidate c = candidate(Rule::stamp_jump, stream, stream.stamp_place, place);
    c.finding.kind = Kind::frames_missing;
    c.finding.severity = Severity::warning;
    c.finding.sure = Sure::guess;
    c.finding.detail.step_ms = ms_of_stamps(*more);
    wait(std::move(c));
}

/// q.3. Returns whether the step is one of the wrong order.
bool Stamps::order(Stream& stream, Record& record, const PesEvent& event, const Place& place,
                   std::int64_t step) {
    const bool is_back = step <= 0 && !event.frame_ticks;
    bool is_far = std::abs(step) * ticks_per_stamp > options_.limits.stamp_order;
    if (is_far && step > 0) { // no jump if that much time went by, or may have
        const std::optional<Ticks> gap = elapsed(stream.stamp_place, place);
        is_far = gap && std::abs(step * ticks_per_stamp - *gap) > *gap / 10 + ticks_per_second;
    }
    if (!is_back && !is_far)
        return false;
    if (!stream.entry.is_av() && std::exchange(record.told_order, true))
        return true;
    audio_fault(stream, stream.audio.restart());
    Candidate c = candidate(Rule::stamp_order, stream, stream.stamp_place, place);
    c.finding.detail.step_ms = ms_of_stamps(static_cast<double>(step));
    if (!stream.entry.is_av())
        c.finding.severity = Severity::info;
    wait(std::move(c));
    return true;
}

void Stamps::audio_fault(const Stream& stream, const std::optional<AudioFault>& fault) {
    if (!fault || fault->silence)
        return;
    Candidate c = candidate(Rule::stamp_jump, stream, fault->from, fault->to);
    c.finding.kind = fault->kind;
    c.finding.detail.step_ms = ms_of_stamps(fault->off);
    if (fault->kind == Kind::drift)
        c.finding.detail.drift_ms_per_s = fault->speed * 1000;
    wait(std::move(c));
}

// ---- waiting and deciding -----------------------------------------------------------------------

Stamps::Candidate Stamps::candidate(Rule rule, const Stream& stream, const Place& from,
                                    const Place& to) const {
    Candidate c;
    c.from = from;
    c.to = to;
    c.finding.rule = rule;
    c.finding.severity = info(rule).severity;
    c.finding.pid = stream.entry.pid;
    c.finding.programs = stream.programs;
    c.finding.begin = to;
    c.finding.end = to;
    return c;
}

void Stamps::wait(Candidate&& candidate) {
    // Without a clock nothing is told apart by waiting.
    if (!last_exact_ || candidate.to.time == no_time) {
        decide(std::move(candidate));
        return;
    }
    const Ticks since =
        options_.live ? candidate.to.time : std::max(candidate.to.time, last_exact_->time);
    candidate.due = since + wait_time();
    waiting_.push_back(std::move(candidate));
    if (waiting_.size() > 64 + 16 * streams_.size()) {
        decide(std::move(waiting_.front()));
        waiting_.pop_front();
    }
}

void Stamps::decide(Candidate&& candidate) {
    if (follows(candidate) && !out_.raised(candidate.finding.id))
        out_.consequence(candidate.finding.rule);
    else
        out_.finding(std::move(candidate.finding));
}

/// Is it a consequence of something else?
bool Stamps::follows(const Candidate& candidate) const {
    const Finding& f = candidate.finding;
    const std::uint16_t pid = *f.pid;
    const auto covers = [&](Cause cause, std::uint16_t id) {
        return excuses_.covers(cause, id, candidate.from, candidate.to);
    };
    for (const std::uint16_t number : f.programs) {
        if (covers(Cause::clock_jump, number))
            return true;
        const Program* program = programs_ ? programs_->program(number) : nullptr;
        if (f.kind == Kind::frames_missing && program && covers(Cause::pcr_gap, program->pcr_pid))
            return true;
    }
    // Who loses a run of packets of all pids may lack sixteen of this one: no break of counters.
    if (f.kind == Kind::frames_missing && excuses_.any_loss(candidate.from, candidate.to))
        return true;
    if (covers(Cause::hold_off, pid))
        return true;
    return covers(Cause::stop, pid) || covers(Cause::outage, pid);
}

void Stamps::advance(const Place& now) {
    see(now);
    if (now.time == no_time || now.time < next_look_)
        return;
    next_look_ = now.time + look_time;
    for (auto& [pid, stream] : streams_) {
        if (stream.late && stream.late->good && now.time - stream.late->good->time >= in_time)
            close_late(stream, *stream.late->good, false);
        const std::optional<AudioStep>& step = stream.audio.waiting();
        if (step && now.time - step->to.time >= wait_time())
            audio_fault(stream, stream.audio.flush());
    }
    while (!waiting_.empty() && waiting_.front().due <= now.time) {
        decide(std::move(waiting_.front()));
        waiting_.pop_front();
    }
    excuses_.forget(now);
}

void Stamps::finish(const Place& end) {
    advance(end);
    for (auto& [pid, stream] : streams_) {
        restart(stream);
        if (stream.late)
            close_late(stream, stream.late->good.value_or(end), !stream.late->good);
        if (!stream.last_pts || !last_exact_)
            continue;
        distance(stream, end.time == no_time ? *last_exact_ : end, true);
    }
    while (!waiting_.empty()) {
        decide(std::move(waiting_.front()));
        waiting_.pop_front();
    }
}

// ---- what could be judged -----------------------------------------------------------------------

/// Asks each video and audio stream whose PES packets were seen for a reason why the rule could not
/// be judged on it; nullptr: it was.
template <typename Ask>
void Stamps::judge_streams(Judgement& judgement, Rule rule, Ask ask) const {
    bool announced = false;
    bool scrambled = false;
    bool seen = false;
    for (const auto& [pid, record] : records_) {
        if (!record.entry.is_av() || (rule == Rule::pts_error && record.entry.still_picture))
            continue;
        announced = true;
        scrambled = scrambled || (record.scrambled && !record.units);
        if (!record.units)
            continue;
        seen = true;
        if (const char* why = ask(record))
            judgement.no(rule, why, pid);
        else
            judgement.yes(rule);
    }
    if (seen)
        return;
    if (!announced)
        judgement.not_applicable(rule, "no such video or audio is announced");
    else if (scrambled)
        judgement.not_applicable(rule, "all of it is scrambled");
    else
        judgement.no(rule, "no PES packets");
}

void Stamps::judge(Judgement& judgement) const {
    judge_distance(judgement);
    judge_lateness(judgement);
    judge_steps(judgement);
    judge_order(judgement);
}

void Stamps::judge_distance(Judgement& judgement) const {
    if (options_.profile == Profile::segment) {
        judgement.not_applicable(Rule::pts_error, "profile segment");
        return;
    }
    const bool long_enough =
        last_exact_ && last_exact_->time - first_exact_->time >= options_.limits.pts;
    judge_streams(judgement, Rule::pts_error, [&](const Record& record) -> const char* {
        if (!last_exact_)
            return no_clock;
        if (!long_enough)
            return too_short;
        return record.stamps ? nullptr : no_stamps;
    });
}

void Stamps::judge_lateness(Judgement& judgement) const {
    judge_streams(judgement, Rule::late_stamp, [&](const Record& record) -> const char* {
        if (!record.stamps)
            return no_stamps;
        return record.clocked ? nullptr : no_clock;
    });
}

void Stamps::judge_steps(Judgement& judgement) const {
    judge_streams(judgement, Rule::stamp_jump, [&](const Record& record) -> const char* {
        if (!record.stamps)
            return no_stamps;
        if (!last_exact_)
            return no_clock;
        if (record.entry.kind == StreamKind::audio && !record.counted)
            return AudioFrames::counts(record.entry.codec)
                       ? "no audio frames are found"
                       : "audio frames of this codec are not counted";
        return nullptr;
    });
}

void Stamps::judge_order(Judgement& judgement) const {
    judge_streams(judgement, Rule::stamp_order, [&](const Record& record) -> const char* {
        return record.stamps ? nullptr : no_stamps;
    });
}

} // namespace quarn
