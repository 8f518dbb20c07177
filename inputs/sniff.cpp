#include "sniff.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace quarn::inputs {
namespace {

using namespace std::string_view_literals;
using Bytes = std::span<const std::uint8_t>;

constexpr std::string_view remux = "remux it to a transport stream first";
constexpr std::string_view unpack = "unpack it first";
constexpr std::string_view expected =
    "expected are packets of 188, 192 or 204 bytes, or a pcap of datagrams with them";

/// What begins with certain bytes, and what to do with it.
struct Format {
    std::size_t offset;
    std::string_view bytes;
    std::string_view name;
    std::string_view remedy;
};

constexpr Format formats[] = {
    {4, "ftyp"sv, "an MP4 file", remux},
    {4, "moov"sv, "an MP4 file", remux},
    {4, "mdat"sv, "an MP4 file", remux},
    {4, "styp"sv, "a fragment of an MP4 file", remux},
    {4, "moof"sv, "a fragment of an MP4 file", remux},
    {0, "\x1A\x45\xDF\xA3"sv, "a Matroska or WebM file", remux},
    {8, "AVI "sv, "an AVI file", remux},
    {8, "WAVE"sv, "a WAV file", remux},
    {0, "FLV\x01"sv, "an FLV file", remux},
    {0, "OggS"sv, "an Ogg file", remux},
    {0, "\x06\x0E\x2B\x34"sv, "an MXF file", remux},
    {0, "\x30\x26\xB2\x75"sv, "an ASF file", remux},
    {0, "\0\0\x01\xBA"sv, "an MPEG program stream", remux},
    {0, "\0\0\x01\xB3"sv, "MPEG video without packets", remux},
    {0, "\0\0\0\x01"sv, "H.264 or HEVC video without packets", remux},
    {0, "\0\0\x01"sv, "video or PES packets without transport packets", remux},
    {0, "ID3"sv, "audio without packets", remux},
    {0, "\xFF\xF1"sv, "AAC audio without packets", remux},
    {0, "\xFF\xF9"sv, "AAC audio without packets", remux},
    {0, "\xFF\xFB"sv, "MPEG audio without packets", remux},
    {0, "\xFF\xFD"sv, "MPEG audio without packets", remux},
    {0, "\x0B\x77"sv, "AC-3 audio without packets", remux},
    {0, "\x1F\x8B"sv, "compressed with gzip",
     "unpack it, or pipe it: gzip -dc FILE | quarn-check -"},
    {0, "\xFD\x37zXZ"sv, "compressed with xz",
     "unpack it, or pipe it: xz -dc FILE | quarn-check -"},
    {0, "\x28\xB5\x2F\xFD"sv, "compressed with zstd",
     "unpack it, or pipe it: zstd -dc FILE | quarn-check -"},
    {0, "BZh"sv, "compressed with bzip2", "unpack it, or pipe it: bzip2 -dc FILE | quarn-check -"},
    {0, "PK\x03\x04"sv, "a ZIP archive", unpack},
    {0, "7z\xBC\xAF\x27\x1C"sv, "a 7-Zip archive", unpack},
    {257, "ustar"sv, "a tar archive", unpack},
    {0, "#EXTM3U"sv, "an HLS playlist", "name its segments"},
    {0,
     "\x7F"
     "ELF"sv,
     "a program", expected},
    {0, "\x89PNG"sv, "a PNG image", expected},
    {0, "\xFF\xD8\xFF"sv, "a JPEG image", expected},
    {0, "GIF8"sv, "a GIF image", expected},
    {0, "%PDF"sv, "a PDF document", expected},
};

bool has(Bytes head, std::size_t offset, std::string_view bytes) {
    return head.size() >= offset + bytes.size() &&
           std::equal(bytes.begin(), bytes.end(),
                      head.begin() + static_cast<std::ptrdiff_t>(offset),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

bool is_text(Bytes head) {
    return std::ranges::all_of(head,
                               [](std::uint8_t byte) {
                                   return byte >= 0x80 || std::isprint(byte) ||
                                          std::isspace(byte) || byte == 0x1B;
                               }) &&
           std::ranges::count_if(head, [](std::uint8_t byte) { return byte >= 0x80; }) * 2 <
               static_cast<std::ptrdiff_t>(head.size());
}

std::string_view text_kind(Bytes head) {
    const auto first = std::ranges::find_if_not(head, [](int byte) { return std::isspace(byte); });
    if (first == head.end())
        return "text";
    const auto rest = head.subspan(static_cast<std::size_t>(first - head.begin()));
    if (has(rest, 0, "<?xml") || has(rest, 0, "<MPD"))
        return "an XML document";
    if (has(rest, 0, "<!") || has(rest, 0, "<html") || has(rest, 0, "<HTML"))
        return "a web page (was it downloaded from a page that asks to sign in?)";
    return "text";
}

} // namespace

bool is_pcap(Bytes head) {
    static constexpr std::string_view magics[] = {
        "\xA1\xB2\xC3\xD4"sv, "\xD4\xC3\xB2\xA1"sv, "\xA1\xB2\x3C\x4D"sv, "\x4D\x3C\xB2\xA1"sv,
        "\xA1\xB2\xCD\x34"sv, "\x34\xCD\xB2\xA1"sv, "\x0A\x0D\x0D\x0A"sv,
    };
    return std::ranges::any_of(magics, [&](auto magic) { return has(head, 0, magic); });
}

std::string describe_not_ts(Bytes head) {
    constexpr std::size_t packet = 188;
    std::string_view name = head.size() < packet
                                ? "shorter than one packet"
                                : "binary data without packets (encrypted segments look like this)";
    std::string_view remedy = expected;
    const auto known = std::ranges::find_if(
        formats, [&](const Format& format) { return has(head, format.offset, format.bytes); });
    if (known != std::end(formats)) {
        name = known->name;
        remedy = known->remedy;
    } else if (std::ranges::all_of(head, [](int byte) { return byte == 0; })) {
        name = "nothing but zero bytes";
    } else if (const Bytes begin = head.first(std::min<std::size_t>(head.size(), 4096));
               is_text(begin)) {
        name = text_kind(begin);
    }
    std::string text(name);
    text += ", not a transport stream: ";
    text += remedy;
    return text;
}

} // namespace quarn::inputs
