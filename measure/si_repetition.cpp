// Distances between sections of service information.
#include "si_repetition.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {

constexpr const char* no_clock = "no clock";
constexpr const char* too_short = "shorter than its limit";
constexpr const char* no_table = "no such table";

// What a DVB stream must have (EN 300 468, 5.1.3 and TS 101 211, 4.4).
constexpr std::uint8_t mandatory[] = {table_id::nit_actual, table_id::sdt_actual,
                                      table_id::eit_actual, table_id::tdt};

constexpr Rule rows[] = {Rule::nit_actual_error, Rule::nit_other_error, Rule::si_repetition_error,
                         Rule::sdt_actual_error, Rule::sdt_other_error, Rule::eit_actual_error,
                         Rule::eit_other_error,  Rule::eit_pf_error,    Rule::rst_error,
                         Rule::tdt_error};

constexpr Ticks look_every = 200 * ticks_per_ms;
constexpr Ticks gone_after = 3600 * ticks_per_second;

bool is_present_following(std::uint8_t id) {
    return id == table_id::eit_actual || id == table_id::eit_other;
}

} // namespace

void SiRepetition::start(const Place& first) {
    if (!options_.dvb)
        return;
    armed_ = true;
    for (const std::uint8_t id : mandatory) {
        awaited_[id].last = first;
        const SiRow row = *si_row(id, options_.limits);
        row_seen(row.rule, row.limit);
    }
}

void SiRepetition::row_seen(Rule rule, Ticks limit) {
    const auto i = static_cast<std::size_t>(rule);
    seen_.set(i);
    limits_[i] = std::max(limits_[i], limit);
}

void SiRepetition::section(const SectionEvent& section, const SiRow& row, const Place& begin,
                           const Place& end) {
    armed_ = armed_ || section.crc_right;
    if (!section.current)
        return;
    too_fast(section, row, begin, end);
    const Key key{section.table_id, section.extension, section.sub_table};
    const bool known = tables_.contains(key) || present_following_.contains(key);
    if (!section.crc_right && !known) {
        // What it is cannot be told; it counts as sent for whatever it was.
        gaps_.unreadable(row.pid, begin, end);
        return;
    }
    row_seen(row.rule, row.limit);
    if (const auto awaited = awaited_.find(section.table_id); awaited != awaited_.end()) {
        came(awaited->second, key, row.rule, row.limit, end);
        gaps_.good(awaited->second, end);
        awaited_.erase(awaited);
    }
    if (section.crc_right)
        replace_actual(key, end);
    if (is_present_following(section.table_id))
        present_following(key, section, row, end);
    else if (row.limit > 0)
        sections_of_version(key, section, row, end);
}

void SiRepetition::too_fast(const SectionEvent& section, const SiRow& row, const Place& begin,
                            const Place& end) {
    if (!row.too_fast)
        return;
    const std::uint32_t key = std::uint32_t{section.table_id} << 16 | section.extension;
    const auto last = last_bytes_.find(key);
    if (last == last_bytes_.end()) {
        if (last_bytes_.size() < series_max)
            last_bytes_.emplace(key, end);
        return;
    }
    const Place before = std::exchange(last->second, end);
    const auto distance = gaps_.clock().distance(before, begin);
    if (!distance || before.estimated || begin.estimated || *distance >= options_.limits.too_fast)
        return;
    Finding f;
    f.rule = row.rule;
    f.kind = Kind::too_fast;
    f.severity = info(row.rule).severity;
    f.programs = programs_of({section.table_id, section.extension, section.sub_table});
    f.pid = section.pid;
    f.begin = f.end = begin;
    f.detail.interval_ms = milliseconds(*distance);
    f.detail.limit_ms = milliseconds(options_.limits.too_fast);
    f.detail.table_id = section.table_id;
    row_seen(row.rule, row.limit);
    gaps_.other(std::move(f));
}

// There is one NIT and one SDT of this stream: another one takes its place.
void SiRepetition::replace_actual(const Key& key, const Place& place) {
    if (key.table_id != table_id::nit_actual && key.table_id != table_id::sdt_actual)
        return;
    const auto [held, first] = actual_.try_emplace(key.table_id, key);
    if (first || held->second == key)
        return;
    const auto old = tables_.find(held->second);
    if (old != tables_.end()) {
        close(old->first, old->second, place, false);
        tables_.erase(old);
    }
    held->second = key;
}

