// stream.cpp - whatever packets, sync losses, times of arrival and ends, through a whole Stream.
//
// An input is a byte of options and records: what (see below), a size or count, the bytes. Packets
// have a right sync byte, and pids and counters near each other so that they meet in the rules.
#include <algorithm>
#include <cstdlib>
#include <set>
#include <span>
#include <vector>

#include "measure/packet.h"
#include "measure/stream.h"
#include "ts_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using namespace quarn;

namespace {

enum Kind : std::uint8_t { raw, packet, pcr, pes, table, again, lost, datagram, arrived, kinds };
constexpr std::uint64_t most_packets = 30'000;

void must(bool holds) {
    if (!holds)
        std::abort();
}

struct Host : Sink {
    explicit Host(std::uint8_t flags) : live(flags & 128), stream(options(flags), *this) {}
    static Options options(std::uint8_t flags) {
        Options o;
        o.profile = static_cast<Profile>(flags & 3);
        o.limits = limits_of(o.profile);
        o.bitrate = flags & 4 ? 1'504'000 : 0;
        o.dvb = flags & 8;
        if (flags & 16)
            o.program = 1;
        o.live = flags & 128;
        return o;
    }
    void finding(const Finding& f) override {
        must(f.count > 0 && f.begin.packet <= f.end.packet && f.end.packet <= index + 1);
        must(f.begin.time == no_time || f.end.time == no_time || f.begin.time <= f.end.time);
        must(f.begin.time == no_time || f.begin.time >= 0);
        must(f.shape == Shape::interval || (f.begin.packet == f.end.packet && !f.open));
        must(!f.detail.lost || *f.detail.lost >= 0);
        must((f.id != 0) == (live && f.shape == Shape::interval));
        must((f.state == State::event) == (f.id == 0));
        if (f.state == State::raise) {
            must(f.open && open.insert(f.id).second);
            return;
        }
        must(f.id == 0 || open.erase(f.id) == 1);
        findings += f.count;
    }
    void send(ts::packet p, bool right = true) {
        if (index >= most_packets)
            return;
        p[0] = right ? 0x47 : 0x48;
        // A block of its own, so that no read goes beyond it unseen.
        const std::vector<std::uint8_t> block(p.begin(), p.end());
        if (arrival == no_time && right)
            stream.packets(block.data(), 1, packet_size, index * packet_size);
        else
            stream.packet(block.data(), {index * packet_size, arrival, no_time, right});
        last = p;
        ++index;
    }
    void end(std::uint8_t tail) {
        if (tail & 1)
            stream.truncated(index * packet_size, 1 + tail % 187);
        stream.end();
        const Summary s = stream.summary();
        must(s.packets == index && s.rules.size() == rule_count);
        std::uint64_t counted = 0;
        for (const RuleSummary& r : s.rules) {
            must((r.judged == Judged::yes) == r.why.empty());
            must(r.count == 0 || (r.first && r.last));
            counted += r.count;
        }
        must(counted == findings); // whatever was made one of several
        must(open.empty());
        const Counters figures = stream.counters();
        for (const RuleInfo& r : rule_table)
            for (const Severity severity : {Severity::info, Severity::warning, Severity::error}) {
                counted -= figures.findings.at(r.rule, severity);
                must(figures.open.at(r.rule, severity) == 0);
            }
        must(counted == 0);
    }

