// PES headers as they come in packets, and what is counted between them.
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "measure/pes.h"
#include "ts_builder.h"

namespace quarn {
namespace {

constexpr std::uint16_t video = 0x100;
constexpr std::uint16_t audio = 0x101;

Programs announced(std::uint8_t audio_type = 0x81, Codec codec = Codec::ac3) {
    Programs programs;
    Program& p = programs.programs.emplace_back();
    p.number = 1;
    p.streams = {{video, 0x1B, StreamKind::video, Codec::h264, {}, false, false},
                 {audio, audio_type, StreamKind::audio, codec, {}, false, false},
                 {0x102, 0x86, StreamKind::scte35, Codec::scte35, {}, false, false}};
    return programs;
}

struct Events : EventSink {
    std::vector<PesEvent> list;
    std::vector<std::uint64_t> packets;
    void event(const At& at, EventBody&& body) override {
        list.push_back(std::get<PesEvent>(body));
        packets.push_back(at.index);
    }
};

struct Fixture {
    Events events;
    PesFront front{events};
    std::uint64_t index = 0;

    Fixture() { front.programs(announced()); }
    void feed(const ts::packet& packet) { front.feed({index++, 0, 0}, Packet(packet.data())); }
    /// A packet with that payload, stuffed in front of it; 0 bytes or more.
    void feed(std::uint16_t pid, bool start, const ts::bytes& payload) {
        ts::packet_fields fields{.pid = pid, .pusi = start, .payload = payload};
        if (payload.size() < 184)
            fields.adapt = ts::adaptation{.pcr = {}, .length = 183 - payload.size()};
        feed(ts::make_packet(fields));
    }
};

ts::bytes joined(ts::bytes a, const ts::bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string words(const PesEvent& e) {
    return (e.valid ? "" : "invalid ") + std::to_string(e.pts.value_or(-1)) + " " +
           std::to_string(e.dts.value_or(-1));
}

constexpr std::uint64_t largest = (1ull << 33) - 1;

struct Header {
    const char* name;
    ts::bytes bytes;
    const char* want; // PTS and DTS
};

std::vector<Header> headers() {
    const ts::bytes pts = ts::pes_header(ts::VIDEO_ID, {.pts = largest, .dts = {}});
    const ts::bytes both = ts::pes_header(ts::VIDEO_ID, {.pts = 0x155555555, .dts = 90'000});
    const auto with = [](ts::bytes bytes, std::size_t at, std::uint8_t value) {
        bytes[at] = value;
        return bytes;
    };
    const auto flip = [&](ts::bytes bytes, std::size_t at, std::uint8_t bit) {
        return with(bytes, at, bytes[at] ^ bit);
    };
    return {
        {"PTS", pts, "8589934591 -1"},
        {"PTS and DTS", both, "5726623061 90000"},
        {"no stamps", ts::pes_header(ts::VIDEO_ID, {}), "-1 -1"},
        {"prefix of another field", flip(pts, 9, 0x10), "-1 -1"},
        {"first marker bit", flip(pts, 9, 1), "-1 -1"},
        {"second marker bit", flip(pts, 11, 1), "-1 -1"},
        {"third marker bit", flip(pts, 13, 1), "-1 -1"},
        {"DTS without its marker: neither", flip(both, 18, 1), "-1 -1"},
        {"PTS of both without its marker: neither", flip(both, 13, 1), "-1 -1"},
        {"DTS alone", with(with(pts, 7, 0x40), 9, 0x11), "-1 -1"},
        {"header too short for its PTS", with(pts, 8, 4), "-1 -1"},
        {"header too short for its DTS", with(both, 8, 9), "-1 -1"},
        {"padding", with(pts, 3, 0xBE), "-1 -1"},
        {"private_stream_2", with(pts, 3, 0xBF), "-1 -1"},
        {"wrong start code", with(pts, 2, 2), "invalid -1 -1"},
        {"not the bits of MPEG-2", with(pts, 6, 0x40), "invalid -1 -1"},
    };
}

TEST(Pes, ReadsHeadersWhereverTheyAreCut) {
    for (const Header& h : headers()) {
        const ts::bytes whole = joined(h.bytes, ts::bytes(40, 0x55));
        for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
            SCOPED_TRACE(h.name + std::string(" cut behind ") + std::to_string(cut));
            Fixture f;
            const auto middle = whole.begin() + static_cast<std::ptrdiff_t>(cut);
            f.feed(video, true, {whole.begin(), middle});
            f.feed(video, false, {middle, whole.end()});
            ASSERT_EQ(f.events.list.size(), 1u);
            EXPECT_EQ(words(f.events.list[0]), h.want);
            EXPECT_EQ(f.events.list[0].split, f.events.packets[0] == 1);
        }
    }
}

TEST(Pes, GivesUpAHeaderWhoseEndIsMissing) {
    const ts::bytes header = ts::pes_header(ts::VIDEO_ID, {.pts = 1000, .dts = {}});
    const ts::bytes cut(header.begin(), header.begin() + 10);
    for (const bool next_start : {true, false}) {
        Fixture f;
        f.feed(video, true, cut);
        if (!next_start)
            f.front.disturbed();
        f.feed(video, next_start, header);
        EXPECT_EQ(words(f.events.list.at(0)), "invalid -1 -1");
        EXPECT_EQ(f.events.list.size(), next_start ? 2u : 1u);
    }
}

TEST(Pes, CountsWhatCameSinceTheLastStart) {
    Fixture f;
    ts::bytes header = ts::pes_header(ts::VIDEO_ID, {.pts = 1000, .dts = {}});
    header[4] = 1; // PES_packet_length 0x0123
    header[5] = 0x23;
    f.feed(video, true, joined(header, ts::bytes(20)));
    f.feed(video, false, ts::bytes(184));
    f.feed(video, false, ts::bytes(91));
    f.feed(audio, true, header);
    f.feed(video, true, ts::pes_header(ts::VIDEO_ID, {}));
    f.front.disturbed(video);
    f.feed(video, true, ts::pes_header(ts::VIDEO_ID, {.pts = 4600, .dts = {}}));
    ASSERT_EQ(f.events.list.size(), 4u);
    const PesEvent& second = f.events.list[2];
    EXPECT_EQ(f.events.list[0].disturbed, true);
    EXPECT_EQ(second.disturbed, false);
    EXPECT_EQ(second.packets, 3u);
    EXPECT_EQ(second.received, header.size() - 6 + 20 + 184 + 91);
    EXPECT_EQ(second.declared, 0x123u);
    EXPECT_EQ(second.starts, 1u);
    EXPECT_EQ(f.events.list[3].disturbed, true);
    EXPECT_EQ(f.events.list[3].starts, 2u);
    EXPECT_EQ(f.front.starts(video), 3u);
    EXPECT_FALSE(f.front.follows(0x102)); // sections
}

// ISO/IEC 13818-1, table 2-34: what comes in sections has no PES headers to be wrong.
TEST(Pes, FollowsStreamTypesThatComeInPesPackets) {
    const std::set<unsigned> in_sections{0x05, 0x0A, 0x0B, 0x0C, 0x0D, 0x14, 0x16};
    for (unsigned type = 1; type < 0x20; ++type) {
        Fixture f;
        f.front.programs(announced(static_cast<std::uint8_t>(type), Codec::unknown));
        EXPECT_EQ(f.front.follows(audio), !in_sections.contains(type)) << type;
    }
}

/// A PES packet of AC-3, so many frames of 128 bytes and 32 ms, of which `missing` bytes never
/// came.
void send_audio(Fixture& f, std::optional<std::uint64_t> pts, int frames, std::size_t missing = 0) {
    ts::bytes unit = ts::pes_header(ts::PRIVATE_ID, {.pts = pts, .dts = {}});
    for (int i = 0; i < frames; ++i) {
        ts::bytes frame = {0x0b, 0x77, 0, 0, 0, 0x40};
        frame.resize(128);
        unit = joined(unit, frame);
    }
    const std::size_t length = unit.size() - 6;
    unit[4] = static_cast<std::uint8_t>(length >> 8);
    unit[5] = static_cast<std::uint8_t>(length);
    unit.resize(unit.size() - missing);
    for (std::size_t at = 0; at < unit.size(); at += 184) {
        const auto begin = unit.begin() + static_cast<std::ptrdiff_t>(at);
        f.feed(audio, at == 0,
               {begin,
                begin + static_cast<std::ptrdiff_t>(std::min<std::size_t>(184, unit.size() - at))});
    }
}

TEST(Pes, CountsAudioFramesBetweenStamps) {
    struct {
        const char* name;
        void (*between)(Fixture& f);
        double ticks; // of the stamp behind; -1: not counted
    } const rows[] = {
        {"nothing", [](Fixture&) {}, 2 * 2880.0},
        {"no stamp", [](Fixture& f) { send_audio(f, {}, 3); }, 5 * 2880.0},
        {"a packet lost", [](Fixture& f) { f.front.disturbed(audio); }, -1},
        {"a packet lost behind a unit without a stamp",
         [](Fixture& f) {
             f.front.disturbed(audio);
             send_audio(f, {}, 3);
         },
         -1},
        {"bytes missing though no counter says so", [](Fixture& f) { send_audio(f, {}, 3, 128); },
         -1},
        {"padding",
         [](Fixture& f) {
             f.feed(audio, true, {0, 0, 1, 0xBE, 0, 2, 0, 0});
         },
         2 * 2880.0},
        {"no header", [](Fixture& f) { f.feed(audio, true, ts::bytes(20)); }, -1},
        {"another codec on the pid",
         [](Fixture& f) { f.front.programs(announced(0x0F, Codec::aac)); }, -1},
        {"the same PMT again", [](Fixture& f) { f.front.programs(announced()); }, 2 * 2880.0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Fixture f;
        send_audio(f, 0, 1);
        send_audio(f, 2880, 2);
        row.between(f);
        send_audio(f, 9000, 1);
        EXPECT_EQ(f.events.list.at(1).frame_ticks.value_or(-1), 2880);
        EXPECT_EQ(f.events.list.back().frame_ticks.value_or(-1), row.ticks);
    }
}

TEST(Pes, LearnsThePaceOfAStreamFromUndisturbedSteps) {
    Fixture f;
    std::uint64_t pts = largest - 5000; // wraps on the way
    for (int i = 0; i < 30; ++i) {
        pts += i == 10 ? 900'000 : i % 2 ? 3000 : 4500; // film on 60 Hz, and a jump
        if (i == 20 || i == 21)
            f.front.disturbed(video);
        f.feed(video, true, ts::pes_header(ts::VIDEO_ID, {.pts = pts & largest}));
        f.feed(video, false, ts::bytes(184));
        if (i == 2) {
            EXPECT_EQ(f.front.ticks_per_start(video), 0); // too early to tell
        }
    }
    EXPECT_EQ(f.front.ticks_per_start(video), 3750);
    EXPECT_EQ(f.front.packets_per_second(video), 48);
    EXPECT_EQ(f.front.ticks_per_start(0x1000), 0);
}

} // namespace
} // namespace quarn
