// For how long pids carry packets that no table speaks of.
#include "unreferenced.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace quarn {

namespace {

constexpr std::uint16_t reserved_end = 0x20; // pids below belong to tables
constexpr std::uint16_t atsc_base_pid = 0x1FFB;
// A pid that is silent for longer begins anew.
constexpr Ticks quiet = 5 * ticks_per_second;

std::bitset<pid_count> pids_of(const Programs& programs) {
    std::bitset<pid_count> pids;
    for (std::size_t pid = 0; pid < reserved_end; ++pid)
        pids.set(pid);
    pids.set(atsc_base_pid);
    pids.set(null_pid);
    const auto set_all = [&](const auto& some) {
        for (const std::uint16_t pid : some)
            pids.set(pid);
    };
    set_all(programs.cat_pids);
    if (programs.network_pid)
        pids.set(*programs.network_pid);
    for (const Program& program : programs.programs) {
        pids.set(program.pmt_pid);
        pids.set(program.pcr_pid);
        set_all(program.ca_pids);
        for (const ElementaryStream& stream : program.streams)
            pids.set(stream.pid);
    }
    return pids;
}

} // namespace

void Unreferenced::programs(const ProgramsPtr& programs, const Place& place) {
    clock_.see(place);
    const bool was_complete = std::exchange(complete_, programs->complete());
    was_complete_ = was_complete_ || complete_;
    if (complete_ && !was_complete)
        since_ = place;
    if (was_complete && !complete_)
        end_judged(place);
    referenced_ = pids_of(*programs);
    std::erase_if(stays_, [&](const auto& entry) {
        const bool over = !complete_ || referenced_[entry.first];
        if (over)
            leave(entry.first, entry.second, false);
        return over;
    });
}

void Unreferenced::seen(std::uint16_t pid, const Place& first, const Place& last) {
    if (!complete_ || referenced_[pid] || last.packet < since_.packet)
        return;
    clock_.see(last);
    const Place& begin = first.packet < since_.packet ? last : first;
    const auto [entry, fresh] = stays_.try_emplace(pid, Stay{begin, last});
    Stay& stay = entry->second;
    if (!fresh && clock_.distance(stay.last, begin).value_or(0) > quiet) {
        leave(pid, stay, false);
        stay = {begin, last, 0};
    }
    stay.last = last;
}

void Unreferenced::advance(const Place& now) {
    clock_.see(now);
}

void Unreferenced::end_judged(const Place& place) {
    judged_ = std::max(judged_, clock_.distance(since_, place).value_or(0));
}

bool Unreferenced::too_long(const Stay& stay) const {
    return clock_.distance(stay.first, stay.last).value_or(0) > options_.limits.unreferenced;
}

void Unreferenced::leave(std::uint16_t pid, const Stay& stay, bool open) {
    if (too_long(stay) || output_.raised(stay.interval))
        output_.finding(make(pid, stay, open));
}

void Unreferenced::look(const Place& now) {
    for (auto entry = stays_.begin(); entry != stays_.end();) {
        auto& [pid, stay] = *entry;
        const bool over = clock_.distance(stay.last, now).value_or(0) > quiet;
        if (over) {
            leave(pid, stay, false);
        } else if (too_long(stay)) {
            if (stay.interval == 0)
                stay.interval = output_.new_id();
            output_.going_on(make(pid, stay, false));
        }
        entry = over ? stays_.erase(entry) : std::next(entry);
    }
}

void Unreferenced::anew(const Place& before, const Place& at) {
    clock_.see(before);
    if (complete_)
        end_judged(before);
    for (auto& [pid, stay] : stays_)
        leave(pid, stay, true);
    stays_.clear();
    since_ = at;
}

Finding Unreferenced::make(std::uint16_t pid, const Stay& stay, bool open) const {
    Finding f;
    f.rule = Rule::unreferenced_pid;
    f.severity = info(f.rule).severity;
    f.shape = Shape::interval;
    f.open = open;
    f.pid = pid;
    f.begin = stay.first;
    f.end = stay.last;
    f.id = stay.interval;
    return f;
}

void Unreferenced::finish(const Place& end) {
    clock_.see(end);
    if (complete_)
        end_judged(end);
    for (auto& [pid, stay] : stays_) {
        if (!too_long(stay) && !output_.raised(stay.interval))
            continue;
        const bool open =
            clock_.distance(stay.last, end).value_or(0) <= options_.limits.unreferenced;
        if (open)
            stay.last = end;
        leave(pid, stay, open);
    }
    stays_.clear();
}

void Unreferenced::judge(Judgement& judgement) const {
    if (!clock_.runs())
        judgement.no(Rule::unreferenced_pid, "no clock");
    else if (!was_complete_)
        judgement.no(Rule::unreferenced_pid, "not all tables came");
    else if (judged_ < options_.limits.unreferenced)
        judgement.no(Rule::unreferenced_pid, "shorter than its limit");
    else
        judgement.yes(Rule::unreferenced_pid);
}

} // namespace quarn
