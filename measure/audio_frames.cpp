// Frame headers of the audio codecs, and keeping in step with them.
#include "audio_frames.h"

#include <algorithm>

namespace quarn {

namespace {

using Bytes = std::span<const std::uint8_t>;

/// Time of so many samples; the rate divides audio_time_per_second.
constexpr AudioTime time_of(unsigned samples, unsigned rate) {
    return audio_time_per_second / rate * samples;
}

/// Bits from the most significant one on; 0 behind the end.
class Bits {
  public:
    explicit Bits(Bytes bytes) : bytes_(bytes) {}
    unsigned take(unsigned count) {
        unsigned value = 0;
        for (; count > 0; --count, ++at_) {
            const unsigned bit =
                at_ / 8 < bytes_.size() ? bytes_[at_ / 8] >> (7 - at_ % 8) & 1u : 0u;
            value = value << 1 | bit;
        }
        return value;
    }

  private:
    Bytes bytes_;
    std::size_t at_ = 0;
};

struct Frame {
    unsigned bytes = 0;
    AudioTime time = 0;
};

constexpr std::array<unsigned, 13> aac_rates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                22050, 16000, 12000, 11025, 8000,  7350};

// ISO/IEC 11172-3, 2.4.1.3, and its extensions to lower rates. kbit/s; 0 is the free format, which
// does not say where a frame ends.
Frame mpeg_frame(Bytes b) {
    static constexpr std::array<std::array<std::uint16_t, 15>, 5> kilobits = {{
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448}, // layer I
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},    // layer II
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},     // layer III
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},    // low rates, I
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},         // the others
    }};
    static constexpr std::array<unsigned, 3> rates = {44100, 48000, 32000};
    const unsigned version = b[1] >> 3 & 3; // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
    const unsigned layer = 4 - (b[1] >> 1 & 3);
    const unsigned bit_rate = b[2] >> 4;
    const unsigned rate_index = b[2] >> 2 & 3;
    if (version == 1 || layer == 4 || bit_rate == 0 || bit_rate == 15 || rate_index == 3)
        return {};
    const unsigned rate = rates[rate_index] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    const unsigned row = version == 3 ? layer - 1 : layer == 1 ? 3 : 4;
    const unsigned bits = kilobits[row][bit_rate] * 1000u;
    const unsigned padding = b[2] >> 1 & 1;
    if (layer == 1)
        return {(12 * bits / rate + padding) * 4, time_of(384, rate)};
    const unsigned samples = layer == 3 && version != 3 ? 576 : 1152;
    return {samples / 8 * bits / rate + padding, time_of(samples, rate)};
}

// ISO/IEC 14496-3, 1.A.2.2. With SBR the header tells the core's rate and samples: half of both.
Frame adts_frame(Bytes b) {
    const unsigned rate_index = b[2] >> 2 & 15;
    const unsigned bytes = (b[3] & 3u) << 11 | b[4] * 8u | b[5] >> 5;
    if (rate_index >= aac_rates.size() || bytes < 7)
        return {};
    return {bytes, time_of(1024 * (1u + (b[6] & 3)), aac_rates[rate_index])};
}

// ETSI TS 102 366, 4.4 and annex E. Only the first independent substream is time.
Frame ac3_frame(Bytes b) {
    static constexpr std::array<unsigned, 3> rates = {48000, 44100, 32000};
    static constexpr std::array<unsigned, 19> kilobits = {
        32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 448, 512, 576, 640};
    const unsigned bsid = b[5] >> 3;
    const unsigned code = b[4] >> 6;
    if (bsid <= 10) {
        const unsigned size = b[4] & 63;
        if (code == 3 || size >= 2 * kilobits.size())
            return {};
        const unsigned rate = kilobits[size / 2];
        const unsigned words = code == 0   ? rate * 2
                               : code == 1 ? rate * 96000 / 44100 + (size & 1)
                                           : rate * 3;
        return {words * 2, time_of(1536, rates[code]) << (bsid > 8 ? bsid - 8 : 0)};
    }
    const unsigned bytes = ((b[2] & 7u) * 256 + b[3] + 1) * 2;
    const unsigned blocks_code = b[4] >> 4 & 3;
    if (bsid > 16 || bytes < 8 || (code == 3 && blocks_code == 3))
        return {};
    const bool is_time = b[2] >> 6 != 1 && (b[2] >> 3 & 7) == 0;
    if (!is_time)
        return {bytes, 0};
    static constexpr std::array<unsigned, 4> blocks = {1, 2, 3, 6};
    if (code == 3) // half the rate, of which blocks_code is the index
        return {bytes, 2 * time_of(1536, rates[blocks_code])};
    return {bytes, time_of(256 * blocks[blocks_code], rates[code])};
}

