#include "clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks look_ahead = 600 * ticks_per_ms;   // until what broke in an interval is known
constexpr Ticks silence = ticks_per_second;        // without a PCR: another pid, or estimates
constexpr Ticks silence_live = 500 * ticks_per_ms; // the same, until there are estimates
constexpr Ticks bridge_step = 100 * ticks_per_ms;
constexpr Ticks arrival_step = 10 * ticks_per_ms;
constexpr std::uint64_t blind = 10'000;        // packets instead of a second where there is no rate
constexpr std::uint64_t longest_hold = 20'000; // packets
constexpr std::uint64_t longest_wait = 500'000; // packets: a second of 750 Mbit/s
constexpr std::size_t points_to_choose = 41;
constexpr std::size_t segments_kept = 1024;
constexpr std::size_t segments_kept_live = 512;
constexpr std::size_t gaps_kept = 16;
constexpr std::size_t notes_kept_live = 4096; // of what broke
// Live: what is not known by then is decided without.
constexpr Ticks longest_look = 700 * ticks_per_ms;
constexpr Ticks longest_hold_live = ticks_per_second;
constexpr Ticks bridge_at_most = 60 * ticks_per_second; // the drift of two clocks grows
constexpr Ticks clear_jump = 30 * ticks_per_ms;
constexpr Ticks flagged_jump = ticks_per_ms;
constexpr Ticks longest_loss = 3 * ticks_per_second;
constexpr std::uint64_t datagram = 7; // packets
constexpr double whole_packets = 72;  // up to here packets without a break, beyond it a jump

template <class T>
auto in_range(const T& d, std::uint64_t from, std::uint64_t to) {
    return d.from < to && d.to > from;
}
} // namespace

StreamClock::StreamClock(std::uint64_t bitrate, Ticks pcr_limit, bool live)
    : bitrate_(bitrate), pcr_limit_(pcr_limit), live_(live), rate_(live) {}

// ---------------------------------------------------------------- which pid

void StreamClock::programs(const ProgramsPtr& programs, const At& at) {
    programs_ = programs;
    if (source_ == ClockSummary::Source::none) {
        choose(at, false);
        return;
    }
    if (source_ != ClockSummary::Source::pcr)
        return;
    if (programs_->is_pcr_pid(pid_)) {
        announced_ = true;
        return;
    }
    if (!announced_ || !programs_->complete())
        return;
    for (const Program& p : programs_->programs)
        if (p.pcr_pid != null_pid) {
            pid_ = p.pcr_pid; // its first PCR tells
            moving_ = true;
            return;
        }
}

