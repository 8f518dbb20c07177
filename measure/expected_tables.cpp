#include "expected_tables.h"

#include <algorithm>

#include "psi.h"

namespace quarn {

ExpectedTables::ExpectedTables(const Expectation& expected, const SureClock& clock,
                               Deviations& deviations)
    : clock_(clock), deviations_(deviations), expected_(expected) {
    for (const Expectation::Table& t : expected.tables)
        if (t.interval > 0)
            watches_.push_back({watches_.size(),
                                t.id,
                                t.pid,
                                t.interval,
                                -1,
                                t.optional,
                                !t.optional,
                                false,
                                {},
                                false});
    for (const Expectation::Service& s : expected.services)
        if (s.pmt_interval > 0) // from the first one on: before it the service is missing
            watches_.push_back({watches_.size(),
                                table_id::pmt,
                                {},
                                s.pmt_interval,
                                s.number,
                                true,
                                false,
                                false,
                                {},
                                false});
}

void ExpectedTables::start(const Place& first) {
    for (Watch& watch : watches_)
        watch.last = first;
}

void ExpectedTables::programs(const ProgramsPtr& programs, const Place& place) {
    programs_ = programs;
    for (Watch& watch : watches_) {
        if (watch.program < 0)
            continue;
        const Program* const p = programs->program(static_cast<std::uint16_t>(watch.program));
        if (p != nullptr && p->pmt_in_force)
            continue;
        deviations_.is_not(thing(watch), place);
        watch.on = false;
    }
}

bool ExpectedTables::is_it(const Watch& watch, const SectionEvent& section) const {
    if (watch.id != section.table_id)
        return false;
    if (watch.program < 0)
        return watch.pid.contains(section.pid);
    const Program* const p =
        programs_ ? programs_->program(static_cast<std::uint16_t>(watch.program)) : nullptr;
    return p != nullptr && section.extension == watch.program && p->pmt_pid == section.pid;
}

bool ExpectedTables::late(const Watch& watch, const Place& now) const {
    return watch.on && clock_.distance(watch.last, now).value_or(0) > watch.interval;
}

void ExpectedTables::missing(Watch& watch, const Place& now) {
    watch.judged = true;
    watch.worst = std::max(watch.worst, clock_.distance(watch.last, now).value_or(0));
    Deviation d;
    d.change.op = watch.came ? TableChange::Op::changed : TableChange::Op::removed;
    d.change.what = TableChange::What::table;
    d.change.number = watch.id;
    d.change.before = "within " + std::to_string(watch.interval / ticks_per_ms) + " ms";
    d.change.after = "after " + std::to_string(watch.worst / ticks_per_ms) + " ms";
    if (watch.program >= 0) {
        const auto number = static_cast<std::uint16_t>(watch.program);
        d.programs = {number};
        if (const Program* const p = programs_->program(number))
            d.pid = p->pmt_pid;
        const Expectation::Service* const s = expected_.service(number);
        if (s != nullptr && !s->names.empty() && !s->names.front().empty())
            d.change.name = s->names.front();
    } else if (watch.pid.one()) {
        d.pid = static_cast<std::uint16_t>(watch.pid.least);
    }
    if (d.pid)
        d.change.pid = *d.pid;
    d.begin = watch.last;
    d.patience = watch.interval;
    deviations_.is(thing(watch), std::move(d));
}

void ExpectedTables::section(const SectionEvent& section, const Place& end) {
    if (!section.crc_right || !section.current)
        return;
    for (Watch& watch : watches_) {
        if (!is_it(watch, section))
            continue;
        if (late(watch, end)) {
            missing(watch, end);
        } else {
            deviations_.is_not(thing(watch), watch.last);
            watch.worst = 0;
        }
        watch.judged = watch.judged || watch.came;
        watch.on = watch.came = true;
        watch.last = end;
    }
}

void ExpectedTables::look(const Place& now) {
    for (Watch& watch : watches_)
        if (late(watch, now))
            missing(watch, now);
}

void ExpectedTables::anew(const Place& before, const Place& at) {
    for (Watch& watch : watches_) {
        if (late(watch, before))
            missing(watch, before);
        deviations_.lost_sight(thing(watch), before);
        watch.worst = 0;
        watch.last = at;
    }
}

void ExpectedTables::finish(const Place& end) {
    look(end);
}

void ExpectedTables::judge(Judgement& judgement) const {
    for (const Watch& watch : watches_) {
        if (watch.judged || !watch.on)
            continue;
        if (!clock_.runs())
            judgement.no(Rule::unexpected, "no clock");
        else if (clock_.covered() < watch.interval)
            judgement.no(Rule::unexpected, "shorter than its limit");
    }
}

} // namespace quarn