void SiRepetition::sections_of_version(const Key& key, const SectionEvent& section,
                                       const SiRow& row, const Place& end) {
    if (series_ >= series_max && !tables_.contains(key))
        return;
    Table& table = tables_[key];
    if (section.crc_right && !table.parts.empty() && table.version != section.version) {
        // The new version need not have the same sections.
        const auto other =
            std::partition(table.parts.begin(), table.parts.end(),
                           [&](const Part& p) { return p.number == section.number; });
        Table gone{table.version, {other, table.parts.end()}};
        close(key, gone, end, false);
        table.parts.erase(other, table.parts.end());
    }
    if (section.crc_right)
        table.version = section.version;
    const auto part = std::find_if(table.parts.begin(), table.parts.end(),
                                   [&](const Part& p) { return p.number == section.number; });
    if (part != table.parts.end())
        return came(part->series, key, row.rule, row.limit, end);
    if (series_ >= series_max || !section.crc_right)
        return;
    ++series_;
    Part part_seen;
    part_seen.number = section.number;
    part_seen.series.last = end;
    table.parts.push_back(part_seen);
}

void SiRepetition::present_following(const Key& key, const SectionEvent& section, const SiRow& row,
                                     const Place& end) {
    row_seen(Rule::eit_pf_error, half_limit(key));
    const auto known = present_following_.find(key);
    if (known == present_following_.end()) {
        if (series_ >= series_max)
            return;
        series_ += 3;
        PresentFollowing& both = present_following_[key];
        both.any.last = end;
        for (Half& half : both.halves)
            half.series.last = end;
        return;
    }
    PresentFollowing& both = known->second;
    const Ticks away = gaps_.clock().distance(both.any.last, end).value_or(0);
    for (Half& half : both.halves)
        half.both_away = std::max(half.both_away, away);
    came(both.any, key, row.rule, row.limit, end);
    if (section.number > 1)
        return;
    Half& half = both.halves[section.number];
    const Ticks since = gaps_.clock().distance(half.series.last, end).value_or(0);
    if (half_is_gap(half, key, end))
        gaps_.gap(half.series, gap_row(key, Rule::eit_pf_error, half_limit(key)), programs_of(key),
                  end);
    else if (since <= half_limit(key))
        gaps_.good(half.series, end);
    half.series.last = end;
    half.both_away = 0;
}

// One section is missing for too long, the time aside in which both were.
bool SiRepetition::half_is_gap(const Half& half, const Key& key, const Place& place) const {
    const Ticks missing = gaps_.clock().distance(half.series.last, place).value_or(0);
    const Ticks both = half.both_away > limit_of(key) ? half.both_away : 0;
    return missing - both > half_limit(key);
}

void SiRepetition::came(Series& series, const Key& key, Rule rule, Ticks limit,
                        const Place& place) {
    gaps_.came(series, gap_row(key, rule, limit), programs_of(key), place);
}

void SiRepetition::stays_away(Series& series, const Key& key, Rule rule, Ticks limit,
                              const Place& place, bool open) {
    if (gaps_.clock().distance(series.last, place).value_or(0) > limit)
        gaps_.gap(series, gap_row(key, rule, limit), programs_of(key), place, open);
    gaps_.good(series, place);
}

void SiRepetition::close(const Key& key, Table& table, const Place& place, bool open) {
    const Ticks limit = limit_of(key);
    const Rule rule = si_row(key.table_id, options_.limits)->rule;
    for (Part& part : table.parts)
        stays_away(part.series, key, rule, limit, place, open);
    series_ -= table.parts.size();
}

void SiRepetition::close(const Key& key, PresentFollowing& both, const Place& place, bool open) {
    const Ticks away = gaps_.clock().distance(both.any.last, place).value_or(0);
    stays_away(both.any, key, si_row(key.table_id, options_.limits)->rule, limit_of(key), place,
               open);
    for (Half& half : both.halves) {
        half.both_away = std::max(half.both_away, away);
        if (half_is_gap(half, key, place))
            gaps_.gap(half.series, gap_row(key, Rule::eit_pf_error, half_limit(key)),
                      programs_of(key), place, open);
        gaps_.good(half.series, place);
    }
    series_ -= 3;
}

void SiRepetition::programs(const ProgramsPtr& programs, const Place& place) {
    const ProgramsPtr before = std::exchange(programs_, programs);
    for (auto entry = present_following_.begin(); entry != present_following_.end();) {
        const Key& key = entry->first;
        const bool gone = key.table_id == table_id::eit_actual && before->program(key.extension) &&
                          !programs->program(key.extension);
        if (gone)
            close(key, entry->second, place, false);
        entry = gone ? present_following_.erase(entry) : std::next(entry);
    }
}

// Live: tables that nothing obliges a stream to send, after an hour without: sub-tables of services
// and networks that are no more.
bool SiRepetition::is_gone(const Key& key, const Place& last, const Place& now) const {
    const bool obliged =
        std::find(std::begin(mandatory), std::end(mandatory), key.table_id) != std::end(mandatory);
    return !obliged && gaps_.clock().distance(last, now).value_or(0) > gone_after;
}

