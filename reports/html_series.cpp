#include "html_series.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace quarn {

namespace {

// A page is to stay small enough for a mail.
constexpr std::size_t most_points = 36'000; // of minima and maxima: buckets get wider until it fits
constexpr std::size_t most_pids = 24;       // in the bit rate; the others are put together
constexpr std::size_t most_programs = 24;
constexpr std::size_t most_lines = 16; // of other plots

/// Numbers that grow slowly, each as its distance from the one before.
class Steps {
  public:
    Steps(Json& json, std::string_view name) : json_(json) { json_.key(name).open('['); }
    void add(std::int64_t value) { json_.value(value - std::exchange(last_, value)); }
    void add(std::uint64_t value) { add(static_cast<std::int64_t>(value)); }
    void end() { json_.close(']'); }

  private:
    Json& json_;
    std::int64_t last_ = 0;
};

class Writer {
  public:
    Writer(Json& json, const TimeSeries& series, int stride)
        : json_(json), series_(series), stride_(stride) {}

    void head();
    void rates(const Summary& summary);
    void lines();

  private:
    double x_unit() const { return series_.timed ? static_cast<double>(ticks_per_second) : 1; }
    std::int64_t beyond(std::uint64_t packet, std::uint64_t byte) const {
        return static_cast<std::int64_t>(byte) -
               static_cast<std::int64_t>(packet - 1) * stride_; // 0 unless bytes were missing
    }
    void side(const std::string& name, const Buckets<Extremes>& buckets, Sample Extremes::*which);
    void extremes(std::string_view name, const Buckets<Extremes>& buckets);
    void packets(std::string_view name, const Buckets<PacketCount>& buckets);
    void intervals();
    void offsets();
    void losses();
    void tables();
    void of_pids(std::string_view name, const std::vector<TimeSeries::OfPid>& all);
    void left_out();

