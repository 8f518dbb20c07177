#include "timed.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks long_loss = 300 * ticks_per_ms;
constexpr Ticks look_every = 100 * ticks_per_ms;
constexpr Ticks longest_doubt = ticks_per_second;
} // namespace

Timed::Timed(const Options& options, Findings& findings, const StreamClock& clock)
    : live_(options.live), findings_(findings), clock_(clock),
      programs_(std::make_shared<Programs>()), damage_(findings), losses_(findings, options.live),
      pcrs_(options, findings, *this), presence_(options, findings, *this),
      repetition_(options, findings, options.live), scrambling_(options, findings),
      stamps_(options, findings), unreferenced_(options, findings) {
    if (options.expect)
        expected_.emplace(options, findings);
    if (options.observe)
        observer_.emplace();
}

void Timed::record(Recorder& recorder) {
    recorder_ = &recorder;
    findings_.record(recorder);
    pcrs_.record(recorder);
    repetition_.record(recorder);
}

// ---------------------------------------------------------------- in step with the clock

void Timed::interval(const ClockInterval& interval, std::deque<Item>& queue, double null_share) {
    losses_.null_share(null_share);
    losses_.interval(interval);
    if (!timed_)
        presence_.sure_from(place(interval.from.at));
    timed_ = true;
    if (paused_)
        end_pause(interval);
    lost_time(interval);
    pcrs_.lost(interval);
    // What came before the PCR at its end still belongs to the clock before it.
    dispatch(queue, interval.to.at.index);
    if (clock_.pid())
        pcrs_.own(interval, place(interval.from.at), place(interval.to.at),
                  clock_.rate().ticks_per_packet());
    dispatch(queue, interval.to.at.index + 1);
    advance(place(interval.to.at));
}

// Packets of all pids were lost for a while: nothing that was silent then has stopped.
void Timed::lost_time(const ClockInterval& interval) {
    if (interval.stretch != Stretch::lost || interval.error < static_cast<double>(long_loss))
        return;
    const Place from = place(interval.from.at);
    const Place to = place(interval.to.at);
    stamps_.outage(from, to);
    repetition_.outage(from, to);
    findings_.cause(
        {Cause::What::outage, std::nullopt, from.packet, to.packet, no_time, to.time - from.time});
}

void Timed::untimed(std::deque<Item>& queue, At to) {
    ahead_ = to.index + 1;
    dispatch(queue, to.index + 1);
    advance(place(to));
}

void Timed::dispatch(std::deque<Item>& queue, std::uint64_t before) {
    while (!queue.empty() && queue.front().at.index < before) {
        const Item item = std::move(queue.front());
        queue.pop_front();
        if (!started_) {
            started_ = true;
            const Place first = place({0, 0, item.at.utc_us});
            repetition_.start(first);
            pcrs_.start(first);
            if (expected_)
                expected_->start(first);
            if (observer_)
                observer_->start(first);
        }
        std::visit([&](const auto& body) { take(item.at, body); }, item.body);
    }
}

void Timed::advance(const Place& now) {
    losses_.advance(clock_, now, false);
    damage_.advance(now);
    repetition_.advance(now);
    scrambling_.advance(now);
    stamps_.advance(now);
    unreferenced_.advance(now);
    if (expected_)
        expected_->advance(now);
    if (live_ && now.time >= next_look_)
        look(now);
    findings_.advance(now);
}

// Live: what goes on. Those first that explain others.
void Timed::look(const Place& now) {
    if (now.time == no_time || now.packet <= ahead_)
        return;
    next_look_ = now.time + look_every;
    presence_.look(now);
    damage_.look(now);
    pcrs_.look(now, clock_.pid());
    repetition_.look(now);
    scrambling_.look(now);
    stamps_.look(now);
    unreferenced_.look(now);
    if (expected_)
        expected_->look(now);
}

// Behind a pause of all packets: were they late, or lost? The next PCR tells, where one comes.
void Timed::end_pause(const ClockInterval& interval) {
    const bool told = interval.stretch != Stretch::bridged || !clock_.pid();
    if (next_look_ == INT64_MAX && interval.to.at.index > pause_index_)
        next_look_ = interval.end_time + longest_doubt;
    if (!told && interval.end_time < next_look_)
        return;
    paused_ = false;
    next_look_ = no_time;
}

