#include "observer.h"

#include <algorithm>
#include <set>

#include "psi.h"

namespace quarn {

namespace {

constexpr Ticks moment = ticks_per_second / 2;
// Of more nothing is kept: memory.
constexpr std::size_t tables_max = 256;
constexpr std::size_t pids_max = 4096;

void add(Observed::Rate& rate, std::int64_t bits) {
    rate.least = std::min(rate.least, bits);
    rate.most = std::max(rate.most, bits);
}

} // namespace

void Observer::start(const Place& first) {
    clock_.see(first);
    start_ = first;
}

void Observer::programs(const ProgramsPtr& programs, const Place& place) {
    programs_ = programs;
    std::erase_if(since_, [&](const auto& entry) {
        const Program* const p = programs->program(entry.first);
        return p == nullptr || !p->pmt_in_force;
    });
    for (const Program& p : programs->programs)
        if (p.pmt_in_force)
            since_.try_emplace(p.number, place);
}

void Observer::section(const SectionEvent& section, const Place& end) {
    clock_.see(end);
    if (!section.crc_right || !section.current)
        return;
    if (section.table_id == table_id::pmt) {
        const Program* const p = programs_ ? programs_->program(section.extension) : nullptr;
        if (p != nullptr && p->pmt_pid == section.pid)
            add(pmts_.try_emplace(p->number, Table{{}, start_}).first->second, end);
        return;
    }
    const auto key = std::pair(section.pid, section.table_id);
    if (section.table_id != table_id::stuffing &&
        (tables_.size() < tables_max || tables_.contains(key)))
        add(tables_.try_emplace(key, Table{{}, start_}).first->second, end);
}

void Observer::add(Table& table, const Place& end) {
    ++table.is.count;
    const auto distance = clock_.distance(table.last, end);
    if (!distance)
        ++table.is.untimed;
    table.is.longest = std::max(table.is.longest, distance.value_or(0));
    table.last = end;
}

void Observer::seen(const SpansItem::Span& span, const Place& first, const Place& last) {
    clock_.see(last);
    if (span.packets == 0 || (scrambling_.size() >= pids_max && !scrambling_.contains(span.pid)))
        return;
    Scrambling& s = scrambling_[span.pid];
    const bool is = span.scrambled > 0;
    auto& since = is ? s.scrambled : s.clear;
    (is ? s.clear : s.scrambled).reset();
    if (!since)
        since = first;
    if (clock_.distance(*since, last).value_or(0) > moment)
        (is ? s.mostly_clear : s.mostly_scrambled) = false;
}

void Observer::counts(const CountsItem& item, const Place& from, const Place& to,
                      std::optional<bool> constant) {
    for (Window& window : windows_)
        if (window.rates.counts(item, from, to))
            add(window);
    if (constant)
        ++(*constant ? constant_ : variable_);
}

void Observer::add(Window& window) {
    PidRates& rates = window.rates;
    Observed::Rates& seen = window.seen;
    ++seen.windows;
    quarn::add(seen.all, rates.bitrate(rates.packets()));
    if (!programs_)
        return;
    for (const Program& p : programs_->programs) {
        const auto since = since_.find(p.number);
        if (since == since_.end() || since->second.packet > rates.begin().packet ||
            seen.pids.size() >= pids_max)
            continue;
        std::set<std::uint16_t> pids;
        for (const ElementaryStream& s : p.streams) {
            pids.insert(s.pid);
            quarn::add(seen.pids[s.pid], rates.bitrate(rates.packets(s.pid)));
        }
        if (p.pcr_pid != null_pid)
            pids.insert(p.pcr_pid);
        std::uint64_t packets = 0;
        for (const std::uint16_t pid : pids)
            packets += rates.packets(pid);
        quarn::add(seen.programs[p.number], rates.bitrate(packets));
    }
}

void Observer::anew(const Place& at) {
    for (auto& [key, table] : tables_)
        table.last = at;
    for (auto& [number, table] : pmts_)
        table.last = at;
    for (Window& window : windows_)
        window.rates.anew();
}

Observed Observer::observed(const Place& end) const {
    Observed o;
    const auto finished = [&](const Table& table) {
        Observed::Table is = table.is;
        is.longest = std::max(is.longest, clock_.distance(table.last, end).value_or(0));
        return is;
    };
    for (const auto& [key, table] : tables_)
        o.tables[key] = finished(table);
    for (const auto& [number, table] : pmts_)
        o.pmts[number] = finished(table);
    const Ticks covered = clock_.covered();
    for (const Window& window : windows_)
        if (covered >= 3 * window.seen.over && window.seen.windows > 0) {
            o.rates = window.seen;
            break;
        }
    for (const auto& [pid, s] : scrambling_)
        if (s.mostly_scrambled != s.mostly_clear)
            o.scrambled[pid] = s.mostly_scrambled;
    if (constant_ == 0 || variable_ == 0)
        if (constant_ + variable_ > 0)
            o.constant_rate = constant_ > 0;
    return o;
}

} // namespace quarn