// ETSI TS 102 114, 5.3.1: the core.
Frame dts_core_frame(Bytes b) {
    static constexpr std::array<unsigned, 16> rates = {
        0, 8000, 16000, 32000, 0, 0, 11025, 22050, 44100, 0, 0, 12000, 24000, 48000, 0, 0};
    Bits bits(b.subspan(4));
    bits.take(1 + 5 + 1); // frame type, samples short, CRC present
    const unsigned blocks = bits.take(7) + 1;
    const unsigned bytes = bits.take(14) + 1;
    bits.take(6); // channels
    const unsigned rate = rates[bits.take(4)];
    if (rate == 0 || blocks < 6 || bytes < 96)
        return {};
    return {bytes, time_of(32 * blocks, rate)};
}

// The same, 7.4.1: an extension, which stands behind the core that it belongs to.
Frame dts_extension(Bytes b) {
    Bits bits(b.subspan(5));
    bits.take(2);
    const bool is_long = bits.take(1) != 0;
    bits.take(is_long ? 12 : 8);
    const unsigned bytes = bits.take(is_long ? 20 : 16) + 1;
    return {bytes < 16 ? 0 : bytes, 0};
}

/// How a frame begins, and how many of its bytes its header takes.
struct Sync {
    std::array<std::uint8_t, 4> bits;
    std::array<std::uint8_t, 4> mask;
    std::size_t header;
    Frame (*frame)(Bytes);

    /// The bytes that are there are right.
    bool fits(Bytes b) const {
        for (std::size_t i = 0; i < std::min<std::size_t>(b.size(), 4); ++i)
            if ((b[i] & mask[i]) != bits[i])
                return false;
        return true;
    }
};

constexpr Sync mpeg_sync = {{0xFF, 0xE0}, {0xFF, 0xE0}, 4, mpeg_frame};
constexpr Sync adts_sync = {{0xFF, 0xF0}, {0xFF, 0xF6}, 7, adts_frame};
constexpr Sync ac3_sync = {{0x0B, 0x77}, {0xFF, 0xFF}, 6, ac3_frame};
constexpr Sync latm_sync = {{0x56, 0xE0}, {0xFF, 0xE0}, 3, nullptr};
constexpr Sync dts_sync = {{0x7F, 0xFE, 0x80, 0x01}, {0xFF, 0xFF, 0xFF, 0xFF}, 10, dts_core_frame};
constexpr Sync dts_extension_sync = {
    {0x64, 0x58, 0x20, 0x25}, {0xFF, 0xFF, 0xFF, 0xFF}, 10, dts_extension};

/// LatmGetValue() of ISO/IEC 14496-3, 1.7.3.
unsigned latm_value(Bits& bits) {
    unsigned value = 0;
    for (unsigned n = bits.take(2) + 1; n > 0; --n)
        value = value << 8 | bits.take(8);
    return value;
}

/// Time of a frame by an AudioSpecificConfig, 0 where it is of another kind than AAC's.
AudioTime configured_time(Bits& bits) {
    const unsigned object = bits.take(5);
    const unsigned rate_index = bits.take(4);
    const unsigned rate = rate_index < aac_rates.size() ? aac_rates[rate_index]
                          : rate_index == 15            ? bits.take(24)
                                                        : 0;
    bits.take(4); // channels
    unsigned core = object;
    if (object == 5 || object == 29) { // SBR: the rate before was the core's
        if (bits.take(4) == 15)
            bits.take(24);
        core = bits.take(5);
    }
    const bool is_aac = (core >= 1 && core <= 4) || core == 6 || core == 7;
    if (!is_aac || rate == 0 || audio_time_per_second % rate != 0)
        return 0;
    return time_of(bits.take(1) ? 960 : 1024, rate);
}

/// Time of an AudioMuxElement with its StreamMuxConfig (1.7.3.1), 0 where it is not understood.
AudioTime mux_time(Bits& bits) {
    const bool later_version = bits.take(1) != 0;
    if (later_version) {
        if (bits.take(1) != 0)
            return 0;
        latm_value(bits); // taraBufferFullness
    }
    bits.take(1); // allStreamsSameTimeFraming
    const unsigned frames = bits.take(6) + 1;
    const unsigned other_programs = bits.take(4);
    bits.take(3); // layers
    if (other_programs != 0)
        return 0;
    if (later_version)
        latm_value(bits); // length of the AudioSpecificConfig
    return configured_time(bits) * frames;
}

} // namespace

bool AudioFrames::counts(Codec codec) {
    switch (codec) {
    case Codec::mp1:
    case Codec::mp2:
    case Codec::aac:
    case Codec::aac_latm:
    case Codec::ac3:
    case Codec::eac3:
    case Codec::dts:
        return true;
    default:
        return false;
    }
}