void Timed::pause(const At& last) {
    paused_ = true;
    pause_index_ = last.index;
    next_look_ = INT64_MAX;
}

void Timed::wait(const At& last, Ticks time) {
    Place now = place(last);
    if (now.time != no_time)
        now.time += time;
    losses_.advance(clock_, now, false);
    damage_.advance(now);
    repetition_.wait(now);
    stamps_.wait(now);
    findings_.advance(now);
}

void Timed::away(const At& last, Ticks time, std::int64_t utc_us) {
    // Without any packet it is away since the input was opened.
    const std::int64_t opened_us =
        utc_us == no_time ? no_time : utc_us - time / (ticks_per_ms / 1000);
    const Place before = started_ ? place(last) : Place{1, 0, no_time, opened_us, false};
    if (!std::exchange(away_, true))
        begin_anew(before, before);
    presence_.away(before, time, utc_us);
}

// What was open is closed, and what comes is measured from `at` on.
void Timed::begin_anew(const Place& before, const Place& at) {
    presence_.anew(before, at);
    pcrs_.anew(before, at);
    repetition_.anew(before, at);
    scrambling_.anew(before, at);
    stamps_.anew(before, at);
    unreferenced_.anew(before, at);
    if (expected_)
        expected_->anew(before, at);
    if (observer_)
        observer_->anew(at);
    losses_.anew(at);
}

void Timed::take(const At& at, const AnewItem& item) {
    const Place p = place(at);
    begin_anew(place(item.before), p);
    if (std::exchange(away_, false))
        presence_.back(p, false);
}

void Timed::take(const At& at, const FrozenItem& item) {
    (void)at;
    damage_.frozen(item.run, place(item.run.begin), place(item.run.end), true);
}

void Timed::count(Counters& counters) const {
    pcrs_.count(counters.pcr_intervals);
    for (const Program& p : programs_->programs) {
        if (counters.av_offset_s.size() == Counters::most_programs)
            break;
        std::optional<Ticks> sound;
        std::optional<Ticks> picture;
        for (const ElementaryStream& s : p.streams) {
            if (!s.is_av())
                continue;
            auto& lead = s.kind == StreamKind::audio ? sound : picture;
            lead = lead ? lead : stamps_.lead(s.pid);
        }
        if (sound && picture)
            counters.av_offset_s.emplace_back(p.number, static_cast<double>(*sound - *picture) /
                                                            ticks_per_second);
    }
}

void Timed::finish(std::deque<Item>& queue, const At& last) {
    dispatch(queue, UINT64_MAX);
    if (live_ && !paused_)
        look(place(last));
    const Place end = place(last);
    findings_.advance(end);
    const Place sure =
        end.estimated && clock_.known_for_sure() ? place(*clock_.known_for_sure()) : end;
    if (std::exchange(away_, false))
        presence_.back(end, true);
    presence_.finish(end, sure);
    pcrs_.finish(end, sure, clock_.rate().ticks_per_packet());
    losses_.advance(clock_, end, true);
    damage_.finish();
    repetition_.finish(end);
    scrambling_.finish(end);
    stamps_.finish(end);
    unreferenced_.finish(end);
    if (expected_)
        expected_->finish(end);
    findings_.finish();
}

// ---------------------------------------------------------------- what explains what

void Timed::counter_break(const CounterBreak& fault) {
    losses_.counter_break(fault);
}

void Timed::clock_jumped(std::uint16_t pid, const Place& from, const Place& to, bool flagged,
                         bool main) {
    losses_.clock_jumped(pid, from, to, main);
    for (const Program& p : programs_->programs)
        if (p.pcr_pid == pid)
            stamps_.clock_jump(p.number, to, flagged);
}

void Timed::pcr_gap(std::uint16_t pid, const Place& from, const Place& to) {
    stamps_.pcr_gap(pid, from, to);
}

