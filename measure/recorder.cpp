#include "recorder.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks first_width = 100 * ticks_per_ms;
constexpr std::int64_t first_width_packets = 64; // where there is no clock
constexpr Ticks rate_window = 100 * ticks_per_ms;
constexpr Ticks recent = ticks_per_second; // a picture's lead that a sound's is held against
constexpr double bits_per_packet = 8.0 * packet_size;

double ms(Ticks t) {
    return static_cast<double>(t) / ticks_per_ms;
}

Sample sample(const Place& place, double value) {
    return {value, place.packet, place.byte};
}

} // namespace

// ---------------------------------------------------------------- buckets

std::int64_t Recorder::x_of(const Place& place) {
    if (!timed_) {
        timed_ = place.time != no_time;
        width_ = *timed_ ? first_width : first_width_packets;
    }
    if (!*timed_)
        last_x_ = static_cast<std::int64_t>(place.packet) - 1;
    else if (place.time != no_time)
        last_x_ = std::max<Ticks>(place.time, 0);
    while (last_x_ / width_ >= static_cast<std::int64_t>(most_buckets))
        width_ *= 2;
    return last_x_;
}

// All have the widest buckets that any needs.
template <class Cell>
Cell& Recorder::cell(Filling<Cell>& series, std::int64_t x) {
    if (series.width == 0)
        series.width = width_;
    series.widen(width_);
    return series.at(x);
}

template <class Cell>
Buckets<Cell> Recorder::take(Filling<Cell>& series) const {
    if (series.width > 0)
        series.widen(width_);
    return std::move(series.buckets);
}

void Recorder::add(Values& values, std::int64_t x, const Sample& sample) {
    cell(values, x).add(sample);
}

void Recorder::spread(Filling<PacketCount>& series, std::int64_t from, std::int64_t to,
                      double packets) {
    const auto length = static_cast<double>(to - from);
    for (std::int64_t x = from; x < to;) {
        const std::int64_t next = std::min(to, (x / width_ + 1) * width_);
        cell(series, x).packets += packets * static_cast<double>(next - x) / length;
        x = next;
    }
    if (from >= to)
        cell(series, from).packets += packets;
}

// ---------------------------------------------------------------- what rules see

void Recorder::counts(const CountsItem& item, const Place& from, const Place& to) {
    const std::int64_t begin = x_of(from);
    const std::int64_t end = x_of(to);
    cell(first_, begin).add(FirstPacket{from.packet, from.byte});
    double rest = static_cast<double>(item.packets);
    for (const CountsItem::Count& count : item.pids) {
        auto* const series = packets_.at(count.pid);
        if (series == nullptr)
            continue;
        spread(*series, begin, end, count.packets);
        rest -= count.packets;
    }
    if (rest > 0)
        spread(other_, begin, end, rest);
    rate(item.packets, from, to);
}

void Recorder::rate(std::uint64_t packets, const Place& from, const Place& to) {
    if (from.time == no_time || to.time == no_time)
        return;
    if (rate_packets_ == 0)
        rate_from_ = from;
    rate_packets_ += packets;
    const Ticks time = to.time - rate_from_.time;
    if (time < rate_window)
        return;
    const double bits = static_cast<double>(rate_packets_) * bits_per_packet;
    add(rate_, x_of(rate_from_),
        sample(rate_from_, bits * ticks_per_second / static_cast<double>(time)));
    rate_packets_ = 0;
}

void Recorder::pcr_interval(std::uint16_t pid, const Place& place, Ticks interval) {
    PcrIntervals* const series = pcr_intervals_.at(pid);
    if (series == nullptr)
        return;
    add(series->values, x_of(place), sample(place, ms(interval)));
    const Ticks bin = std::clamp<Ticks>(interval / ticks_per_ms, 0,
                                        static_cast<Ticks>(series->histogram.size()) - 1);
    ++series->histogram[static_cast<std::size_t>(bin)];
}

