#include "deviations.h"

#include <utility>

namespace quarn {

void Deviations::is(const Thing& thing, Deviation&& deviation) {
    const auto [at, begins] = active_.try_emplace(thing);
    Active& active = at->second;
    if (!begins)
        deviation.begin = active.is.begin;
    active.is = std::move(deviation);
}

bool Deviations::counts(const Deviation& deviation, const Place& to) const {
    if (deviation.patience == 0)
        return true;
    const auto lasts = clock_.distance(deviation.begin, to);
    return lasts && *lasts > deviation.patience;
}

Finding Deviations::make(const Deviation& deviation, const Place& to) const {
    Finding f;
    f.rule = Rule::unexpected;
    f.severity = info(f.rule).severity;
    f.shape = Shape::interval;
    f.programs = deviation.programs;
    f.pid = deviation.pid;
    f.begin = deviation.begin;
    f.end = to;
    f.detail.changes = {deviation.change};
    if (const auto lasts = clock_.distance(deviation.begin, to))
        f.detail.interval_ms = milliseconds(*lasts);
    if (deviation.patience > 0)
        f.detail.limit_ms = milliseconds(deviation.patience);
    return f;
}

void Deviations::close(Active& active, const Place& place, bool open) {
    if (!output_.raised(active.id) && !counts(active.is, place)) {
        output_.withdraw(active.id);
        return;
    }
    Finding f = make(active.is, place);
    f.id = active.id;
    f.open = open;
    output_.finding(std::move(f));
}

void Deviations::end(const Thing& thing, const Place& place, bool open) {
    const auto at = active_.find(thing);
    if (at == active_.end())
        return;
    close(at->second, place, open);
    active_.erase(at);
}

void Deviations::look(const Place& now) {
    for (auto& [thing, active] : active_) {
        if (!counts(active.is, now))
            continue;
        if (active.id == 0)
            active.id = output_.new_id();
        Finding f = make(active.is, now);
        f.id = active.id;
        output_.going_on(std::move(f));
    }
}

void Deviations::finish(const Place& end) {
    for (auto& [thing, active] : active_) {
        undecided_ = undecided_ || !counts(active.is, end);
        close(active, end, true);
    }
    active_.clear();
}

} // namespace quarn