void Timed::stopped(std::uint16_t pid, const Place& from, const Place& to) {
    stamps_.stopped(pid, from, to);
    findings_.cause({Cause::What::stopped, pid, from.packet, to.packet, no_time, 0});
}

void Timed::outage(const Place& from, const Place& to) {
    stamps_.outage(from, to);
    repetition_.outage(from, to);
    losses_.outage(from, to);
    findings_.cause(
        {Cause::What::outage, std::nullopt, from.packet, to.packet, no_time, to.time - from.time});
}

// ---------------------------------------------------------------- items

void Timed::take(const At& at, const SectionEvent& event) {
    const Place end = place(at);
    if (event.pid == 0 && event.table_id == 0 && pats_++ == 0)
        first_pat_ = at.index;
    repetition_.section(event, place(event.begin), end);
    scrambling_.section(event, end);
    if (expected_)
        expected_->section(event, end);
    if (observer_)
        observer_->section(event, end);
}

void Timed::take(const At& at, const ProgramsEvent& event) {
    const Place p = place(at);
    programs_ = event.programs;
    remember(*programs_);
    if (recorder_ != nullptr)
        recorder_->programs(programs_);
    damage_.programs(programs_);
    losses_.programs(programs_);
    pcrs_.programs(programs_, p);
    presence_.programs(programs_, p);
    repetition_.programs(programs_, p);
    scrambling_.programs(programs_, p);
    stamps_.programs(programs_, p);
    unreferenced_.programs(programs_, p);
    if (expected_)
        expected_->programs(programs_, p);
    if (observer_)
        observer_->programs(programs_, p);
}

void Timed::take(const At& at, const NamesEvent& event) {
    if (expected_)
        expected_->names(event.names, place(at));
}

void Timed::remember(const Programs& programs) {
    if (live_) { // else it grows for as long as programs come and go
        seen_ = programs;
        return;
    }
    for (const Program& p : programs.programs) {
        const auto old = std::find_if(seen_.programs.begin(), seen_.programs.end(),
                                      [&](const Program& x) { return x.number == p.number; });
        if (old == seen_.programs.end())
            seen_.programs.push_back(p);
        else if (p.pmt_in_force)
            *old = p;
    }
    std::sort(seen_.programs.begin(), seen_.programs.end(),
              [](const Program& a, const Program& b) { return a.number < b.number; });
}

void Timed::take(const At& at, const TableChangedEvent& event) {
    Finding f;
    f.rule = event.version_unchanged ? Rule::version_unchanged : Rule::table_changed;
    f.severity = info(f.rule).severity;
    f.pid = event.pid;
    f.programs = event.programs;
    f.begin = f.end = place(at);
    f.detail.table_id = event.table_id;
    f.detail.changes = event.changes;
    findings_.finding(std::move(f));
}

void Timed::take(const At& at, const PesItem& item) {
    losses_.pes(item.event, place(at), item.packets_per_second, item.ticks_per_start,
                clock_.rate().constant());
    std::optional<Ticks> clock;
    for (const Program& p : programs_->programs)
        if (!clock &&
            std::any_of(p.streams.begin(), p.streams.end(),
                        [&](const ElementaryStream& s) { return s.pid == item.event.pid; }))
            clock = pcrs_.value_at(p.pcr_pid, at, clock_.rate());
    stamps_.pes(item.event, place(at), clock);
    if (recorder_ != nullptr && clock && item.event.pts)
        if (const auto lead = stamps_.lead(item.event.pid))
            recorder_->lead(item.event.pid, place(at), *lead);
}

void Timed::take(const At& at, const ScramblingEvent& event) {
    const Place p = place(at);
    scrambling_.scrambling(event, place(event.before), p);
    if (event.scrambled)
        stamps_.scrambled(event.pid, p);
    if (!event.first || event.scrambled)
        stamps_.hold_off(event.pid, p);
}

