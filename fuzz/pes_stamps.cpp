// pes_stamps.cpp - PES packets and audio frames of every codec, through the first look and the
// rules about stamps, with losses, jumps of the clock and other tables on the way.
//
// An input is a byte that picks the audio codec, then records: what (see below), a byte, and for
// most of them a size and that many bytes.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <span>
#include <vector>

#include "measure/pes.h"
#include "measure/stamps.h"
#include "ts_builder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using namespace quarn;

namespace {

enum What : std::uint8_t { unit, payload, raw, damage, cause, later, tables, whats };
constexpr std::uint8_t with_dts = 0x10;
constexpr std::uint8_t on_audio = 0x20;

constexpr std::uint16_t video_pid = 0x100;
constexpr std::uint16_t audio_pid = 0x101;
constexpr std::uint16_t pcr_pid = 0x102;
constexpr Codec codecs[] = {Codec::mp1,  Codec::aac, Codec::aac_latm, Codec::ac3,
                            Codec::eac3, Codec::dts, Codec::opus};

void must(bool holds) {
    if (!holds)
        std::abort();
}

/// However its bytes are cut, a stream has the same frames.
struct Twins {
    explicit Twins(Codec codec) : whole(codec), cut(codec) {}
    void feed(std::span<const std::uint8_t> bytes) {
        whole.feed(bytes);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            cut.feed(bytes.subspan(i, 1));
    }
    void next_unit() {
        must(whole.take() == cut.take());
        must(whole.found() == cut.found());
        whole.start_unit();
        cut.start_unit();
    }
    AudioFrames whole;
    AudioFrames cut;
};

class Host : EventSink, Output {
  public:
    explicit Host(Codec codec) : twins_(codec), codec_(codec) { announce(0); }

    void record(std::uint8_t what, std::uint8_t more, std::span<const std::uint8_t> bytes) {
        const std::uint16_t pid = what & on_audio ? audio_pid : video_pid;
        switch (what % whats) {
        case unit:
            return start(pid, what, more, bytes);
        case payload:
        case raw:
            return packet(pid, what % whats == raw, {bytes.begin(), bytes.end()});
        case damage:
            front_.disturbed(pid);
            more % 4 == 0 ? stamps_.scrambled(pid, now())
                          : stamps_.hold_off(more % 4 == 1 ? null_pid : pid, now());
            return;
        case cause:
            return explain(pid, more);
        case later:
            time_ += (more & 0x80 ? more & 0x7F : more * 20) * ticks_per_ms;
            return stamps_.advance(now());
        default:
            return announce(more);
        }
    }
    void finish() { stamps_.finish(now()); }

  private:
    void event(const At&, EventBody&& body) override {
        const auto& e = std::get<PesEvent>(body);
        must(e.pid == video_pid || e.pid == audio_pid);
        must(!e.pts || (*e.pts >= 0 && *e.pts < stamp_wrap));
        must(!e.dts || (e.pts && *e.dts >= 0 && *e.dts < stamp_wrap));
        must(!e.frame_ticks || *e.frame_ticks >= 0);
        stamps_.pes(e, now(), has_clock_ ? std::optional<Ticks>(time_ % pcr_wrap) : std::nullopt);
    }
    void finding(Finding&& f) override {
        must(f.begin.packet <= f.end.packet && f.begin.time <= f.end.time);
        must(f.shape == Shape::interval || f.begin.packet == f.end.packet);
        must(!f.detail.late_ms || *f.detail.late_ms > 0);
        must(!f.detail.interval_ms || *f.detail.interval_ms > 700);
        must(f.kind != Kind::drift || f.detail.drift_ms_per_s);
    }
    void consequence(Rule) override {}

    Place now() const {
        return {index_ + 1, index_ * packet_size, has_clock_ ? time_ : no_time, no_time,
                estimated_};
    }
    void start(std::uint16_t pid, std::uint8_t what, std::uint8_t more,
               std::span<const std::uint8_t> bytes) {
        ts::stamps when;
        stamp_ = (stamp_ + more * 100u) % (1ull << 33);
        when.pts = stamp_;
        if (what & with_dts)
            when.dts = (stamp_ + (1ull << 33) - 3600) % (1ull << 33);
        ts::bytes all = ts::pes_header(ts::VIDEO_ID, when);
        all.insert(all.end(), bytes.begin(), bytes.end());
        if (pid == audio_pid)
            twins_.next_unit();
        packet(pid, true, all);
        if (pid == audio_pid)
            twins_.feed(bytes);
    }
    void packet(std::uint16_t pid, bool is_start, ts::bytes bytes) {
        bytes.resize(std::min<std::size_t>(bytes.size(), 184));
        ts::packet_fields fields{.pid = pid, .pusi = is_start, .payload = bytes};
        if (bytes.size() < 184)
            fields.adapt = ts::adaptation{.pcr = {}, .length = 183 - bytes.size()};
        const auto made = std::make_unique<ts::packet>(ts::make_packet(fields));
        front_.feed({index_, index_ * packet_size, no_time}, Packet(made->data()));
        ++index_;
        time_ += ticks_per_ms;
    }
    void explain(std::uint16_t pid, std::uint8_t how) {
        Place before = now();
        before.packet -= std::min<std::uint64_t>(before.packet - 1, how);
        before.time -= has_clock_ ? how * ticks_per_ms : 0;
        if (how % 5 == 0)
            stamps_.clock_jump(1, before, how & 0x80);
        else if (how % 5 == 1)
            stamps_.stopped(pid, before, now());
        else if (how % 5 == 2)
            stamps_.outage(before, now());
        else if (how % 5 == 3)
            stamps_.pcr_gap(pcr_pid, before, now());
        else
            estimated_ = !estimated_;
    }
    void announce(std::uint8_t how) {
        has_clock_ = has_clock_ || !(how & 1);
        auto made = std::make_shared<Programs>();
        Program& p = made->programs.emplace_back();
        p.number = 1;
        p.pcr_pid = pcr_pid;
        if (!(how & 2))
            p.streams.push_back(
                {video_pid, 0x1B, StreamKind::video, Codec::h264, {}, false, (how & 8) != 0});
        const StreamKind kind = how & 4 ? StreamKind::data : StreamKind::audio;
        p.streams.push_back({audio_pid, 0x06, kind, codec_, {}, false, false});
        front_.programs(*made);
        stamps_.programs(made, now());
    }

    Options options_;
    PesFront front_{*this};
    Stamps stamps_{options_, *this};
    Twins twins_;
    Codec codec_;
    std::uint64_t index_ = 0;
    std::uint64_t stamp_ = (1ull << 33) - 200'000;
    Ticks time_ = 0;
    bool has_clock_ = false;
    bool estimated_ = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> left(data, size);
    const auto byte = [&]() -> std::uint8_t {
        if (left.empty())
            return 0;
        const std::uint8_t value = left[0];
        left = left.subspan(1);
        return value;
    };
    Host host(codecs[byte() % std::size(codecs)]);
    while (!left.empty()) {
        const std::uint8_t what = byte();
        const std::uint8_t more = byte();
        std::span<const std::uint8_t> bytes;
        if (what % whats <= raw) {
            const std::size_t count = byte();
            bytes = left.first(std::min(count, left.size()));
            left = left.subspan(bytes.size());
        }
        host.record(what, more, bytes);
    }
    host.finish();
    return 0;
}
