// From what there is to what is expected: the margins.
#include "observed.h"

#include <algorithm>

#include "packet.h"

namespace quarn {

namespace {

// What came within T once may come within three times T: a section or two may be lost.
constexpr Ticks interval_margin = 3;
constexpr Ticks least_interval = 250 * ticks_per_ms;
constexpr Ticks interval_step = 50 * ticks_per_ms;
// Means that came to M are expected within so many percent; more where little was seen.
constexpr std::int64_t margin_percent = 25;
constexpr std::int64_t wide_margin_percent = 33;
constexpr std::uint64_t windows_for_certain = 60;
// Fewer packets in a window than these may as well be none, or many more.
constexpr std::int64_t sparse_packets = 20;

// Two digits that matter, upwards.
std::int64_t rounded_up(std::int64_t value) {
    std::int64_t step = 1;
    while (value / step >= 100)
        step *= 10;
    return (value + step - 1) / step * step;
}
std::int64_t rounded_down(std::int64_t value) {
    std::int64_t step = 1;
    while (value / step >= 100)
        step *= 10;
    return value / step * step;
}

Ticks interval_of(const Observed::Table& table) {
    if (table.count < 2 || table.untimed > 0)
        return 0;
    const Ticks wide = std::max(interval_margin * table.longest, least_interval);
    const Ticks step = wide < ticks_per_second ? interval_step : 2 * interval_step;
    return wide < Expectation::longest_interval ? (wide + step - 1) / step * step : 0;
}

Range margin(const Observed::Rates& rates, const Observed::Rate& rate) {
    if (rates.windows == 0 || rate.least > rate.most)
        return {};
    const std::int64_t percent =
        rates.windows < windows_for_certain ? wide_margin_percent : margin_percent;
    const std::int64_t packets =
        sparse_packets * 188 * 8 * ticks_per_second / std::max<Ticks>(rates.over, 1);
    if (rate.least <= packets) // subtitles and the like: now and then
        return {};
    if (rate.most > Range::highest_bitrate / 2) // clocks that stand still, nearly
        return {};
    return {rounded_down(rate.least - rate.least * percent / 100),
            rounded_up(rate.most + rate.most * percent / 100)};
}

template <class Map, class Key>
Range margin(const Observed::Rates& rates, const Map& map, const Key& key) {
    const auto rate = map.find(key);
    return rate == map.end() ? Range{} : margin(rates, rate->second);
}

Range exactly(std::int64_t value) {
    return {value, value};
}

// What a PMT has on the pid of null packets is nowhere.
Range on(std::uint16_t pid) {
    return pid == null_pid ? Range{} : exactly(pid);
}

Expectation::Stream stream_of(const StreamSummary& s, const Observed& observed) {
    Expectation::Stream stream;
    stream.pid = on(s.pid);
    stream.kinds = {s.kind};
    stream.codecs = {s.codec};
    if (!s.language.empty() || s.kind == StreamKind::audio || s.kind == StreamKind::subtitles)
        stream.languages = {s.language};
    if (const auto scrambled = observed.scrambled.find(s.pid);
        scrambled != observed.scrambled.end())
        stream.scrambled = scrambled->second;
    stream.bitrate = margin(observed.rates, observed.rates.pids, s.pid);
    return stream;
}

} // namespace

Expectation expectation_of(const Summary& summary, const Observed& observed) {
    Expectation e;
    for (const ProgramSummary& p : summary.programs) {
        if (p.streams.empty() && !p.pcr_pid)
            continue;
        Expectation::Service service;
        service.number = p.number;
        if (p.name && !p.name->empty())
            service.names = {*p.name};
        service.pmt_pid = on(p.pmt_pid);
        if (p.pcr_pid)
            service.pcr_pid = on(*p.pcr_pid);
        if (const auto pmt = observed.pmts.find(p.number); pmt != observed.pmts.end())
            service.pmt_interval = interval_of(pmt->second);
        service.bitrate = margin(observed.rates, observed.rates.programs, p.number);
        for (const StreamSummary& s : p.streams)
            service.streams.push_back(stream_of(s, observed));
        e.services.push_back(std::move(service));
    }
    for (const auto& [key, table] : observed.tables)
        e.tables.push_back({key.second, on(key.first), interval_of(table), false});
    e.bitrate = margin(observed.rates, observed.rates.all);
    e.constant_rate = observed.constant_rate;
    if (observed.rates.windows > 0)
        e.bitrate_over = observed.rates.over;
    return e;
}

} // namespace quarn
