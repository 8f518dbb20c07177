// The words of stream kinds and codecs, as records have them.
#include <array>

#include "summary.h"

namespace quarn {

std::string_view word(StreamKind kind) {
    static constexpr std::array<std::string_view, 7> words = {
        "video", "audio", "subtitles", "teletext", "scte35", "data", "unknown"};
    return words[static_cast<std::size_t>(kind)];
}

std::string_view word(Codec codec) {
    static constexpr std::array words = std::to_array<std::string_view>({
        "unknown",      "mpeg1video",   "mpeg2video", "mpeg4video", "h264",     "hevc",
        "vvc",          "avs",          "avs2",       "avs3",       "dirac",    "vc1",
        "jpeg2000",     "mp1",          "mp2",        "aac",        "aac_latm", "ac3",
        "eac3",         "ac4",          "dts",        "opus",       "lpcm",     "mpegh",
        "dvb_subtitle", "dvb_teletext", "scte35",     "id3",        "dsmcc",    "private_data",
    });
    static_assert(words.size() == static_cast<std::size_t>(Codec::private_data) + 1);
    return words[static_cast<std::size_t>(codec)];
}

} // namespace quarn