void Recorder::pcr_error(std::uint16_t pid, const Place& place, double ns) {
    if (Values* const series = pcr_errors_.at(pid))
        add(*series, x_of(place), sample(place, ns));
}

void Recorder::lead(std::uint16_t pid, const Place& place, Ticks lead) {
    const ElementaryStream* const stream = programs_ ? programs_->stream(pid) : nullptr;
    if (stream == nullptr || !stream->is_av())
        return;
    Lead* const series = leads_.at(pid);
    if (series == nullptr)
        return;
    const std::int64_t x = x_of(place);
    series->last = sample(place, ms(lead));
    series->at = x;
    add(series->values, x, series->last);
    if (stream->kind == StreamKind::audio)
        offsets(pid, x, series->last);
}

// Against the first picture of each program that the sound belongs to.
void Recorder::offsets(std::uint16_t pid, std::int64_t x, const Sample& audio) {
    for (const Program& program : programs_->programs) {
        const auto has = [&](const ElementaryStream& s) { return s.pid == pid; };
        const auto is_video = [](const ElementaryStream& s) { return s.kind == StreamKind::video; };
        const auto& streams = program.streams;
        const auto picture = std::find_if(streams.begin(), streams.end(), is_video);
        if (picture == streams.end() || std::none_of(streams.begin(), streams.end(), has))
            continue;
        const auto video = leads_.entries.find(picture->pid);
        if (video == leads_.entries.end() || (*timed_ && x - video->second.at > recent))
            continue;
        Offset* const offset = offsets_.at({program.number, pid});
        if (offset == nullptr)
            continue;
        offset->video = picture->pid;
        add(offset->values, x, {audio.value - video->second.last.value, audio.packet, audio.byte});
    }
}

void Recorder::loss(const Finding& finding) {
    const auto lost =
        static_cast<std::uint64_t>(std::max<std::int64_t>(finding.detail.lost.value_or(0), 0));
    auto* const series = losses_.at(finding.pid ? *finding.pid : -1);
    if (series != nullptr)
        cell(*series, x_of(finding.begin))
            .add({finding.count, lost, sample(finding.begin, static_cast<double>(lost))});
}

void Recorder::table(const GapRow& row, const Place& place, Ticks interval) {
    if (row.limit <= 0)
        return;
    Table* const series = tables_.at({row.pid, row.table_id});
    if (series == nullptr)
        return;
    series->limit_ms = ms(row.limit);
    add(series->values, x_of(place), sample(place, ms(interval)));
}

// ---------------------------------------------------------------- the end

TimeSeries Recorder::take(const Place& end) {
    TimeSeries s;
    s.length = x_of(end) + (*timed_ ? 0 : 1);
    s.timed = *timed_;
    s.width = width_;
    s.first = take(first_);
    s.rate = take(rate_);
    s.other = take(other_);
    for (auto& [pid, series] : packets_.entries)
        s.packets.push_back({pid, take(series)});
    for (auto& [pid, series] : pcr_intervals_.entries)
        s.pcr_intervals.push_back({pid, take(series.values), series.histogram});
    for (auto& [pid, series] : pcr_errors_.entries)
        s.pcr_errors.push_back({pid, take(series)});
    for (auto& [pid, series] : leads_.entries)
        s.leads.push_back({pid, take(series.values)});
    for (auto& [key, series] : offsets_.entries)
        s.offsets.push_back({key.first, series.video, key.second, take(series.values)});
    for (auto& [pid, series] : losses_.entries)
        s.losses.push_back({pid, take(series)});
    for (auto& [key, series] : tables_.entries)
        s.tables.push_back({key.first, key.second, series.limit_ms, take(series.values)});
    s.left_out = {packets_.refused.size(),    pcr_intervals_.refused.size(),
                  pcr_errors_.refused.size(), leads_.refused.size(),
                  offsets_.refused.size(),    losses_.refused.size(),
                  tables_.refused.size()};
    return s;
}

} // namespace quarn