// The PCR pid of the lowest program that has PCRs. Until things have settled the PMTs that are
// missing may name a lower one.
std::optional<std::uint16_t> StreamClock::announced_choice(bool settled) const {
    if (!programs_ || (!settled && !programs_->complete()))
        return std::nullopt;
    for (const Program& p : programs_->programs) {
        if (!p.pmt_in_force || p.pcr_pid == null_pid)
            continue;
        const auto c = candidates_.find(p.pcr_pid);
        if (c != candidates_.end() && c->second.count >= 2)
            return p.pcr_pid;
        if (!settled)
            return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::uint16_t> StreamClock::busiest_choice() const {
    std::optional<std::uint16_t> best;
    std::uint64_t most = 1;
    for (const auto& [pid, c] : candidates_)
        if (c.count > most) {
            best = pid;
            most = c.count;
        }
    return best;
}

void StreamClock::choose(const At& at, bool at_end) {
    if (const auto pid = announced_choice(false))
        return start(*pid);
    bool settled = at_end || at.index >= blind;
    for (const auto& [pid, c] : candidates_)
        settled = settled || (c.count > 2 &&
                              clock_distance(c.points.front().pcr.value, c.points.back().pcr.value,
                                             pcr_wrap) >= ticks_per_second);
    if (!settled)
        return;
    if (const auto pid = announced_choice(true))
        return start(*pid);
    if (const auto pid = busiest_choice())
        return start(*pid);
}

void StreamClock::start(std::uint16_t pid) {
    source_ = ClockSummary::Source::pcr;
    pid_ = pid;
    announced_ = programs_ && programs_->is_pcr_pid(pid);
    for (auto& [other, candidate] : candidates_) {
        std::deque<Point> points = std::move(candidate.points);
        candidate.points.clear();
        if (other == pid)
            for (const Point& p : points)
                add_point(p.pcr);
        candidate.points.push_back(points.back());
    }
}

void StreamClock::pcr(const PcrPoint& pcr) {
    Candidate& candidate = candidates_[pcr.pid];
    ++candidate.count;
    if (source_ == ClockSummary::Source::none) {
        candidate.points.push_back({pcr});
        if (candidate.points.size() > longest_hold / 10)
            candidate.points.pop_front();
        choose(pcr.at, false);
        return;
    }
    if (candidate.points.empty() ||
        pcr.at.index - candidate.points.back().pcr.at.index > packets_in(silence) / 2)
        candidate.since = pcr.at.index;
    candidate.points.assign(1, {pcr});
    if (live_ && source_ == ClockSummary::Source::arrival && candidate.count >= 2)
        leave_arrival(pcr.pid);
    if (pcr.pid == pid_ && source_ == ClockSummary::Source::pcr)
        add_point(pcr);
}

void StreamClock::add_point(const PcrPoint& pcr) {
    if (!points_.empty() && !points_.back().bridge && !moving_ && !pcr.flagged) {
        const ClockInterval i = measure(points_.back().pcr, pcr);
        if (!i.disturbed && i.distance > 0 && i.distance < 2 * ticks_per_second)
            rate_.add(i.packets, i.packets - i.added, i.distance);
    }
    append({pcr, false, moving_ && !afresh_, afresh_});
    moving_ = afresh_ = false;
    last_pcr_arrival_ = pcr.arrival;
}

void StreamClock::append(Point point) {
    if (!points_.empty()) {
        const Point& last = points_.back();
        const Ticks step = clock_distance(last.pcr.value, point.pcr.value, pcr_wrap);
        const bool flows = step > 0 && step < ticks_per_second && !point.moved;
        point.flow = last.flow + (flows ? step : 0);
    }
    points_.push_back(point);
}

// Live: there were no PCRs, but now they have begun.
void StreamClock::leave_arrival(std::uint16_t pid) {
    if (announced_choice(true) != pid && programs_ && programs_->complete())
        return;
    source_ = ClockSummary::Source::pcr;
    pid_ = pid;
    announced_ = programs_ && programs_->is_pcr_pid(pid);
    afresh_ = true;
    rate_.anew();
}

// ---------------------------------------------------------------- where PCRs are missing

void StreamClock::tick(const At& at, Ticks arrival, Ticks frames) {
    if (source_ == ClockSummary::Source::none) {
        early_.emplace_back(at, arrival);
        choose(at, false);
        if (first_arrival_ == no_time)
            first_arrival_ = arrival;
        const bool late = live_ && first_arrival_ != no_time && now_arrival_ != no_time &&
                          now_arrival_ - first_arrival_ >= silence;
        if (source_ == ClockSummary::Source::none && (at.index >= blind || late))
            do_without_pcrs();
        else if (source_ != ClockSummary::Source::none)
            early_.clear();
        return;
    }
    if (source_ == ClockSummary::Source::pcr)
        replace_or_bridge(at, arrival, frames);
    else
        steady_source(at, arrival, arrival_step);
}

// No pid has PCRs: arrival tells the time, else the bit rate that was given, else nothing.
void StreamClock::do_without_pcrs() {
    if (!early_.empty() && early_.back().second != no_time)
        source_ = ClockSummary::Source::arrival;
    else if (bitrate_ > 0)
        source_ = ClockSummary::Source::bitrate;
    for (const auto& [at, arrival] : early_)
        if (source_ != ClockSummary::Source::none)
            steady_source(at, arrival, arrival_step);
    early_.clear();
}

void StreamClock::replace_or_bridge(const At& at, Ticks arrival, Ticks frames) {
    if (points_.empty() || held_)
        return;
    const Point& last = points_.back();
    const std::uint64_t since = at.index - last.pcr.at.index;
    if (rate_.constant() || (arrival != no_time && last.pcr.arrival != no_time))
        frames = 0; // there is better
    if (!last.bridge)
        bridged_time_ = 0;
    const std::optional<Ticks> without = since_last_pcr(arrival);
    if (!last.bridge && without ? *without < silence_live
                                : !last.bridge && frames < silence &&
                                      since < std::min(packets_in(silence), 2 * longest_wait))
        return;
    const bool may_move = programs_ && (!without || *without >= silence);
    for (const Program& p : may_move ? programs_->programs : std::vector<Program>{}) {
        const auto c = candidates_.find(p.pcr_pid);
        if (p.pcr_pid == pid_ || c == candidates_.end() || c->second.points.empty())
            continue;
        // Behind an outage of all pids another one may be back first.
        if (at.index - c->second.points.back().pcr.at.index < packets_in(silence) / 2 &&
            at.index - c->second.since > packets_in(silence) / 4) {
            pid_ = p.pcr_pid;
            moving_ = true;
            return;
        }
    }
    if (frames > 0 && frames - bridged_time_ >= bridge_step)
        bridge(at, arrival, frames - bridged_time_);
    else if (without ? arrival - last.pcr.arrival >= bridge_step
                     : frames == 0 && since >= packets_in(bridge_step))
        bridge(at, arrival, std::nullopt);
}

// By arrival, for live inputs.
std::optional<Ticks> StreamClock::since_last_pcr(Ticks arrival) const {
    if (!live_ || arrival == no_time || last_pcr_arrival_ == no_time ||
        points_.back().pcr.arrival == no_time)
        return std::nullopt;
    return arrival - last_pcr_arrival_;
}

void StreamClock::pause(const At& last, Ticks arrival) {
    tick(last, arrival, 0);
    if (points_.empty() || held_ || last.index <= points_.back().pcr.at.index)
        return;
    if (source_ == ClockSummary::Source::pcr)
        bridge(last, arrival, std::nullopt);
    else
        steady_source(last, arrival, 0);
}

void StreamClock::anew(const At& at, Ticks arrival, bool standing) {
    if (source_ == ClockSummary::Source::none) {
        candidates_.clear();
        early_.clear();
        return;
    }
    disturbances_.push_back(
        {null_pid, at.index - std::min<std::uint64_t>(at.index, 1), at.index, 1});
    afresh_ = source_ == ClockSummary::Source::pcr;
    last_pcr_arrival_ = arrival;
    if (points_.empty() || at.index <= points_.back().pcr.at.index)
        return;
    if (standing)
        bridge(at, arrival, 0);
    else if (rate_.known())
        bridge(at, arrival, std::nullopt);
}

void StreamClock::bridge(const At& at, Ticks arrival, std::optional<Ticks> value_step) {
    Point next = points_.back();
    if (!value_step) {
        const bool by_arrival = arrival != no_time && next.pcr.arrival != no_time;
        value_step = by_arrival
                         ? arrival - next.pcr.arrival
                         : static_cast<Ticks>(static_cast<double>(at.index - next.pcr.at.index) *
                                              rate_.ticks_per_packet());
    }
    bridged_time_ += *value_step;
    next.pcr.value = (next.pcr.value + *value_step) % pcr_wrap;
    next.pcr.at = at;
    next.pcr.arrival = arrival;
    next.pcr.flagged = false;
    next.bridge = true;
    next.moved = false;
    append(next);
}

// `least`: of what is worth a point.
void StreamClock::steady_source(const At& at, Ticks arrival, Ticks least) {
    const bool arrives = source_ == ClockSummary::Source::arrival;
    if (arrives && arrival == no_time)
        return;
    const auto by_rate = [&](std::uint64_t packets) {
        return static_cast<Ticks>(static_cast<double>(packets) * 8 * packet_size *
                                  ticks_per_second / static_cast<double>(bitrate_));
    };
    if (points_.empty()) {
        Point first;
        first.pcr.at = at;
        first.pcr.arrival = arrival;
        first.bridge = true;
        append(first);
        held_ = false;
        return;
    }
    const Point& last = points_.back();
    const Ticks step = arrives ? arrival - last.pcr.arrival : by_rate(at.index - last.pcr.at.index);
    if (step < least)
        return;
    rate_.add(at.index - last.pcr.at.index, at.index - last.pcr.at.index, step);
    bridge(at, arrival, step);
}

void StreamClock::finish(const At& last, Ticks arrival, Ticks frames) {
    tick(last, arrival, frames);
    if (source_ == ClockSummary::Source::none)
        choose(last, true);
    if (source_ == ClockSummary::Source::none) {
        early_.emplace_back(last, arrival);
        do_without_pcrs();
        return;
    }
    if (points_.empty() || last.index <= points_.back().pcr.at.index)
        return;
    if (held_) {
        held_ = false;
        rate_.decide_now();
    }
    if (!points_.back().bridge)
        bridged_time_ = 0;
    if (!rate_.constant() && frames - bridged_time_ > bridge_step)
        bridge(last, arrival, frames - bridged_time_);
    else if (rate_.known())
        bridge(last, arrival, std::nullopt);
}

// ---------------------------------------------------------------- what broke

void StreamClock::disturbed(std::uint16_t pid, std::uint64_t from, std::uint64_t to,
                            unsigned packets) {
    disturbances_.push_back({pid, from, to, packets});
}

void StreamClock::out_of_order(std::uint64_t from, std::uint64_t to) {
    swaps_.emplace_back(from, to);
    if (swaps_.size() > 64)
        swaps_.pop_front();
}

void StreamClock::added(const At& at, unsigned packets) {
    added_.emplace_back(at.index, packets);
}

void StreamClock::nulls(std::uint64_t from, std::uint64_t to) {
    nulls_.emplace_back(from, to);
}

// A PCR that changed places with its neighbours says nothing about either side of it.
bool StreamClock::swapped_beside(std::uint64_t from, std::uint64_t to) const {
    return std::any_of(swaps_.begin(), swaps_.end(), [&](const auto& s) {
        return s.first <= to + datagram && s.second + datagram >= from;
    });
}

bool StreamClock::disturbed_between(std::uint64_t from, std::uint64_t to) const {
    return std::any_of(disturbances_.begin(), disturbances_.end(),
                       [&](const Disturbance& d) { return in_range(d, from, to); });
}

// Most of the time between two PCRs lies between two packets of a pid whose counter broke.
bool StreamClock::mostly_broken(const ClockInterval& i) const {
    std::uint64_t longest = 0;
    for (const Disturbance& d : disturbances_)
        if (in_range(d, i.from.at.index, i.to.at.index))
            longest = std::max(longest,
                               std::min(d.to, i.to.at.index) - std::max(d.from, i.from.at.index));
    return longest * 2 > i.packets;
}

// PCRs may have come in time before and behind packets of the pid that are lost.
bool StreamClock::has_hole(const ClockInterval& i) const {
    const auto most = static_cast<double>(pcr_limit_) / rate_.ticks_per_packet();
    const auto in_time = [most](std::uint64_t from, std::uint64_t to) {
        return from >= to || static_cast<double>(to - from) <= most;
    };
    return std::any_of(disturbances_.begin(), disturbances_.end(), [&](const Disturbance& d) {
        return in_range(d, i.from.at.index, i.to.at.index) &&
               (d.pid == i.to.pid || d.pid == null_pid) && in_time(i.from.at.index, d.from) &&
               in_time(d.to, i.to.at.index);
    });
}

unsigned StreamClock::missing_between(std::uint64_t from, std::uint64_t to) const {
    unsigned sum = 0;
    for (const Disturbance& d : disturbances_)
        if (in_range(d, from, to))
            sum += d.packets;
    return sum;
}

std::uint64_t StreamClock::torn_at(std::uint64_t from, std::uint64_t to) const {
    for (const Disturbance& d : disturbances_)
        if (d.to > from && d.to <= to)
            return d.to;
    return 0;
}

std::uint64_t StreamClock::added_between(std::uint64_t from, std::uint64_t to) const {
    std::uint64_t sum = 0;
    for (const auto& [index, packets] : added_)
        if (index > from && index <= to)
            sum += packets;
    return sum;
}

Ticks StreamClock::longest_nulls(std::uint64_t from, std::uint64_t to) const {
    std::uint64_t longest = 0;
    for (const auto& [a, b] : nulls_)
        if (a < to && b > from)
            longest = std::max(longest, std::min(b, to) - std::max(a, from));
    return static_cast<Ticks>(static_cast<double>(longest) * rate_.ticks_per_packet());
}

void StreamClock::forget_before(std::uint64_t index) {
    const std::uint64_t keep = packets_in(4 * ticks_per_second);
    const std::uint64_t old = index > keep ? index - keep : 0;
    while (!disturbances_.empty() && disturbances_.front().to < old)
        disturbances_.pop_front();
    while (!added_.empty() && added_.front().first < old)
        added_.pop_front();
    while (!nulls_.empty() && nulls_.front().second < old)
        nulls_.pop_front();
    while (segments_.size() > (live_ ? segments_kept_live : segments_kept))
        segments_.pop_front();
    const auto shorten = [&](auto& notes) {
        while (live_ && notes.size() > notes_kept_live)
            notes.pop_front();
    };
    shorten(disturbances_);
    shorten(added_);
    shorten(nulls_);
}

// ---------------------------------------------------------------- intervals

std::uint64_t StreamClock::packets_in(Ticks ticks) const {
    if (!rate_.known())
        return static_cast<std::uint64_t>(static_cast<double>(blind) * static_cast<double>(ticks) /
                                          ticks_per_second);
    const double tpp =
        rate_.constant() ? rate_.ticks_per_packet() : rate_.fewest_ticks_per_packet();
    return static_cast<std::uint64_t>(static_cast<double>(ticks) / tpp) + 1;
}

bool StreamClock::passed(std::uint64_t since, const At& now, Ticks time) const {
    if (now.index >= since + std::min(packets_in(time), longest_wait))
        return true;
    const auto first = std::partition_point(points_.begin(), points_.end(),
                                            [&](const Point& p) { return p.pcr.at.index < since; });
    return first != points_.end() && points_.back().flow - first->flow >= time;
}

bool StreamClock::ready(const At& last, bool at_end) {
    if (source_ == ClockSummary::Source::none && at_end)
        choose(last, true);
    if (points_.empty())
        return false;
    if (held_) {
        const bool enough = points_.size() >= points_to_choose ||
                            last.index - points_.front().pcr.at.index > longest_hold ||
                            has_waited(points_.front().pcr, longest_hold_live);
        if (!enough && !at_end)
            return false;
        held_ = false;
        if (rate_.known() || points_.size() > 1)
            rate_.decide_now();
    }
    if (points_.size() < 2)
        return false;
    return at_end || passed(points_[1].pcr.at.index, last, look_ahead) ||
           has_waited(points_[1].pcr, longest_look);
}

bool StreamClock::has_waited(const PcrPoint& point, Ticks time) const {
    return live_ && now_arrival_ != no_time && point.arrival != no_time &&
           now_arrival_ - point.arrival >= time;
}

ClockInterval StreamClock::measure(const PcrPoint& from, const PcrPoint& to) const {
    ClockInterval i;
    i.from = from;
    i.to = to;
    i.distance = clock_distance(from.value, to.value, pcr_wrap);
    i.packets = to.at.index - from.at.index;
    i.added = std::min(added_between(from.at.index, to.at.index), i.packets);
    i.disturbed = disturbed_between(from.at.index, to.at.index);
    i.nulls = longest_nulls(from.at.index, to.at.index) > 0;
    return i;
}

std::optional<ClockInterval> StreamClock::next(const At& last, bool at_end) {
    if (!ready(last, at_end))
        return std::nullopt;
    const Point from = points_[0];
    const Point to = points_[1];
    if (segments_.empty() && known_to_ == 0 &&
        from.pcr.at.index > 0) { // the time before the first point
        const double tpp = rate_.ticks_per_packet();
        now_ = static_cast<Ticks>(static_cast<double>(from.pcr.at.index) * tpp);
        segments_.push_back({0, from.pcr.at.index, 0, now_, 0, tpp, !even()});
        last_real_time_ = now_;
    }
    // A PCR again, behind estimates.
    const bool too_long = live_ && bridged_ && now_ - last_real_time_ > bridge_at_most;
    const bool anew = !to.bridge && (to.anew || (too_long && !to.moved));
    const bool whole = bridged_ && !to.bridge && !to.moved && !anew;
    ClockInterval i = measure(whole ? last_real_ : from.pcr, to.pcr);
    i.constant = rate_.constant();
    const double tpp = rate_.ticks_per_packet();
    i.error = static_cast<double>(i.distance) - static_cast<double>(i.packets) * tpp;
    const double fewer =
        static_cast<double>(i.distance) - static_cast<double>(i.packets - i.added) * tpp;
    if (std::abs(fewer) < std::abs(i.error))
        i.error = fewer;
    if (to.bridge)
        i.stretch = Stretch::bridged;
    else if (to.moved)
        i.stretch = Stretch::moved;
    else if (anew)
        begin_anew(i);
    else
        decide(i);
    if (i.stretch == Stretch::gap) {
        gaps_.push_back(i.distance);
        if (gaps_.size() > gaps_kept)
            gaps_.pop_front();
    }
    keep(i, from, to);
    points_.pop_front();
    return i;
}

// The two values need not have to do with each other.
void StreamClock::begin_anew(ClockInterval& i) const {
    i.stretch = Stretch::anew;
    i.disturbed = true;
    i.error = 0;
    const bool arrived = i.from.arrival != no_time && i.to.arrival != no_time;
    i.distance = arrived ? i.to.arrival - i.from.arrival : 0;
}

void StreamClock::decide(ClockInterval& i) const {
    if (swapped_beside(i.from.at.index, i.to.at.index) &&
        std::abs(i.error) < static_cast<double>(ticks_per_second)) {
        i.stretch = Stretch::lost;
        i.disturbed = i.swapped = true;
        return;
    }
    if (i.constant)
        decide_constant(i);
    else
        decide_variable(i);
    if (i.stretch == Stretch::jump || i.stretch == Stretch::flagged)
        i.step = i.distance - elapsed(i);
}

void StreamClock::decide_constant(ClockInterval& i) const {
    const double tpp = rate_.ticks_per_packet();
    if (i.to.flagged) {
        if (std::abs(i.error) > flagged_jump)
            i.stretch = Stretch::flagged;
        else if (i.distance > pcr_limit_)
            i.stretch = Stretch::gap;
        return;
    }
    const double whole = std::round(i.error / tpp);
    const bool few =
        whole > 0 && whole <= whole_packets &&
        std::abs(i.error - whole * tpp) < std::min<double>(80e-6 * ticks_per_second, tpp / 4);
    const bool explained =
        i.disturbed && i.error > 0 && i.error < static_cast<double>(longest_loss);
    if (std::abs(i.error) > clear_jump && !explained && !few)
        i.stretch = Stretch::jump;
    else if ((explained && i.error > tpp / 4) || few)
        i.stretch = Stretch::lost;
    else if (i.distance > pcr_limit_) // its packets may have been taken away and the places filled
        i.stretch = mostly_broken(i) || has_hole(i) ? Stretch::lost : Stretch::gap;
}

// No rate to lean on: the frames that began say how long it was.
void StreamClock::decide_variable(ClockInterval& i) const {
    const Ticks limit = std::min(pcr_limit_, 100 * ticks_per_ms);
    if (i.distance > 0 && i.distance <= limit)
        return;
    const Ticks usual = rate_.usual_distance();
    const auto by_packets =
        static_cast<Ticks>(static_cast<double>(i.packets) * rate_.ticks_per_packet());
    const Ticks went_on = i.from.pid == i.to.pid && i.to.frames ? *i.to.frames : by_packets;
    const Ticks frame = std::max<Ticks>(i.to.frame, 20 * ticks_per_ms);
    const Ticks off = i.distance - went_on;
    const bool as_frames =
        std::abs(off) <= std::max({frame * 5 / 2, i.distance * 35 / 100, usual * 11 / 10});
    const bool jumps = i.distance < 0 || off > std::max(3 * frame, usual * 3 / 2);
    if (i.to.flagged) {
        i.stretch = jumps ? Stretch::flagged : Stretch::gap;
        return;
    }
    const bool dark = longest_nulls(i.from.at.index, i.to.at.index) > 300 * ticks_per_ms;
    const bool torn =
        i.disturbed &&
        (!as_frames || has_hole(i) ||
         i.distance <=
             usual * static_cast<Ticks>(missing_between(i.from.at.index, i.to.at.index) + 2));
    if (i.distance > 0 && i.distance < longest_loss && (dark || torn))
        i.stretch = Stretch::lost;
    else if (i.distance > 0 && as_frames)
        i.stretch = Stretch::gap;
    else
        i.stretch = jumps && !usual_gap(i.distance) ? Stretch::jump : Stretch::gap;
}

// Where pictures come at changing distances, and PCRs with them, there were others like it.
bool StreamClock::usual_gap(Ticks distance) const {
    constexpr std::ptrdiff_t often = 3;
    return distance > 0 && often <= std::count_if(gaps_.begin(), gaps_.end(), [&](Ticks gap) {
                               return gap >= distance * 2 / 3;
                           });
}

Ticks StreamClock::elapsed(const ClockInterval& i) const {
    const auto by_packets =
        static_cast<Ticks>(static_cast<double>(i.packets) * rate_.ticks_per_packet());
    switch (i.stretch) {
    case Stretch::jump:
    case Stretch::flagged:
        if (i.constant)
            return by_packets;
        return std::max(
            {i.to.frames.value_or(0), std::min(by_packets, 200 * ticks_per_ms), ticks_per_ms});
    case Stretch::moved:
        return by_packets;
    default:
        return i.distance > 0 ? i.distance : by_packets;
    }
}

void StreamClock::keep(ClockInterval& i, const Point& from, const Point& to) {
    const bool whole = i.from.at.index != from.pcr.at.index;
    const Ticks begin = whole ? last_real_time_ : now_;
    const double tpp = rate_.ticks_per_packet();
    const Ticks owed = std::exchange(owed_, 0);
    Ticks length = elapsed(i) + owed;
    if (i.constant && i.swapped) { // packets lie at equal distances all the same
        length = static_cast<Ticks>(static_cast<double>(i.packets) * tpp);
        owed_ = owed + i.distance - length;
    }
    i.begin_time = begin;
    i.end_time = std::max(begin + length, now_);
    // At a variable rate packets lie where they may: only a long hole is one.
    const double hole = i.constant ? tpp / 2 : 200.0 * ticks_per_ms;
    const bool torn = i.stretch == Stretch::lost && !i.swapped && i.error > hole;
    const bool guessed = to.bridge && source_ == ClockSummary::Source::pcr && !i.constant &&
                         to.pcr.arrival == no_time;
    segments_.push_back({from.pcr.at.index, to.pcr.at.index, now_, i.end_time,
                         torn ? torn_at(from.pcr.at.index, to.pcr.at.index) : 0, tpp, guessed});
    now_ = i.end_time;
    known_to_ = to.pcr.at.index;
    if (!guessed)
        sure_ = to.pcr.at;
    if (!to.bridge) {
        last_real_ = to.pcr;
        last_real_time_ = now_;
    } else if (!from.bridge) {
        last_real_ = from.pcr;
        last_real_time_ = i.begin_time;
    }
    bridged_ = to.bridge && source_ == ClockSummary::Source::pcr;
    if (i.stretch == Stretch::jump || i.stretch == Stretch::flagged || i.stretch == Stretch::moved)
        rate_.new_segment();
    forget_before(from.pcr.at.index);
}

// ---------------------------------------------------------------- times

// Packets lie at equal distances everywhere: that is found out, or given.
bool StreamClock::even() const {
    return rate_.constant() || source_ == ClockSummary::Source::bitrate;
}

Place StreamClock::place(const At& at) const {
    Place p;
    p.packet = at.index + 1;
    p.byte = at.byte;
    p.utc_us = at.utc_us;
    if (segments_.empty()) {
        if (source_ != ClockSummary::Source::none && rate_.known())
            p.time = static_cast<Ticks>(static_cast<double>(at.index) * rate_.ticks_per_packet());
        p.estimated = !even();
        return p;
    }
    // Most look-ups are of the last ones.
    const auto near = segments_.size() > 4 ? segments_.end() - 4 : segments_.begin();
    const auto s =
        std::partition_point(near->to < at.index ? near : segments_.begin(), segments_.end(),
                             [&](const Segment& x) { return x.to < at.index; });
    const auto ticks = [](double x) { // as llround(), of what is never negative, without a call
        const auto whole = static_cast<Ticks>(x);
        return x - static_cast<double>(whole) >= 0.5 ? whole + 1 : whole;
    };
    if (s == segments_.end()) {
        const Segment& last = segments_.back();
        p.time =
            last.end + ticks(static_cast<double>(at.index - last.to) * rate_.ticks_per_packet());
        p.estimated = !even();
        return p;
    }
    if (at.index < s->from) { // older than what is kept
        p.time = s->begin;
        p.estimated = true;
        return p;
    }
    p.estimated = s->estimated;
    const auto into = static_cast<double>(at.index - s->from);
    const auto left = static_cast<double>(s->to - at.index);
    if (s->torn != 0) {
        const Ticks before = std::min(s->begin + ticks(into * s->ticks_per_packet), s->end);
        const Ticks behind = std::max(s->end - ticks(left * s->ticks_per_packet), s->begin);
        p.time = at.index < s->torn ? before : std::max(behind, before);
    } else {
        p.time = s->begin +
                 ticks(static_cast<double>(s->end - s->begin) * into / std::max(into + left, 1.0));
    }
    return p;
}

std::optional<std::uint16_t> StreamClock::pid() const {
    return source_ == ClockSummary::Source::pcr ? std::optional(pid_) : std::nullopt;
}

ClockSummary StreamClock::summary() const {
    return {source_, pid(), announced_, even()};
}

std::optional<Ticks> StreamClock::duration() const {
    return has_clock() ? std::optional(now_) : std::nullopt;
}

} // namespace quarn