void AudioFrames::lose() {
    state_ = State::lost;
    whole_ = false;
    row_ = 0;
    held_ = 0;
    skip_ = SIZE_MAX;
}

std::optional<AudioTime> AudioFrames::take() {
    std::optional<AudioTime> time;
    if (state_ == State::in_step && whole_) {
        if (held_ > 0 && !paid_) { // begun, but its header is not complete
            sum_ += last_;
            paid_ = true;
        }
        time = sum_;
    }
    sum_ = 0;
    whole_ = true;
    return time;
}

void AudioFrames::start_unit() {
    if (state_ == State::in_step)
        return;
    state_ = State::searching;
    held_ = 0;
    skip_ = 0;
}

void AudioFrames::read(Bytes bytes) {
    if (state_ == State::lost) {
        skip_ = SIZE_MAX;
        return;
    }
    std::size_t at = skip_;
    skip_ = 0;
    while (at < bytes.size() && state_ != State::lost) {
        if (held_ > 0) {
            at += gather(bytes.subspan(at));
        } else {
            const Header header = parse(bytes.subspan(at));
            if (header.more) {
                held_ = static_cast<std::uint8_t>(bytes.size() - at);
                std::copy(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end(),
                          head_.begin());
                return;
            }
            if (header.bytes > 0) {
                accept(header);
            } else if (state_ == State::searching) {
                whole_ = false;
                ++at;
                continue;
            } else {
                lose();
                return;
            }
        }
        if (skip_ > bytes.size() - at) {
            skip_ -= bytes.size() - at;
            return;
        }
        at += skip_;
        skip_ = 0;
    }
}

/// Completes a header of which the first bytes came before; what is still to come of its frame
/// stands in skip_ then. Returns how many bytes were used up without a frame being found.
std::size_t AudioFrames::gather(Bytes bytes) {
    const std::size_t added = std::min(longest_header - held_, bytes.size());
    std::copy_n(bytes.begin(), added, head_.begin() + held_);
    const Header header = parse({head_.data(), held_ + added});
    if (header.more && added == bytes.size()) {
        held_ = static_cast<std::uint8_t>(held_ + added);
        return added;
    }
    if (header.bytes > held_) {
        const std::size_t before = held_;
        held_ = 0;
        accept(header);
        skip_ = header.bytes - before;
        return 0;
    }
    held_ = 0;
    if (state_ == State::searching)
        whole_ = false; // goes on searching behind the bytes that were held
    else
        lose();
    return 0;
}

void AudioFrames::accept(const Header& header) {
    state_ = State::in_step;
    skip_ = header.bytes;
    if (!paid_)
        sum_ += header.time;
    paid_ = false;
    if (header.time > 0)
        last_ = header.time;
    if (row_ < 2)
        ++row_;
    if (row_ == 2 && last_ > 0)
        found_ = true;
}

AudioFrames::Header AudioFrames::parse(Bytes bytes) {
    const auto by = [&](const Sync& sync) -> Header {
        if (!sync.fits(bytes))
            return {};
        if (bytes.size() < sync.header)
            return {0, 0, true};
        const Frame frame = sync.frame(bytes);
        return {frame.bytes, frame.time, false};
    };
    switch (codec_) {
    case Codec::mp1:
    case Codec::mp2:
        return by(mpeg_sync);
    case Codec::aac:
        return by(adts_sync);
    case Codec::aac_latm:
        return parse_latm(bytes);
    case Codec::ac3:
    case Codec::eac3:
        return by(ac3_sync);
    case Codec::dts: {
        const Header core = by(dts_sync);
        return core.more || core.bytes > 0 ? core : by(dts_extension_sync);
    }
    default:
        return {};
    }
}

/// AudioSyncStream() (ISO/IEC 14496-3, 1.7.2). The configuration need not be in every frame; a
/// frame before the first one is not understood.
AudioFrames::Header AudioFrames::parse_latm(Bytes bytes) {
    if (!latm_sync.fits(bytes))
        return {};
    if (bytes.size() < latm_sync.header)
        return {0, 0, true};
    const std::size_t length = (bytes[1] & 0x1Fu) << 8 | bytes[2];
    if (length < 2)
        return {};
    const std::size_t needed = std::min(longest_header, latm_sync.header + length);
    if (bytes.size() < needed)
        return {0, 0, true};
    Bits bits(bytes.subspan(latm_sync.header, needed - latm_sync.header));
    const bool same_configuration = bits.take(1) != 0;
    if (!same_configuration)
        latm_time_ = mux_time(bits);
    if (latm_time_ <= 0)
        return {};
    return {latm_sync.header + length, latm_time_, false};
}

} // namespace quarn
