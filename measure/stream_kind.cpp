// Stream types, format identifiers and descriptors, each as a table.
#include "stream_kind.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

namespace quarn {

namespace {

enum Tag : std::uint8_t {
    video_stream = 0x02,
    audio_stream = 0x03,
    registration = 0x05,
    iso_639_language = 0x0A,
    metadata = 0x26,
    avc_video = 0x28,
    hevc_video = 0x38,
    vvc_video = 0x39,
    vbi_data = 0x45,
    vbi_teletext = 0x46,
    teletext = 0x56,
    subtitling = 0x59,
    ac3_dvb = 0x6A,
    eac3_dvb = 0x7A,
    dts_dvb = 0x7B,
    aac_dvb = 0x7C,
    extension = 0x7F,
    ac3_atsc = 0x81,
    eac3_atsc = 0xCC,
};

constexpr std::uint32_t id(const char (&text)[5]) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | static_cast<std::uint8_t>(text[i]);
    return value;
}

constexpr std::uint32_t disc_format = id("HDMV"); // has stream types of its own
constexpr std::uint8_t private_pes = 0x06;
constexpr std::uint8_t private_sections = 0x05;
constexpr std::uint8_t metadata_pes = 0x15;
constexpr std::uint8_t user_private = 0x80; // from here on

template <typename Key>
struct Row {
    Key key;
    StreamKind kind;
    Codec codec;
};

template <typename Key, std::size_t n>
const Row<Key>* find(const std::array<Row<Key>, n>& rows, Key key) {
    const auto row =
        std::find_if(rows.begin(), rows.end(), [key](const auto& r) { return r.key == key; });
    return row == rows.end() ? nullptr : &*row;
}

constexpr auto video = StreamKind::video;
constexpr auto audio = StreamKind::audio;
constexpr auto data = StreamKind::data;
constexpr auto subtitles = StreamKind::subtitles;

constexpr auto by_type = std::to_array<Row<std::uint8_t>>({
    {0x01, video, Codec::mpeg1video},
    {0x02, video, Codec::mpeg2video},
    {0x03, audio, Codec::mp2},
    {0x04, audio, Codec::mp2},
    {private_sections, data, Codec::private_data},
    {private_pes, data, Codec::private_data},
    {0x07, data, Codec::private_data}, // MHEG
    {0x08, data, Codec::dsmcc},
    {0x09, data, Codec::private_data},
    {0x0A, data, Codec::dsmcc},
    {0x0B, data, Codec::dsmcc},
    {0x0C, data, Codec::dsmcc},
    {0x0D, data, Codec::dsmcc},
    {0x0E, data, Codec::private_data}, // auxiliary
    {0x0F, audio, Codec::aac},
    {0x10, video, Codec::mpeg4video},
    {0x11, audio, Codec::aac_latm},
    {0x12, data, Codec::private_data},
    {0x13, data, Codec::private_data},
    {0x14, data, Codec::dsmcc},
    {metadata_pes, data, Codec::private_data},
    {0x16, data, Codec::private_data},
    {0x17, data, Codec::dsmcc},
    {0x18, data, Codec::dsmcc},
    {0x19, data, Codec::private_data},
    {0x1A, data, Codec::private_data},
    {0x1B, video, Codec::h264},
    {0x1C, audio, Codec::aac},
    {0x1D, subtitles, Codec::private_data},
    {0x1E, data, Codec::private_data}, // auxiliary video: depth, parallax
    {0x1F, video, Codec::h264},        // layers and views of H.264
    {0x20, video, Codec::h264},
    {0x21, video, Codec::jpeg2000},
    {0x22, video, Codec::mpeg2video},
    {0x23, video, Codec::h264},
    {0x24, video, Codec::hevc},
    {0x25, video, Codec::hevc},
    {0x26, video, Codec::h264},
    {0x27, data, Codec::private_data}, // timeline
    {0x28, video, Codec::hevc},
    {0x29, video, Codec::hevc},
    {0x2A, video, Codec::hevc},
    {0x2B, video, Codec::hevc},
    {0x2C, data, Codec::private_data},
    {0x2D, audio, Codec::mpegh},
    {0x2E, audio, Codec::mpegh},
    {0x2F, data, Codec::private_data},
    {0x30, data, Codec::private_data},
    {0x31, video, Codec::hevc},
    {0x32, video, Codec::unknown}, // JPEG XS
    {0x33, video, Codec::vvc},
    {0x34, video, Codec::vvc},
    {0x35, video, Codec::unknown}, // EVC
    {0x42, video, Codec::avs},
    {0x7F, data, Codec::private_data},
    {0x81, audio, Codec::ac3},
    {0x82, subtitles, Codec::private_data}, // SCTE 27
    {0x86, StreamKind::scte35, Codec::scte35},
    {0x87, audio, Codec::eac3},
    {0x8A, audio, Codec::dts},
    {0x95, data, Codec::dsmcc},
    {0xC1, audio, Codec::ac3}, // encrypted by samples, as HTTP live streaming has them
    {0xC2, audio, Codec::eac3},
    {0xCF, audio, Codec::aac},
    {0xD1, video, Codec::dirac},
    {0xD2, video, Codec::avs2},
    {0xD4, video, Codec::avs3},
    {0xDB, video, Codec::h264},
    {0xEA, video, Codec::vc1},
});

constexpr auto by_disc_type = std::to_array<Row<std::uint8_t>>({
    {0x80, audio, Codec::lpcm},
    {0x82, audio, Codec::dts},
    {0x83, audio, Codec::unknown}, // TrueHD
    {0x84, audio, Codec::eac3},
    {0x85, audio, Codec::dts},
    {0x86, audio, Codec::dts},
    {0x87, audio, Codec::eac3},
    {0x90, subtitles, Codec::private_data},
    {0x91, data, Codec::private_data},
    {0x92, subtitles, Codec::private_data},
    {0xA1, audio, Codec::eac3},
    {0xA2, audio, Codec::dts},
});

constexpr auto by_format = std::to_array<Row<std::uint32_t>>({
    {id("AC-3"), audio, Codec::ac3},         {id("EAC3"), audio, Codec::eac3},
    {id("AC-4"), audio, Codec::ac4},         {id("DTS1"), audio, Codec::dts},
    {id("DTS2"), audio, Codec::dts},         {id("DTS3"), audio, Codec::dts},
    {id("DTSH"), audio, Codec::dts},         {id("Opus"), audio, Codec::opus},
    {id("BSSD"), audio, Codec::lpcm}, // SMPTE ST 302
    {id("mlpa"), audio, Codec::unknown},     {id("HEVC"), video, Codec::hevc},
    {id("VVC "), video, Codec::vvc},         {id("VC-1"), video, Codec::vc1},
    {id("drac"), video, Codec::dirac},       {id("AVSV"), video, Codec::avs},
    {id("AVS2"), video, Codec::avs2},        {id("AVS3"), video, Codec::avs3},
    {id("AV01"), video, Codec::unknown},     {id("CUEI"), StreamKind::scte35, Codec::scte35},
    {id("ID3 "), data, Codec::id3},          {id("KLVA"), data, Codec::private_data},
    {id("VANC"), data, Codec::private_data},
});

constexpr auto by_descriptor = std::to_array<Row<std::uint8_t>>({
    {vbi_data, data, Codec::private_data},
    {vbi_teletext, StreamKind::teletext, Codec::dvb_teletext},
    {teletext, StreamKind::teletext, Codec::dvb_teletext},
    {subtitling, subtitles, Codec::dvb_subtitle},
    {ac3_dvb, audio, Codec::ac3},
    {eac3_dvb, audio, Codec::eac3},
    {dts_dvb, audio, Codec::dts},
    {aac_dvb, audio, Codec::aac},
    {ac3_atsc, audio, Codec::ac3},
    {eac3_atsc, audio, Codec::eac3},
});

// descriptor_tag_extension.
constexpr auto by_extension = std::to_array<Row<std::uint8_t>>({
    {0x0E, audio, Codec::dts}, // DTS-HD
    {0x0F, audio, Codec::dts}, // DTS Neural
    {0x15, audio, Codec::ac4},
    {0x20, subtitles, Codec::private_data}, // TTML
    {0x21, audio, Codec::dts},              // DTS-UHD
    {0x80, audio, Codec::opus},             // user private: channel configuration
});

std::optional<std::uint32_t> format_of(std::uint8_t tag, Bytes bytes) {
    if (tag != registration || bytes.size() < 4)
        return std::nullopt;
    return static_cast<std::uint32_t>(read_16(bytes, 0)) << 16 | read_16(bytes, 2);
}

std::string language_of(std::uint8_t tag, Bytes bytes) {
    const bool has_one =
        tag == iso_639_language || tag == teletext || tag == vbi_teletext || tag == subtitling;
    std::string text;
    for (std::size_t i = 0; has_one && bytes.size() >= 3 && i < 3; ++i)
        if (std::isalpha(bytes[i]) && bytes[i] < 0x80)
            text.push_back(static_cast<char>(bytes[i] | 0x20));
    return text.size() == 3 ? text : std::string();
}

bool declares_still(std::uint8_t tag, Bytes bytes) {
    const auto bit = [&](std::size_t at, unsigned mask) {
        return at < bytes.size() && (bytes[at] & mask) != 0;
    };
    switch (tag) {
    case video_stream:
        return bit(0, 0x01);
    case avc_video:
        return bit(3, 0x80);
    case hevc_video:
        return bit(12, 0x40);
    case vvc_video: { // behind the sub-profiles: flags, level, then the flag
        const std::size_t sub_profiles = bytes.size() > 1 ? bytes[1] : 0u;
        return bit(2 + 4 * sub_profiles + 2, 0x40);
    }
    default:
        return false;
    }
}

struct Guess {
    StreamKind kind;
    Codec codec;
};

// What one descriptor says about a stream whose type says little.
std::optional<Guess> hint(std::uint8_t tag, Bytes bytes) {
    const auto guess = [](const auto* row) {
        return row ? std::optional<Guess>({row->kind, row->codec}) : std::nullopt;
    };
    if (const auto format = format_of(tag, bytes))
        return guess(find(by_format, *format));
    if (tag == extension)
        return bytes.empty() ? std::nullopt : guess(find(by_extension, bytes[0]));
    if (tag == metadata) { // application_format(2), with 0xFFFF an identifier behind it, format
        const auto at = bytes.size() >= 2 && read_16(bytes, 0) == 0xFFFF ? 6u : 2u;
        const bool id3 = bytes.size() >= at + 5 && bytes[at] == 0xFF &&
                         format_of(registration, bytes.subspan(at + 1)) == id("ID3 ");
        return id3 ? std::optional<Guess>({data, Codec::id3}) : std::nullopt;
    }
    return guess(find(by_descriptor, tag));
}

bool is_layer_1(std::uint8_t tag, Bytes bytes) {
    return tag == audio_stream && !bytes.empty() && (bytes[0] >> 4 & 3) == 3;
}

} // namespace