    Json& json_;
    const TimeSeries& series_;
    int stride_;
};

void Writer::head() {
    json_.member("timed", series_.timed);
    json_.member("width", static_cast<double>(series_.width) / x_unit());
    json_.member("length", static_cast<double>(series_.length) / x_unit());
    json_.key("first").open('{');
    FirstPacket last{1, 0};
    Steps packets(json_, "packet");
    for (const FirstPacket& first : series_.first)
        packets.add((last = first.packet ? first : last).packet); // buckets may be without packets
    packets.end();
    last = {1, 0};
    Steps bytes(json_, "beyond");
    for (const FirstPacket& first : series_.first) {
        last = first.packet ? first : last;
        bytes.add(beyond(last.packet, last.byte));
    }
    bytes.end();
    json_.close('}');
}

// One side of all buckets that have values, by columns: the values, and their packets.
void Writer::side(const std::string& name, const Buckets<Extremes>& buckets,
                  Sample Extremes::*which) {
    json_.key(name).open('[');
    for (const Extremes& bucket : buckets)
        if (bucket.count > 0)
            json_.value((bucket.*which).value);
    json_.close(']');
    Steps packets(json_, name + "_packet");
    for (const Extremes& bucket : buckets)
        if (bucket.count > 0)
            packets.add((bucket.*which).packet);
    packets.end();
    Steps bytes(json_, name + "_beyond");
    for (const Extremes& bucket : buckets)
        if (bucket.count > 0)
            bytes.add(beyond((bucket.*which).packet, (bucket.*which).byte));
    bytes.end();
}

void Writer::extremes(std::string_view name, const Buckets<Extremes>& buckets) {
    json_.key(name).open('{');
    Steps x(json_, "x");
    for (std::size_t i = 0; i < buckets.size(); ++i)
        if (buckets[i].count > 0)
            x.add(std::uint64_t{i});
    x.end();
    side("low", buckets, &Extremes::low);
    side("high", buckets, &Extremes::high);
    json_.close('}');
}

void Writer::packets(std::string_view name, const Buckets<PacketCount>& buckets) {
    json_.key(name).open('[');
    for (const PacketCount& bucket : buckets)
        json_.value(std::round(bucket.packets * 10) / 10);
    json_.close(']');
}

double sum(const Buckets<PacketCount>& buckets) {
    double all = 0;
    for (const PacketCount& bucket : buckets)
        all += bucket.packets;
    return all;
}

void add(Buckets<PacketCount>& to, const Buckets<PacketCount>& more) {
    to.resize(std::max(to.size(), more.size()));
    for (std::size_t i = 0; i < more.size(); ++i)
        to[i].add(more[i]);
}

/// Packets of a program, or of a pid.
struct Share {
    int number = 0;
    Buckets<PacketCount> packets;
};

/// The largest first; those that are too many are put together.
void most_first(std::vector<Share>& shares, std::size_t most, Buckets<PacketCount>& rest) {
    std::stable_sort(shares.begin(), shares.end(), [](const Share& a, const Share& b) {
        return sum(a.packets) > sum(b.packets);
    });
    for (; shares.size() > most; shares.pop_back())
        add(rest, shares.back().packets);
}

void Writer::rates(const Summary& summary) {
    extremes("rate", series_.rate);
    std::map<std::uint16_t, int> program_of; // the first that has the pid
    for (const ProgramSummary& p : summary.programs) {
        program_of.emplace(p.pmt_pid, p.number);
        if (p.pcr_pid)
            program_of.emplace(*p.pcr_pid, p.number);
        for (const StreamSummary& s : p.streams)
            program_of.emplace(s.pid, p.number);
    }
    std::vector<Share> pids;
    std::map<int, Share> by_program;
    Buckets<PacketCount> nulls;
    Buckets<PacketCount> other_pids = series_.other;
    Buckets<PacketCount> other_programs;
    Buckets<PacketCount> no_program = series_.other;
    for (const TimeSeries::Packets& p : series_.packets) {
        if (p.pid == 0x1FFF) {
            nulls = p.buckets;
            continue;
        }
        pids.push_back({p.pid, p.buckets});
        const auto program = program_of.find(p.pid);
        if (program == program_of.end()) {
            add(no_program, p.buckets);
            continue;
        }
        Share& share = by_program[program->second];
        share.number = program->second;
        add(share.packets, p.buckets);
    }
    const std::size_t pids_left_out =
        series_.left_out.packets + (pids.size() > most_pids ? pids.size() - most_pids : 0);
    std::vector<Share> programs;
    programs.reserve(by_program.size());
    for (auto& [number, share] : by_program)
        programs.push_back(std::move(share));
    const std::size_t programs_left_out =
        programs.size() > most_programs ? programs.size() - most_programs : 0;
    most_first(pids, most_pids, other_pids);
    most_first(programs, most_programs, other_programs);
    const auto list = [&](std::string_view name, std::string_view number,
                          const std::vector<Share>& shares) {
        json_.key(name).open('[');
        for (const Share& share : shares) {
            json_.open('{').member(number, share.number);
            packets("packets", share.packets);
            json_.close('}');
        }
        json_.close(']');
    };
    list("pids", "pid", pids);
    packets("other_pids", other_pids);
    list("programs", "number", programs);
    packets("other_programs", other_programs);
    packets("no_program", no_program);
    packets("nulls", nulls);
    json_.member("pids_left_out", pids_left_out).member("programs_left_out", programs_left_out);
}

void Writer::of_pids(std::string_view name, const std::vector<TimeSeries::OfPid>& all) {
    json_.key(name).open('[');
    for (std::size_t i = 0; i < std::min(all.size(), most_lines); ++i) {
        json_.open('{').member("pid", all[i].pid);
        extremes("values", all[i].buckets);
        json_.close('}');
    }
    json_.close(']');
}

void Writer::intervals() {
    json_.key("pcr_intervals").open('[');
    const auto& all = series_.pcr_intervals;
    for (std::size_t i = 0; i < std::min(all.size(), most_lines); ++i) {
        json_.open('{').member("pid", all[i].pid);
        extremes("values", all[i].buckets);
        json_.list("histogram", all[i].histogram).close('}');
    }
    json_.close(']');
}

void Writer::offsets() {
    json_.key("offsets").open('[');
    const auto& all = series_.offsets;
    for (std::size_t i = 0; i < std::min(all.size(), most_lines); ++i) {
        const TimeSeries::Offset& o = all[i];
        json_.open('{').member("program", o.program);
        json_.member("video", o.video).member("audio", o.audio);
        extremes("values", o.buckets);
        // Three decimals of ms per hour are more than any stretch of a capture can tell.
        constexpr double per_hour = 3600;
        json_.key("slope_ms_per_hour");
        if (series_.timed)
            json_.value(per_hour * slope(o.buckets, static_cast<double>(series_.width) / x_unit()));
        else
            json_.null();
        json_.close('}');
    }
    json_.close(']');
}

void Writer::losses() {
    json_.key("losses").open('[');
    for (const TimeSeries::Losses& l : series_.losses) {
        const auto column = [&](std::string_view key, auto value) {
            Steps steps(json_, key);
            for (std::size_t i = 0; i < l.buckets.size(); ++i)
                if (l.buckets[i].events > 0)
                    steps.add(static_cast<std::int64_t>(value(l.buckets[i], i)));
            steps.end();
        };
        json_.open('{').key("pid");
        if (l.pid < 0)
            json_.null();
        else
            json_.value(l.pid);
        column("x", [](const LossCount&, std::size_t i) { return i; });
        column("events", [](const LossCount& c, std::size_t) { return c.events; });
        column("packets", [](const LossCount& c, std::size_t) { return c.packets; });
        column("packet", [](const LossCount& c, std::size_t) { return c.worst.packet; });
        column("beyond", [&](const LossCount& c, std::size_t) {
            return beyond(c.worst.packet, c.worst.byte);
        });
        json_.close('}');
    }
    json_.close(']');
}

void Writer::tables() {
    json_.key("tables").open('[');
    for (const TimeSeries::Table& t : series_.tables) {
        json_.open('{').member("pid", t.pid).member("table_id", t.table_id);
        json_.member("limit_ms", t.limit_ms);
        extremes("values", t.buckets);
        json_.close('}');
    }
    json_.close(']');
}

void Writer::left_out() {
    const auto beyond_most = [](std::size_t count, std::size_t most, std::size_t more) {
        return more + (count > most ? count - most : 0);
    };
    const TimeSeries& s = series_;
    json_.key("left_out").open('{');
    json_.member("pcr_intervals",
                 beyond_most(s.pcr_intervals.size(), most_lines, s.left_out.pcr_intervals));
    json_.member("pcr_errors", beyond_most(s.pcr_errors.size(), most_lines, s.left_out.pcr_errors));
    json_.member("leads", beyond_most(s.leads.size(), most_lines, s.left_out.leads));
    json_.member("offsets", beyond_most(s.offsets.size(), most_lines, s.left_out.offsets));
    json_.member("losses", s.left_out.losses).member("tables", s.left_out.tables).close('}');
}

void Writer::lines() {
    intervals();
    of_pids("pcr_errors", series_.pcr_errors);
    of_pids("leads", series_.leads);
    offsets();
    losses();
    tables();
    left_out();
}

template <class List>
std::size_t points(const List& list, std::size_t most) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < std::min(list.size(), most); ++i)
        for (const auto& bucket : list[i].buckets)
            count += bucket.count > 0;
    return count;
}

std::size_t points(const TimeSeries& s) {
    return points(s.pcr_intervals, most_lines) + points(s.pcr_errors, most_lines) +
           points(s.leads, most_lines) + points(s.offsets, most_lines) +
           points(s.tables, s.tables.size()) + s.rate.size();
}

} // namespace

void series_json(Json& json, TimeSeries&& series, const Summary& summary, int stride) {
    while (points(series) > most_points)
        halve(series);
    Writer writer(json, series, stride);
    json.open('{');
    writer.head();
    writer.rates(summary);
    writer.lines();
    json.close('}');
}

} // namespace quarn