void Timed::take(const At& at, const SpansItem& item) {
    (void)at;
    for (const SpansItem::Span& s : item.spans) {
        const PidSpan span = {s.pid, place(s.first), place(s.last), s.packets};
        presence_.span(span);
        losses_.span(span);
        repetition_.seen(s.pid);
        scrambling_.seen(s.pid, span.first, span.last);
        unreferenced_.seen(s.pid, span.first, span.last);
        if (expected_)
            expected_->seen(s, span.first, span.last);
        if (observer_)
            observer_->seen(s, span.first, span.last);
    }
}

void Timed::take(const At& at, const PcrItem& item) {
    const Place p = place(at);
    if (presence_.pcr(item.point.pid)) // which said that they were missing
        findings_.cause({Cause::What::stopped, item.point.pid, 0, p.packet, no_time, 0});
    if (item.point.pid != clock_.pid())
        pcrs_.other(item.point, p, clock_);
}

void Timed::take(const At& at, const NullsItem& item) {
    presence_.nulls(place(item.from), place(at), item.open, item.going_on);
}

void Timed::take(const At& at, const BrokenItem& item) {
    const Place p = place(at);
    stamps_.hold_off(item.pid, p);
    repetition_.excuse(item.pid, place(item.before), p);
}

void Timed::take(const At& at, const DamagedItem& item) {
    const Place p = place(at);
    damage_.transport_error(item.pid, p);
    losses_.damaged(item.pid, at.index);
    stamps_.hold_off(item.pid, p);
    repetition_.excuse(item.pid, p, p);
    findings_.cause({Cause::What::transport_error, item.pid, p.packet, p.packet, no_time, 0});
}

void Timed::take(const At& at, const SyncByteItem& item) {
    const Place p = place(at);
    if (!item.garbled)
        damage_.sync_byte(p);
    losses_.damaged(item.pid, at.index);
    stamps_.hold_off(null_pid, p);
    repetition_.excuse(null_pid, p, p);
    findings_.cause({Cause::What::transport_error, item.pid, p.packet, p.packet, no_time, 0});
}

void Timed::take(const At& at, const SyncLossItem& item) {
    const Place before = place(item.before);
    const Place end = place(at);
    damage_.sync_loss(item.loss, place(item.begin), end);
    stamps_.hold_off(null_pid, end);
    repetition_.excuse(null_pid, before, end);
    findings_.cause({Cause::What::sync_lost, std::nullopt, before.packet, end.packet, no_time, 0});
}

void Timed::take(const At& at, const TruncatedItem& item) {
    damage_.truncated(item.bytes, place(at));
}

void Timed::take(const At& at, const ScrambledTableItem& item) {
    repetition_.scrambled(item.pid, place(at));
}

void Timed::take(const At& at, const OrderFault& fault) {
    (void)at;
    damage_.order(fault, place(fault.begin), place(fault.end));
}

void Timed::take(const At& at, const CopyFault& fault) {
    damage_.copies(fault, place(at));
}

void Timed::take(const At& at, const FrozenRun& run) {
    (void)at;
    damage_.frozen(run, place(run.begin), place(run.end), false);
}

void Timed::take(const At& at, const DatagramEvent& event) {
    damage_.datagrams(event, place(at));
}

void Timed::take(const At& at, const CountsItem& item) {
    const Place from = place(item.from);
    const Place to = place(at);
    if (recorder_ != nullptr)
        recorder_->counts(item, from, to);
    if (expected_)
        expected_->counts(item, from, to, constant_rate());
    if (observer_)
        observer_->counts(item, from, to, constant_rate());
}

std::optional<bool> Timed::constant_rate() const {
    const bool known = clock_.pid() && clock_.rate().decided();
    return known ? std::optional(clock_.rate().constant()) : std::nullopt;
}

Observed Timed::observed(const At& last) const {
    return observer_ ? observer_->observed(place(last)) : Observed{};
}

void Timed::judge(Answers& answers, std::optional<Ticks> duration) const {
    pcrs_.judge(answers, clock_.has_clock());
    presence_.judge(answers, duration);
    repetition_.judge(answers);
    scrambling_.judge(answers);
    stamps_.judge(answers);
    unreferenced_.judge(answers);
    if (expected_)
        expected_->judge(answers);
    else
        answers.not_applicable(Rule::unexpected, "no expectation is given");
}

} // namespace quarn