    const bool live;
    std::set<std::uint64_t> open; // ids of intervals
    Stream stream;
    std::uint64_t index = 0;
    std::uint64_t findings = 0;
    Ticks arrival = no_time;
    ts::packet last{};
    unsigned counters[8] = {};
};

constexpr unsigned pids[] = {0, 0x100, 0x101, 0x102, 0x1000, 0x1001, 0x11, 0x1FFF};

// The last packet again, many times, also with its counter moved on.
void send_again(Host& host, std::uint8_t with, bool move_on) {
    for (unsigned n = 0; n < 1U + with * with; ++n) {
        if (move_on)
            host.last[3] =
                static_cast<std::uint8_t>((host.last[3] & 0xF0) | ((host.last[3] + 1) & 15));
        if (host.arrival != no_time)
            host.arrival += Ticks{27} * with;
        host.send(host.last);
    }
}

ts::bytes some_table(unsigned which) {
    static const ts::bytes sections[] = {
        ts::pat_section({{1, 0x1000}, {2, 0x1001}}),
        ts::pat_section({{1, 0x1000}}, {.version = 1}),
        ts::pmt_section(1, 0x100, {{0x1B, 0x100}, {0x03, 0x101}}),
        ts::pmt_section(1, 0x102, {{0x02, 0x100}, {0x0F, 0x101}}, {.version = 1}),
        ts::pmt_section(2, 0x1FFF, {{0x06, 0x102}, {0x81, 0x101}}),
    };
    return ts::pointed(sections[which % 5]);
}

void record(Host& host, std::uint8_t what, std::uint8_t with, std::span<const std::uint8_t> in) {
    unsigned& counter = host.counters[with % 8];
    ts::packet_fields f{.pid = pids[with % 8], .cc = counter & 15};
    f.payload.assign(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(
                                                  std::min<std::size_t>(in.size(), 170)));
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < in.size() && i < 5; ++i)
        value = value << 8 | in[i];
    switch (what % kinds) {
    case raw: {
        ts::packet p{};
        std::copy_n(in.begin(), std::min(in.size(), p.size() - 1), p.begin() + 1);
        return host.send(p, (with & 0x80) == 0);
    }
    case packet:
        counter += 1 + (with & 0x40 ? with >> 4 : 0);
        f.pusi = with & 8;
        return host.send(ts::make_packet(f), (with & 0x80) == 0);
    case pcr:
        f.has_payload = false;
        f.payload.clear();
        f.adapt = ts::adaptation{.pcr = value & 0x1FFFFFFFF};
        return host.send(ts::make_packet(f));
    case pes:
        ++counter;
        f.pusi = true;
        f.payload =
            ts::pes_header(with & 8 ? ts::VIDEO_ID : ts::AUDIO_ID, {.pts = value & 0x1FFFFFFFF});
        f.payload.insert(f.payload.end(), in.begin(),
                         in.begin() +
                             static_cast<std::ptrdiff_t>(std::min<std::size_t>(in.size(), 150)));
        return host.send(ts::make_packet(f));
    case table:
        ++counter;
        f.pusi = true;
        f.payload = some_table(in.empty() ? 0 : in[0]);
        return host.send(ts::make_packet(f));
    case again:
        return send_again(host, with, in.size() % 2 == 1);
    case lost: {
        static constexpr quarn::Kind how[] = {quarn::Kind::missing, quarn::Kind::inserted,
                                              quarn::Kind::garbled};
        const std::uint64_t at = host.index * packet_size;
        return host.stream.sync_loss({how[with % 3], at, at + with, with % 188});
    }
    case datagram:
        return host.stream.datagrams(
            {with & 1 ? quarn::Kind::loss : quarn::Kind::order, with, std::int64_t{7} * with});
    default:
        host.arrival = (host.arrival == no_time ? 0 : host.arrival) +
                       static_cast<Ticks>(value % (10 * ticks_per_second));
        if (with & 1)
            host.stream.own_drops();
        for (unsigned n = 0; n < with / 2; ++n)
            host.stream.tick(host.arrival += Ticks{250} * ticks_per_ms, no_time);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> in(data, size);
    if (in.empty())
        return 0;
    const std::uint8_t flags = in[0];
    in = in.subspan(1);
    Host host(flags);
    while (in.size() >= 3) {
        const std::uint8_t what = in[0];
        const std::uint8_t with = in[1];
        const auto bytes = in.subspan(3, std::min<std::size_t>(in[2], in.size() - 3));
        in = in.subspan(3 + bytes.size());
        record(host, what, with, bytes);
    }
    host.end(flags >> 5);
    return 0;
}
