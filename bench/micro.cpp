// micro.cpp - what the analyzer takes for one packet of each kind, in a context that has read the
// tables of one program and writes its logs to /dev/null in the way that quarn does: unbuffered.
//
// An iteration feeds a round of packets: sixteen, one for each continuity counter, or those of a
// section. items_per_second counts packets; in changed_pmt and alert_pair it counts alerts.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "log.h"
#include "ts_builder.h"
#include "tsanalyze.h"

namespace {

constexpr unsigned PMT_PID = 0x100;
constexpr unsigned VIDEO = 0x101;
constexpr unsigned AUDIO = 0x102;
constexpr unsigned COUNTERS = 16;
constexpr std::uint64_t CLOCK = 900'000;

FILE* open_null() {
    FILE* fp = std::fopen("/dev/null", "w");
    if (!fp)
        std::abort();
    std::setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

void bind_logs() {
    static FILE* const human = open_null();
    static FILE* const machine = open_null();
    log_default(&g_log, human);
    log_set_group(&g_log, 'F' | 'S' << 8 | 'C' << 16 | 'N' << 24);
    log_default(&g_access_log, machine);
    log_set_pid(&g_access_log, getpid());
}

// A context with all checks on.
class analyzer {
  public:
    analyzer() {
        bind_logs();
        tsan_config cfg = TSAN_DEFAULTS;
        cfg.max_pdts_delta = 500;
        cfg.max_pcr_delta = 900;
        cfg.pcr_freq_ms = 100;
        cfg.access_log_alerts = true;
        tsan_ = tsan_init("capture", &cfg, nullptr);
        if (!tsan_)
            std::abort();
    }
    analyzer(const analyzer&) = delete;
    analyzer& operator=(const analyzer&) = delete;
    ~analyzer() { tsan_free(tsan_); }

    void feed(const ts::packet& p) {
        if (tsan_process(tsan_, p.data()) != 0)
            std::abort();
    }
    void feed(const std::vector<ts::packet>& packets) {
        for (const ts::packet& p : packets)
            feed(p);
    }

  private:
    tsan_t tsan_;
};

// ---- packets -----------------------------------------------------------------------------------

ts::packet pat_packet() {
    return ts::section_packets(0, 0, {ts::pat_section({{1, PMT_PID}})}).front();
}

std::vector<ts::packet> pmt_packets(std::size_t streams, unsigned version) {
    std::vector<ts::elementary> list{{2, VIDEO}};
    for (unsigned i = 1; i < streams; i++)
        list.push_back({0x81, VIDEO + i});
    return ts::section_packets(PMT_PID, 0, {ts::pmt_section(1, VIDEO, list, {.version = version})});
}

// The same packet with each counter in turn.
std::vector<ts::packet> in_sequence(ts::packet_fields fields) {
    std::vector<ts::packet> all;
    for (fields.cc = 0; fields.cc < COUNTERS; fields.cc++)
        all.push_back(ts::make_packet(fields));
    return all;
}

// PES starts that follow one another in time, 10 ms apart.
std::vector<ts::packet> pes_starts(unsigned pid, unsigned stream_id, bool with_dts) {
    std::vector<ts::packet> all;
    for (unsigned i = 0; i < COUNTERS; i++) {
        ts::stamps when{.pts = CLOCK + 900ULL * i};
        if (with_dts)
            when.dts = when.pts;
        all.push_back(ts::make_packet(
            {.pid = pid, .cc = i, .pusi = true, .payload = ts::pes_header(stream_id, when)}));
    }
    return all;
}

std::vector<ts::packet> clocked() {
    std::vector<ts::packet> all;
    for (unsigned i = 0; i < COUNTERS; i++)
        all.push_back(
            ts::make_packet({.pid = VIDEO, .cc = i, .adapt = ts::adaptation{.pcr = CLOCK}}));
    return all;
}

// ---- benchmarks --------------------------------------------------------------------------------

void run(benchmark::State& state, analyzer& a, const std::vector<ts::packet>& packets) {
    for ([[maybe_unused]] auto _ : state)
        a.feed(packets);
    const auto count = static_cast<std::int64_t>(packets.size());
    state.SetItemsProcessed(state.iterations() * count);
}

void tables(analyzer& a, std::size_t streams = 3) {
    a.feed(pat_packet());
    a.feed(pmt_packets(streams, 0));
}

void stream_packet(benchmark::State& state) {
    analyzer a;
    tables(a);
    run(state, a, in_sequence({.pid = VIDEO}));
}
BENCHMARK(stream_packet);

void null_packet(benchmark::State& state) {
    analyzer a;
    tables(a);
    a.feed(in_sequence({.pid = VIDEO})); // analysis must begin
    run(state, a, in_sequence({}));
}
BENCHMARK(null_packet);

void pcr_packet(benchmark::State& state) {
    analyzer a;
    tables(a);
    run(state, a, clocked());
}
BENCHMARK(pcr_packet);

void video_pes_start(benchmark::State& state) {
    analyzer a;
    tables(a);
    run(state, a, pes_starts(VIDEO, ts::VIDEO_ID, true));
}
BENCHMARK(video_pes_start);

// Each is held against the PCR and against the video's time stamp.
void audio_pes_start(benchmark::State& state) {
    analyzer a;
    tables(a);
    a.feed(clocked());
    a.feed(pes_starts(VIDEO, ts::VIDEO_ID, false));
    run(state, a, pes_starts(AUDIO, ts::AUDIO_ID, false));
}
BENCHMARK(audio_pes_start);

void repeated_pat(benchmark::State& state) {
    analyzer a;
    tables(a);
    a.feed(in_sequence({.pid = VIDEO}));
    run(state, a, {pat_packet()});
}
BENCHMARK(repeated_pat);

void repeated_pmt(benchmark::State& state) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    analyzer a;
    tables(a, streams);
    a.feed(in_sequence({.pid = VIDEO}));
    run(state, a, pmt_packets(streams, 0));
}
BENCHMARK(repeated_pmt)->ArgName("streams")->Arg(3)->Arg(64);

// Two versions in turn: each draws an alert and rebuilds the stream table.
void changed_pmt(benchmark::State& state) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    analyzer a;
    tables(a, streams);
    a.feed(in_sequence({.pid = VIDEO}));
    std::vector<ts::packet> both = pmt_packets(streams, 1);
    const std::vector<ts::packet> old = pmt_packets(streams, 0);
    both.insert(both.end(), old.begin(), old.end());
    run(state, a, both);
    state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(changed_pmt)->ArgName("streams")->Arg(3)->Arg(64);

// A repeated counter is a break each time: a human and a machine line.
void alert_pair(benchmark::State& state) {
    analyzer a;
    tables(a);
    run(state, a, {ts::make_packet({.pid = VIDEO, .cc = 5})});
}
BENCHMARK(alert_pair);

// What an alert cannot do without.
void two_writes(benchmark::State& state) {
    const int human = fileno(log_fp(&g_log));
    const int machine = fileno(log_fp(&g_access_log));
    static constexpr std::array<char, 120> line{};
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(write(human, line.data(), line.size()));
        benchmark::DoNotOptimize(write(machine, line.data(), line.size()));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(two_writes);

} // namespace

BENCHMARK_MAIN();