void SiRepetition::look(const Place& now) {
    if (next_look_ != no_time && now.time < next_look_)
        return;
    next_look_ = now.time + look_every;
    const auto waits = [&](Series& series, const Key& key) {
        const SiRow row = *si_row(key.table_id, options_.limits);
        if (gaps_.clock().distance(series.last, now).value_or(0) > row.limit)
            gaps_.going_on(series, gap_row(key, row.rule, row.limit), programs_of(key), now);
    };
    for (auto& [id, series] : awaited_)
        waits(series, {id, 0, 0});
    for (auto entry = tables_.begin(); entry != tables_.end();) {
        auto& [key, table] = *entry;
        bool gone = true;
        for (Part& part : table.parts) {
            waits(part.series, key);
            gone = gone && is_gone(key, part.series.last, now);
        }
        if (gone)
            close(key, table, now, false);
        entry = gone ? tables_.erase(entry) : std::next(entry);
    }
    for (auto entry = present_following_.begin(); entry != present_following_.end();) {
        auto& [key, both] = *entry;
        look(key, both, now);
        const bool gone = is_gone(key, both.any.last, now);
        if (gone)
            close(key, both, now, false);
        entry = gone ? present_following_.erase(entry) : std::next(entry);
    }
    if (last_bytes_.size() >= series_max)
        last_bytes_.clear();
}

void SiRepetition::look(const Key& key, PresentFollowing& both, const Place& now) {
    const SiRow row = *si_row(key.table_id, options_.limits);
    const Ticks away = gaps_.clock().distance(both.any.last, now).value_or(0);
    if (away > row.limit)
        gaps_.going_on(both.any, gap_row(key, row.rule, row.limit), programs_of(key), now);
    for (Half& half : both.halves) {
        const Ticks before = std::exchange(half.both_away, std::max(half.both_away, away));
        if (half_is_gap(half, key, now))
            gaps_.going_on(half.series, gap_row(key, Rule::eit_pf_error, half_limit(key)),
                           programs_of(key), now);
        half.both_away = before;
    }
}

void SiRepetition::anew(const Place& before, const Place& at) {
    for (auto& [id, series] : awaited_) {
        const SiRow row = *si_row(id, options_.limits);
        stays_away(series, {id, 0, 0}, row.rule, row.limit, before, true);
        series.last = at;
    }
    forget(before, true);
}

void SiRepetition::forget(const Place& place, bool open) {
    for (auto& [key, table] : tables_)
        close(key, table, place, open);
    for (auto& [key, both] : present_following_)
        close(key, both, place, open);
    tables_.clear();
    present_following_.clear();
    actual_.clear();
    last_bytes_.clear();
}

void SiRepetition::finish(const Place& end) {
    for (auto& [id, series] : awaited_) {
        const SiRow row = *si_row(id, options_.limits);
        stays_away(series, {id, 0, 0}, row.rule, row.limit, end, true);
    }
    for (auto& [key, table] : tables_)
        close(key, table, end, true);
    for (auto& [key, both] : present_following_)
        close(key, both, end, true);
}

GapRow SiRepetition::gap_row(const Key& key, Rule rule, Ticks limit) const {
    return {rule, limit, si_row(key.table_id, options_.limits)->pid, key.table_id};
}

std::vector<std::uint16_t> SiRepetition::programs_of(const Key& key) const {
    const bool of_service = key.table_id >= table_id::eit_actual && key.table_id <= 0x5F &&
                            key.table_id != table_id::eit_other;
    if (of_service && programs_->program(key.extension))
        return {key.extension};
    return {};
}

Ticks SiRepetition::limit_of(const Key& key) const {
    return si_row(key.table_id, options_.limits)->limit;
}

Ticks SiRepetition::half_limit(const Key& key) const {
    return key.table_id == table_id::eit_actual ? options_.limits.eit_pf
                                                : options_.limits.eit_pf_other;
}

void SiRepetition::judge(Judgement& judgement) const {
    for (const Rule rule : rows) {
        const auto i = static_cast<std::size_t>(rule);
        const bool any_id = rule == Rule::rst_error && armed_; // foreign table ids need no RST
        if (!seen_[i] && !found_[i] && !any_id)
            judgement.not_applicable(rule, no_table);
        else if (!gaps_.clock().runs() && seen_[i])
            judgement.no(rule, no_clock);
        else if (gaps_.clock().covered() < limits_[i])
            judgement.no(rule, too_short);
        else
            judgement.yes(rule);
    }
}

} // namespace quarn
