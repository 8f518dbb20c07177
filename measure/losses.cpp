#include "losses.h"

#include <algorithm>
#include <cmath>

namespace quarn {

namespace {
constexpr Ticks wait = 600 * ticks_per_ms;
constexpr Ticks wait_for_silent = 1200 * ticks_per_ms; // a PES packet may end that late
constexpr Ticks wait_for_silent_live = 1000 * ticks_per_ms;
constexpr Ticks kept = 4 * ticks_per_second;
constexpr Ticks rate_over = ticks_per_second;
// The longest loss, the time until it is named, and what its pids had before.
constexpr Ticks heard = 3 * ticks_per_second + wait_for_silent + rate_over;
constexpr Ticks before_jump = 200 * ticks_per_ms;
constexpr double noticeable = 60e-6 * ticks_per_second;
constexpr double no_nulls = 0.001;
constexpr double by_chance = 0.01; // that so many packets in a row are null packets
constexpr std::int64_t datagram_packets = 7;
constexpr std::uint64_t overwritten = 5; // damaged packets one behind the other
// Breaks that are looked at to find those that share what is missing with another one. More within
// its 0.6 s come from hostile senders only, whose breaks must not keep their host from its work.
constexpr unsigned most_beside = 1000;

/// Packets of an error, if it is a whole number of them.
std::optional<std::int64_t> whole_packets(double error, double tpp) {
    const double n = std::round(error / tpp);
    if (std::abs(error - n * tpp) >= std::min(80e-6 * ticks_per_second, tpp / 4))
        return std::nullopt;
    return static_cast<std::int64_t>(n);
}

/// The number congruent to d modulo 16 that is nearest to `to`, at least `least`.
std::int64_t nearest(std::int64_t d, double to, std::int64_t least) {
    std::int64_t best = d < least ? d + 16 : d;
    for (std::int64_t n = best; static_cast<double>(n) <= to + 16; n += 16)
        if (std::abs(static_cast<double>(n) - to) < std::abs(static_cast<double>(best) - to))
            best = n;
    return best;
}
} // namespace

Losses::Losses(Output& output, bool live) : output_(output), live_(live) {}

void Losses::programs(const ProgramsPtr& programs) {
    programs_ = programs;
}

void Losses::counter_break(const CounterBreak& fault) {
    Break b;
    b.fault = fault;
    breaks_.emplace(fault.at.index, b);
}

void Losses::damaged(std::uint16_t pid, std::uint64_t index) {
    auto& d = damaged_[pid];
    d.push_back(index);
    if (d.size() > 64)
        d.pop_front();
    if (!damaged_runs_.empty() && index <= damaged_runs_.back().last + 1)
        damaged_runs_.back().last = index;
    else
        damaged_runs_.push_back({index, index});
    if (damaged_runs_.size() > 64)
        damaged_runs_.pop_front();
}

// In runs of at least that many.
std::uint64_t Losses::damaged_between(std::uint64_t before, std::uint64_t at,
                                      std::uint64_t least_run) const {
    std::uint64_t packets = 0;
    for (const DamagedRun& run : damaged_runs_)
        if (run.packets() >= least_run && run.last > before && run.first < at)
            packets += std::min(run.last, at - 1) - std::max(run.first, before + 1) + 1;
    return packets;
}

void Losses::interval(const ClockInterval& interval) {
    if (interval.stretch != Stretch::bridged)
        intervals_.push_back(interval);
}

void Losses::span(const PidSpan& span) {
    auto& pieces = traffic_[span.pid].pieces;
    pieces.push_back(
        {span.first.packet, span.last.packet, span.first.time, span.last.time, span.packets});
    while (pieces.front().last_time + heard < span.last.time || pieces.size() > 128)
        pieces.pop_front();
}

void Losses::pes(const PesEvent& event, const Place& place, double per_second, double per_start,
                 bool constant_rate) {
    const std::uint64_t at = place.packet - 1;
    Traffic& t = traffic_[event.pid];
    t.packets_since += event.packets;
    const auto stamp = event.dts ? event.dts : event.pts;
    Break* mine = nullptr;
    unsigned several = 0;
    for (auto& [index, b] : breaks_)
        if (b.fault.pid == event.pid && !b.pes_seen && b.fault.at.index <= at &&
            b.fault.before.index >= t.start) {
            mine = &b;
            b.pes_seen = true;
            ++several;
        }
    const ElementaryStream* stream = programs_ ? programs_->stream(event.pid) : nullptr;
    const bool audio = stream != nullptr && stream->kind == StreamKind::audio;
    const double step =
        stamp && t.stamp ? static_cast<double>(clock_distance(*t.stamp, *stamp, stamp_wrap)) : 0;
    std::optional<double> lacks;
    const bool by_length = event.declared > 0 && event.received < event.declared &&
                           (!audio || step <= 1.5 * per_start);
    if (by_length)
        lacks = (event.declared - event.received) / 184.0;
    else if (audio && per_second > 0 && step > 0 && step < 3 * 90000.0)
        lacks = step / 90000.0 * per_second - t.packets_since;
    const double pictures = !audio && per_start > 0 && step > 0 ? step / per_start - 1 : 0;
    if (mine != nullptr && several == 1) {
        mine->pes_short = lacks;
        mine->pes_sure = by_length;
        mine->frames_seen = !audio && per_start > 0 && step > 0;
        mine->frames_missing = pictures;
    } else if (mine == nullptr && !event.disturbed &&
               (lacks.value_or(0) > 12 || (pictures > 0.6 && pictures < 50))) {
        shortfalls_.push_back({event.pid, t.start, at, lacks.value_or(0)});
        if (shortfalls_.size() > 64)
            shortfalls_.pop_front();
    }
    if (mine == nullptr && !constant_rate && !event.disturbed && lacks)
        sixteens(event, t, place, by_length ? 0 : step, *lacks, per_second);
    t.counted = t.counted || event.frame_ticks;
    if (stamp) {
        t.stamp = stamp;
        t.packets_since = 0;
    }
    t.start_time = place.time;
    t.start = at;
}

// At a variable rate: whole sixteens that a PES packet lacks by its length, or that a sound lacks
// although its stamps keep their distance from the clock, and its frames do not go on.
void Losses::sixteens(const PesEvent& event, const Traffic& traffic, const Place& place,
                      double step, double lacks, double per_second) {
    const double whole = std::round(lacks / 16) * 16;
    const bool by_length = step == 0;
    // The start of a PES packet is gone, and what is left of it stands behind the one before.
    const bool headless = event.declared > 0 && event.received > event.declared;
    const double tolerance = by_length || (event.declared > 0 && !headless) ? 0.8 : 2.0;
    if (whole < 16 || whole > 48 || std::abs(lacks - whole) > tolerance)
        return;
    if (!outages_.empty() && outages_.back().second.packet > traffic.start)
        return;
    if (damaged_between(traffic.start, place.packet, overwritten) > 0)
        return;
    if (!by_length) {
        const bool complete = event.declared > 0 && event.received == event.declared;
        const bool counted = event.frame_ticks.has_value();
        const bool gone = counted && step - *event.frame_ticks > 1800;
        const bool cut = counted ? gone && !complete : traffic.counted;
        const bool exact = gone && whole == 16 && std::abs(lacks - whole) < 0.5;
        if ((!cut && !exact) || traffic.start_time == no_time || place.time == no_time)
            return; // a stream that pauses ends with a frame, and begins with one
        const double moved = step - static_cast<double>(place.time - traffic.start_time) / 300;
        const double due_time = lacks / per_second * 90000;
        // Where the only stream of a program lacks packets, its clock seems to have jumped.
        const bool jumped = std::any_of(jumps_.begin(), jumps_.end(), [&](const Jump& j) {
            return j.to.packet > traffic.start && j.from.packet < place.packet;
        });
        const bool by_jump = jumped && (headless || std::abs(lacks - whole) < 0.5) &&
                             std::abs(moved - due_time) < due_time / 4;
        if (std::abs(moved) > due_time / 2 && !by_jump)
            return;
    }
    Finding f;
    f.rule = Rule::continuity_count_error;
    f.kind = Kind::loss;
    f.sure = Sure::guess;
    f.pid = event.pid;
    if (programs_)
        f.programs = programs_->programs_of(event.pid);
    f.begin = f.end = place;
    f.detail.lost = static_cast<std::int64_t>(whole);
    traffic_[event.pid].lost += static_cast<std::uint64_t>(whole);
    output_.finding(std::move(f));
}

void Losses::clock_jumped(std::uint16_t pid, const Place& from, const Place& to, bool main) {
    jumps_.push_back({pid, from, to, main});
    if (jumps_.size() > 32)
        jumps_.pop_front();
}

void Losses::outage(const Place& from, const Place& to) {
    if (!outages_.empty() && outages_.back().first.packet == from.packet) // it went on
        outages_.pop_back();
    outages_.emplace_back(from, to);
    if (outages_.size() > 16)
        outages_.pop_front();
}

void Losses::anew(const Place& at) {
    for (auto& [pid, t] : traffic_) {
        t.stamp.reset();
        t.packets_since = 0;
        t.start = at.packet - 1;
        t.start_time = no_time;
    }
}

bool Losses::touches(const Break& b, const ClockInterval& i) const {
    return b.fault.before.index < i.to.at.index && b.fault.at.index > i.from.at.index;
}

// ---------------------------------------------------------------- what follows from something else

bool Losses::follows(const Break& b, const StreamClock& clock) {
    const std::uint64_t before = b.fault.before.index;
    const std::uint64_t at = b.fault.at.index;
    const Ticks time = clock.place(b.fault.at).time;
    for (const Jump& j : jumps_) {
        bool mine = j.main;
        if (programs_ && !mine)
            for (const std::uint16_t n : programs_->programs_of(j.pid))
                for (const std::uint16_t m : programs_->programs_of(b.fault.pid))
                    mine = mine || n == m;
        if (mine && before + 1 < j.to.packet &&
            (at + 1 >= j.to.packet || time >= j.to.time - before_jump))
            return true;
    }
    for (const auto& [from, to] : outages_)
        if (before + 1 < to.packet && at + 1 > from.packet)
            return true;
    if (const auto d = damaged_.find(b.fault.pid); d != damaged_.end()) {
        const auto n = std::count_if(d->second.begin(), d->second.end(), [&](std::uint64_t index) {
            return index > before && index < at;
        });
        if (n > 0 && b.fault.distance() <= static_cast<unsigned>(n))
            return true;
    }
    // Of a hole that something else has filled not even the pids are what they were.
    const std::uint64_t overwritten_packets = damaged_between(before, at, overwritten);
    return overwritten_packets > 0 && overwritten_packets >= b.fault.distance();
}

// ---------------------------------------------------------------- how many

// Packets that are missing from the multiplex in all intervals that the breaks touch, if the rate
// tells.
std::optional<std::int64_t> Losses::missing(const std::vector<Break*>& cluster,
                                            const Rate& rate) const {
    if (!rate.constant())
        return std::nullopt;
    std::int64_t sum = 0;
    bool any = false;
    std::uint64_t covered_to = 0;
    for (const ClockInterval& i : intervals_) {
        const bool mine = std::any_of(cluster.begin(), cluster.end(),
                                      [&](const Break* b) { return touches(*b, i); });
        if (!mine)
            continue;
        if (!i.constant || i.stretch == Stretch::jump || i.stretch == Stretch::flagged ||
            i.stretch == Stretch::moved || i.stretch == Stretch::anew)
            return std::nullopt;
        const auto n = whole_packets(i.error, rate.ticks_per_packet());
        if (!n || *n < 0)
            return std::nullopt;
        sum += *n;
        any = true;
        covered_to = std::max(covered_to, i.to.at.index);
    }
    for (const Break* b : cluster)
        if (b->fault.at.index > covered_to)
            return std::nullopt;
    return any ? std::optional(sum) : std::nullopt;
}

// Packets of that pid that a stretch of time would have had at its usual pace.
double Losses::due(std::uint16_t pid, const Place& from, const Place& to) const {
    const auto t = traffic_.find(pid);
    if (t == traffic_.end() || from.time == no_time)
        return 0;
    double packets = 0;
    Ticks begin = from.time;
    for (const Piece& p : t->second.pieces)
        if (p.last <= from.packet && p.last_time > from.time - rate_over) {
            packets += p.packets;
            begin = std::min(begin, p.first_time);
        }
    const Ticks over = std::max<Ticks>(from.time - begin, ticks_per_second / 20);
    return packets * static_cast<double>(to.time - from.time) / static_cast<double>(over);
}

void Losses::name(std::vector<Break*>& cluster, const StreamClock& clock) {
    const auto sum = missing(cluster, clock.rate());
    if (sum)
        name_constant(cluster, *sum, clock);
    else
        for (Break* b : cluster)
            name_variable(*b, clock);
    datagram(cluster, sum, clock);
}

void Losses::name_constant(std::vector<Break*>& cluster, std::int64_t missing,
                           const StreamClock& clock) {
    if (missing == 0) { // every slot of the multiplex is accounted for
        for (Break* b : cluster) {
            const CounterBreak& fault = b->fault;
            b->kind = Kind::reset;
            b->sure = Sure::exact;
            b->follows = damaged_between(fault.before.index, fault.at.index, 1) >= fault.distance();
        }
        return;
    }
    std::int64_t least = 0;
    for (const Break* b : cluster)
        least += b->fault.distance();
    if (least == missing) {
        for (Break* b : cluster) {
            b->lost = b->fault.distance();
            b->sure = Sure::exact;
        }
        return;
    }
    if (least > missing && cluster.size() > 1) {
        // Some are losses and some counters that began anew: those that make up the number.
        const std::size_t n = std::min<std::size_t>(cluster.size(), 12);
        for (std::uint32_t set = 1; set < (1u << n); ++set) {
            std::int64_t sum = 0;
            for (std::size_t k = 0; k < n; ++k)
                if (set >> k & 1)
                    sum += cluster[k]->fault.distance();
            if (sum != missing)
                continue;
            for (std::size_t k = 0; k < cluster.size(); ++k) {
                const bool is_loss = k < n && (set >> k & 1);
                cluster[k]->kind = is_loss ? Kind::loss : Kind::reset;
                cluster[k]->lost = is_loss ? cluster[k]->fault.distance() : 0;
                cluster[k]->sure = Sure::guess;
            }
            return;
        }
    }
    share_out(cluster, missing, clock);
}

// More is missing than the counters say: sixteens of one of them, or null packets.
void Losses::share_out(std::vector<Break*>& cluster, std::int64_t missing,
                       const StreamClock& clock) {
    for (Break* b : cluster)
        b->lost = b->fault.distance();
    std::int64_t rest = missing;
    for (const Break* b : cluster)
        rest -= b->lost;
    const bool nulls = null_share_ > no_nulls;
    if (rest >= 16 && !cluster.empty()) {
        Break* busiest = cluster.front();
        double most = -1;
        for (Break* b : cluster) {
            const double d =
                due(b->fault.pid, clock.place(b->fault.before), clock.place(b->fault.at));
            if (d > most) {
                most = d;
                busiest = b;
            }
        }
        const std::int64_t up_to = busiest->lost + rest / 16 * 16;
        std::int64_t lost = up_to;
        if (nulls) {
            double expected = most - 1;
            if (busiest->pes_short && cluster.size() == 1 && busiest->pes_sure)
                expected = *busiest->pes_short;
            lost = std::min(up_to, nearest(busiest->fault.distance(), expected, 1));
        }
        if (cluster.size() > 1 && lost != busiest->lost)
            busiest->sure = Sure::guess;
        rest -= lost - busiest->lost;
        busiest->lost = lost;
    }
    for (Break* b : cluster) {
        const bool by_length = b->pes_short && b->pes_sure &&
                               std::abs(*b->pes_short - static_cast<double>(b->lost)) < 1.5;
        if (b->sure != Sure::guess && (rest == 0 || by_length || (cluster.size() == 1 && !nulls)))
            b->sure = Sure::exact;
    }
}

void Losses::name_variable(Break& b, const StreamClock& clock) {
    const auto d = static_cast<std::int64_t>(b.fault.distance());
    const ElementaryStream* stream = programs_ ? programs_->stream(b.fault.pid) : nullptr;
    const bool audio = stream != nullptr && stream->kind == StreamKind::audio;
    b.lost = d;
    if (b.pes_short && b.pes_sure) {
        const double gone = *b.pes_short;
        if (gone > 0.02) {
            b.lost = nearest(d, std::ceil(gone - 0.02), 1);
            b.sure = Sure::exact;
        } else {
            b.kind = Kind::reset;
            b.lost = 0;
            b.sure = Sure::exact;
        }
        return;
    }
    if (b.pes_short && audio) {
        b.lost = nearest(d, *b.pes_short, 0 < d ? 1 : 16);
        if (std::abs(*b.pes_short) < std::abs(*b.pes_short - static_cast<double>(b.lost))) {
            b.kind = Kind::reset;
            b.lost = 0;
            b.sure = Sure::guess;
        }
        return;
    }
    bool pcr_missing = false;
    for (const ClockInterval& i : intervals_)
        pcr_missing =
            pcr_missing || (touches(b, i) && i.distance > clock.rate().usual_distance() * 3 / 2);
    const bool datagram_gone = d == datagram_packets; // more often than a counter that begins anew
    if (b.fault.got == 0 && !datagram_gone && stream != nullptr && b.frames_seen &&
        b.frames_missing < 0.5 && !pcr_missing) {
        b.kind = Kind::reset;
        b.lost = 0;
        b.sure = Sure::guess;
    }
}

// ---------------------------------------------------------------- deciding

void Losses::advance(const StreamClock& clock, const Place& now, bool at_end) {
    while (!breaks_.empty()) {
        const CounterBreak& first = breaks_.begin()->second.fault;
        const bool covered = first.at.index <= clock.known_to();
        const Ticks time = clock.place(first.at).time;
        const bool old = now.time != no_time && time != no_time
                             ? now.time >= time + wait
                             : now.packet >= first.at.index + 10'000;
        if (!at_end && (!covered || !old))
            break;
        const auto together = first_cluster(clock);
        decide(together, clock);
        for (const auto& member : together)
            breaks_.erase(member);
    }
    silent_losses(clock, now, at_end);
    forget(now);
}

// The first break, and those behind it in the same intervals: they share what is missing.
std::vector<Losses::Breaks::iterator> Losses::first_cluster(const StreamClock& clock) {
    std::vector<Breaks::iterator> cluster = {breaks_.begin()};
    const CounterBreak& first = breaks_.begin()->second.fault;
    std::vector<const ClockInterval*> uneven; // in order, each behind the one before
    for (auto i = intervals_.rbegin(); i != intervals_.rend(); ++i) {
        if (i->to.at.index <= first.before.index)
            break;
        if (std::abs(i->error) > clock.rate().ticks_per_packet() / 4)
            uneven.push_back(&*i);
    }
    std::reverse(uneven.begin(), uneven.end());
    const Ticks time = clock.place(first.at).time;
    std::uint64_t to = first.at.index;
    unsigned looked_at = 0;
    for (auto next = std::next(breaks_.begin());
         next != breaks_.end() && !uneven.empty() && looked_at < most_beside; ++next, ++looked_at) {
        const CounterBreak& fault = next->second.fault;
        if (clock.place(fault.at).time - time > wait)
            break;
        const auto touched =
            std::partition_point(uneven.begin(), uneven.end(), [&](const ClockInterval* i) {
                return i->to.at.index <= fault.before.index;
            });
        if (touched == uneven.end() || (*touched)->from.at.index >= std::min(fault.at.index, to))
            continue;
        cluster.push_back(next);
        to = std::max(to, fault.at.index);
    }
    return cluster;
}

void Losses::decide(const std::vector<Breaks::iterator>& together, const StreamClock& clock) {
    std::vector<Break*> own;
    for (const auto& member : together) {
        Break& b = member->second;
        b.follows = follows(b, clock);
        if (!b.follows)
            own.push_back(&b);
    }
    if (!own.empty())
        name(own, clock);
    for (const auto& member : together)
        emit(member->second, clock);
}

void Losses::emit(const Break& b, const StreamClock& clock) {
    if (b.follows) {
        output_.consequence(Rule::continuity_count_error);
        return;
    }
    Finding f;
    f.rule = Rule::continuity_count_error;
    f.kind = b.kind;
    f.sure = b.sure;
    f.pid = b.fault.pid;
    if (programs_)
        f.programs = programs_->programs_of(b.fault.pid);
    f.begin = f.end = clock.place(b.fault.at);
    f.detail.expected = static_cast<int>(b.fault.expected);
    f.detail.got = static_cast<int>(b.fault.got);
    if (b.kind == Kind::loss) {
        f.detail.lost = b.lost;
        traffic_[b.fault.pid].lost += static_cast<std::uint64_t>(b.lost);
    }
    output_.finding(std::move(f));
}

// Losses of several pids that fit one datagram of seven packets between two packets that came.
void Losses::datagram(const std::vector<Break*>& cluster, std::optional<std::int64_t> missing,
                      const StreamClock& clock) {
    std::vector<const Break*> losses;
    std::int64_t sum = 0;
    std::uint64_t from = 0;
    std::uint64_t to = UINT64_MAX;
    for (const Break* b : cluster)
        if (b->kind == Kind::loss) {
            losses.push_back(b);
            sum += b->lost;
            from = std::max(from, b->fault.before.index);
            to = std::min(to, b->fault.at.index);
        }
    if (losses.size() < 2 || from >= to || missing.value_or(sum) != datagram_packets ||
        sum > datagram_packets)
        return;
    const auto first =
        std::min_element(losses.begin(), losses.end(), [](const Break* a, const Break* b) {
            return a->fault.at.index < b->fault.at.index;
        });
    Finding f;
    f.rule = Rule::datagram_error;
    f.kind = Kind::loss;
    f.severity = Severity::info;
    f.sure = Sure::guess;
    f.begin = f.end = clock.place((*first)->fault.at);
    f.detail.datagrams = 1;
    f.detail.packets = datagram_packets;
    for (const Break* b : losses)
        f.detail.pids.push_back(b->fault.pid);
    std::sort(f.detail.pids.begin(), f.detail.pids.end());
    f.detail.pids.erase(std::unique(f.detail.pids.begin(), f.detail.pids.end()),
                        f.detail.pids.end());
    output_.finding(std::move(f));
}

// ---------------------------------------------------------------- losses that no counter shows

// At a constant rate whole sixteens that are missing leave no break, but a hole in time.
void Losses::silent_losses(const StreamClock& clock, const Place& now, bool at_end) {
    if (!clock.rate().constant())
        return;
    const double tpp = clock.rate().ticks_per_packet();
    const ClockInterval* first = nullptr;
    const ClockInterval* last = nullptr;
    std::int64_t sum = 0;
    const auto close = [&] {
        if (first != nullptr && sum >= 16 &&
            !ragged(first->begin_time - wait, last->end_time + wait, tpp))
            silent_loss(sum, *first, *last, clock);
        if (last != nullptr)
            silent_from_ = last->to.at.index;
        first = last = nullptr;
        sum = 0;
    };
    for (const ClockInterval& i : intervals_) {
        if (i.to.at.index <= silent_from_)
            continue;
        if (!at_end && i.end_time + (live_ ? wait_for_silent_live : wait_for_silent) > now.time &&
            first == nullptr)
            return;
        const auto n = whole_packets(i.error, tpp);
        const bool candidate =
            i.stretch == Stretch::lost && i.constant && !i.disturbed && n && *n > 0;
        if (candidate) {
            first = first != nullptr ? first : &i;
            last = &i;
            sum += *n;
        } else if (first != nullptr && (i.disturbed || i.begin_time > last->end_time + wait)) {
            close();
        } else if (first == nullptr) {
            silent_from_ = i.to.at.index;
        }
    }
    if (first != nullptr && (at_end || now.time > last->end_time + wait))
        close();
}

// Errors that are no whole packets, or too few of them: PCRs that jitter, some of them by chance as
// if packets were gone.
bool Losses::ragged(Ticks from, Ticks to, double ticks_per_packet) const {
    return std::any_of(intervals_.begin(), intervals_.end(), [&](const ClockInterval& i) {
        if (i.end_time < from || i.begin_time > to || i.disturbed || i.stretch == Stretch::jump ||
            std::abs(i.error) < noticeable)
            return false;
        const auto n = whole_packets(i.error, ticks_per_packet);
        return !n || *n < 0;
    });
}

// The fewest packets of that pid in a stretch of that length over the last seconds.
double Losses::fewest(std::uint16_t pid, const Place& before, Ticks length) const {
    double least = INFINITY;
    const auto& pieces = traffic_.find(pid)->second.pieces;
    for (auto begin = pieces.begin(); begin != pieces.end(); ++begin) {
        const Ticks end = begin->last_time + length; // from behind one piece on
        if (end > before.time)
            break;
        double packets = 0;
        for (auto p = std::next(begin); p != pieces.end() && p->last_time <= end; ++p)
            packets += p->packets;
        least = std::min(least, packets);
    }
    return least;
}

// The pid that lacks them by its own length or frames, else the only one that has far fewer packets
// than it would have had, and fewer than it ever had of late.
std::optional<std::uint16_t> Losses::whose(const Place& from, const Place& to,
                                           double packets) const {
    if (const Shortfall* s = shortfall(from.packet, to.packet, packets))
        return s->pid;
    std::optional<std::uint16_t> pid;
    double most = 0;
    double second = 0;
    double its = 0;
    for (const auto& [other, t] : traffic_) {
        double came = 0;
        for (const Piece& p : t.pieces)
            if (p.first > from.packet && p.last <= to.packet)
                came += p.packets;
        const double lacks = due(other, from, to) - came;
        if (lacks > most) {
            second = most;
            most = lacks;
            pid = other;
            its = came;
        } else {
            second = std::max(second, lacks);
        }
    }
    const bool alone = most > 0.8 * packets && second < 0.4 * packets;
    return alone && its < fewest(*pid, from, to.time - from.time) ? pid : std::nullopt;
}

void Losses::silent_loss(std::int64_t packets, const ClockInterval& first,
                         const ClockInterval& last, const StreamClock& clock) {
    const Place from = clock.place(first.from.at);
    const Place to = clock.place(last.to.at);
    for (const auto& [a, b] : outages_)
        if (from.packet < b.packet && to.packet > a.packet)
            return;
    const std::optional<std::uint16_t> pid = whose(from, to, static_cast<double>(packets));
    const bool may_be_nulls =
        packets < 32 || std::pow(null_share_, static_cast<double>(packets)) > by_chance;
    if (!pid && (first.nulls || last.nulls) && may_be_nulls)
        return; // null packets, as far as anything shows
    Finding f;
    f.rule = Rule::continuity_count_error;
    f.kind = Kind::loss;
    f.sure = Sure::guess;
    f.pid = pid;
    if (pid && programs_)
        f.programs = programs_->programs_of(*pid);
    f.begin = f.end = to;
    f.detail.lost = packets / 16 * 16;
    if (pid)
        traffic_[*pid].lost += static_cast<std::uint64_t>(packets / 16 * 16);
    output_.finding(std::move(f));
}

const Losses::Shortfall* Losses::shortfall(std::uint64_t from, std::uint64_t to,
                                           double packets) const {
    const Shortfall* best = nullptr;
    for (const Shortfall& s : shortfalls_) {
        if (s.from + 1 > to || s.to + 1 < from)
            continue;
        const auto off = [&](const Shortfall& x) {
            return x.packets > 0 ? std::abs(x.packets - packets) : packets / 4;
        };
        if (best == nullptr || off(s) < off(*best))
            best = &s;
    }
    return best;
}

void Losses::forget(const Place& now) {
    while (!intervals_.empty() && intervals_.front().end_time + kept < now.time &&
           (breaks_.empty() ||
            intervals_.front().to.at.index <= breaks_.begin()->second.fault.before.index))
        intervals_.pop_front();
    while (intervals_.size() > 4096)
        intervals_.pop_front();
}

std::uint64_t Losses::lost(std::uint16_t pid) const {
    const auto t = traffic_.find(pid);
    return t == traffic_.end() ? 0 : t->second.lost;
}

} // namespace quarn
