// Frames of every codec, however their bytes are cut, and what happens where they are not in step.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "measure/audio_frames.h"

namespace quarn {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes from_hex(const std::string& hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += hex[i] == ' ' ? 1 : 2)
        if (hex[i] != ' ')
            bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

Bytes frame(const std::string& head, std::size_t size) {
    Bytes bytes = from_hex(head);
    bytes.resize(std::max(size, bytes.size()));
    return bytes;
}

void append(Bytes& to, const Bytes& bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void feed(AudioFrames& frames, const Bytes& bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece)
        frames.feed(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
}

struct Header {
    const char* name;
    Codec codec;
    const char* head;
    std::size_t size;
    double ms; // 0: no frame
};

// Lengths and times by hand from the tables of the standards.
const Header headers[] = {
    {"layer II, 192 kbit/s", Codec::mp2, "ff fd a4 00", 576, 24},
    {"layer II, 384 kbit/s, padded", Codec::mp2, "ff fd e2 00", 1254, 1152 / 44.1},
    {"layer I, 44.1 kHz, padded", Codec::mp1, "ff ff 12 00", 36, 384 / 44.1},
    {"layer III, 22.05 kHz", Codec::mp1, "ff f3 80 00", 208, 576 / 22.05},
    {"layer III, 8 kHz", Codec::mp1, "ff e3 28 00", 144, 72},
    {"ADTS", Codec::aac, "ff f1 50 80 0c 9f fc", 100, 1024 / 44.1},
    {"ADTS, 24 kHz core, two blocks", Codec::aac, "ff f1 58 80 0c 9f fd", 100, 2048 / 24.0},
    {"AC-3, 32 kbit/s", Codec::ac3, "0b 77 00 00 00 40", 128, 32},
    {"AC-3, 44.1 kHz, odd", Codec::ac3, "0b 77 00 00 41 40", 140, 1536 / 44.1},
    {"AC-3, 32 kHz, 640 kbit/s", Codec::ac3, "0b 77 00 00 a5 40", 3840, 48},
    {"AC-3, half rate", Codec::ac3, "0b 77 00 00 00 48", 128, 64},
    {"E-AC-3", Codec::eac3, "0b 77 00 63 30 80", 200, 32},
    {"E-AC-3, one block", Codec::eac3, "0b 77 00 63 00 80", 200, 256 / 48.0},
    {"E-AC-3, half rate", Codec::eac3, "0b 77 00 63 c0 80", 200, 64},
    {"DTS", Codec::dts, "7f fe 80 01 fc 3c 1f f2 74", 512, 512 / 48.0},
    {"LATM", Codec::aac_latm, "56 e0 61 20 00 11 90", 100, 1024 / 48.0},
    {"LATM, version 1, SBR, two frames of 960", Codec::aac_latm, "56 e0 61 40 04 10 00 81 5c 8c 50",
     100, 1920 / 22.05},
    {"free format", Codec::mp2, "ff fd 04 00", 576, 0},
    {"reserved sampling rate", Codec::mp2, "ff fd ac 00", 576, 0},
    {"ADTS, shorter than its header", Codec::aac, "ff f1 50 80 00 df fc", 100, 0},
    {"ADTS, reserved sampling rate", Codec::aac, "ff f1 74 80 0c 9f fc", 100, 0},
    {"LATM, reserved sampling rate", Codec::aac_latm, "56 e0 61 20 00 16 90", 100, 0},
    {"AC-3, reserved size", Codec::ac3, "0b 77 00 00 26 40", 128, 0},
    {"E-AC-3, two bytes long", Codec::eac3, "0b 77 00 00 30 80", 128, 0},
    {"DTS, no sampling rate", Codec::dts, "7f fe 80 01 fc 3c 1f f2 40", 512, 0},
    {"LATM before its configuration", Codec::aac_latm, "56 e0 61 80 00 11 90", 100, 0},
    {"another codec's", Codec::aac, "ff fd a4 00", 576, 0},
};

TEST(AudioFrames, CountsTheTimeOfEachCodecInPiecesOfAnySize) {
    for (const Header& h : headers) {
        for (const std::size_t piece : {1u, 2u, 5u, 184u, 100'000u}) {
            SCOPED_TRACE(h.name + std::string(" in pieces of ") + std::to_string(piece));
            AudioFrames frames(h.codec);
            frames.take();
            frames.start_unit();
            for (int i = 0; i < 3; ++i)
                feed(frames, frame(h.head, h.size), piece);
            const std::optional<AudioTime> time = frames.take();
            EXPECT_EQ(time.has_value(), h.ms > 0);
            EXPECT_EQ(frames.found(), h.ms > 0);
            if (time) {
                EXPECT_NEAR(static_cast<double>(*time) / audio_time_per_second * 1000, 3 * h.ms,
                            1e-6);
            }
        }
    }
}

TEST(AudioFrames, AddsUpToTheTickOverADay) {
    AudioFrames frames(Codec::aac);
    const Bytes one = frame("ff f1 50 80 0c 9f fc", 100);        // 44.1 kHz
    constexpr AudioTime day = AudioTime{44'100} * 86'400 / 1024; // frames
    AudioTime sum = 0;
    frames.take();
    frames.start_unit();
    for (AudioTime i = 0; i < day; ++i) {
        frames.feed(one);
        sum += frames.take().value();
        frames.start_unit();
    }
    EXPECT_EQ(sum, day * 1024 * (audio_time_per_second / 44'100));
}

constexpr const char* ac3 = "0b 77 00 00 00 40"; // 128 bytes, 32 ms
struct Unit {
    Bytes bytes;
    int frames; // that began in it; -1: not counted
};
struct Story {
    const char* name;
    Codec codec;
    std::vector<Unit> units; // PES packets
};

TEST(AudioFrames, KeepsInStepOverUnits) {
    const Bytes one = frame(ac3, 128);
    Bytes tail(one.begin() + 50, one.end());
    Bytes late = Bytes(60, 0x55);
    append(late, one);
    Bytes two = one;
    append(two, one);
    Bytes torn = one;
    torn.resize(100);
    Bytes head = one;
    append(head, {0x0b, 0x77, 0x00}); // a header that goes on in the next unit
    Bytes rest(one.begin() + 3, one.end());
    append(rest, one);
    Bytes noise = one;
    append(noise, {1, 2, 3});
    append(noise, one);
    Bytes with_parts = frame("0b 77 00 63 30 80", 200);
    append(with_parts, frame("0b 77 40 63 30 80", 200)); // a dependent substream
    append(with_parts, frame("0b 77 08 63 30 80", 200)); // another program's
    Bytes with_extension = frame("7f fe 80 01 fc 3c 1f f2 74", 512);
    append(with_extension, frame("64 58 20 25 00 00 00 0c 60", 100));
    const Story stories[] = {
        {"frames that end in the next unit",
         Codec::ac3,
         {{torn, 1}, {{0, 0}, 0}, {Bytes(26), 0}, {two, 2}}},
        {"units that begin in the middle", Codec::ac3, {{tail, -1}, {late, -1}, {two, 2}}},
        {"a header over two units", Codec::ac3, {{head, 2}, {rest, 1}, {one, 1}}},
        {"bytes between frames", Codec::ac3, {{noise, -1}, {two, 2}}},
        {"a frame cut by the next unit", Codec::ac3, {{torn, 1}, {one, -1}, {one, 1}}},
        {"substreams", Codec::eac3, {{with_parts, 1}, {with_parts, 1}}},
        {"extension substreams", Codec::dts, {{with_extension, 1}, {with_extension, 1}}},
        {"a codec that is not known", Codec::opus, {{one, -1}}},
    };
    for (const Story& story : stories) {
        for (const std::size_t piece : {1u, 47u, 100'000u}) {
            AudioFrames frames(story.codec);
            frames.take();
            int index = 0;
            for (const Unit& unit : story.units) {
                SCOPED_TRACE(story.name + std::string(", unit ") + std::to_string(index++));
                frames.start_unit();
                feed(frames, unit.bytes, piece);
                const double ms = story.codec == Codec::dts ? 512 / 48.0 : 32;
                const std::optional<AudioTime> time = frames.take();
                const double count =
                    time ? static_cast<double>(*time) / audio_time_per_second * 1000 / ms : -1;
                EXPECT_NEAR(count, unit.frames, 1e-9);
            }
        }
    }
}

TEST(AudioFrames, CountsNothingBehindALossBeforeTheNextUnit) {
    AudioFrames frames(Codec::ac3);
    const Bytes one = frame(ac3, 128);
    frames.take();
    frames.start_unit();
    frames.feed(one);
    frames.lose();
    frames.feed(one);
    EXPECT_FALSE(frames.take());
    frames.start_unit();
    frames.feed(one);
    EXPECT_TRUE(frames.take());
}

} // namespace
} // namespace quarn