StreamClass classify(std::uint8_t stream_type, Bytes descriptors, Bytes program_descriptors) {
    bool disc = false;
    const auto look_for_disc = [&](std::uint8_t tag, Bytes bytes) {
        disc = disc || format_of(tag, bytes) == disc_format;
    };
    each_descriptor(program_descriptors, look_for_disc);
    each_descriptor(descriptors, look_for_disc);

    StreamClass result;
    const Row<std::uint8_t>* row = disc ? find(by_disc_type, stream_type) : nullptr;
    if (!row)
        row = find(by_type, stream_type);
    if (row) {
        result.kind = row->kind;
        result.codec = row->codec;
    }
    // A type that is in use for one thing alone is believed, the others go by their descriptors.
    const bool open = stream_type == private_pes || stream_type == private_sections ||
                      stream_type == metadata_pes || (stream_type >= user_private && !disc);
    std::optional<Guess> guess;
    each_descriptor(descriptors, [&](std::uint8_t tag, Bytes bytes) {
        if (open && !guess)
            guess = hint(tag, bytes);
        if (result.language.empty())
            result.language = language_of(tag, bytes);
        result.still_picture = result.still_picture || declares_still(tag, bytes);
        if (result.codec == Codec::mp2 && is_layer_1(tag, bytes))
            result.codec = Codec::mp1;
    });
    if (guess) {
        result.kind = guess->kind;
        result.codec = guess->codec;
    }
    return result;
}

} // namespace quarn
