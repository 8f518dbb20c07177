// Counts the audio frames of an elementary stream, over packet and PES borders, and so the time
// that its time stamps have to account for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "summary.h"

namespace quarn {

/// Time of audio in parts of which a sample of every rate in use (7350 Hz to 192 kHz) has a whole
/// number, and a tick of 90 kHz as well: sums are exact.
using AudioTime = std::int64_t;
inline constexpr AudioTime audio_time_per_second = 141'120'000;
inline constexpr AudioTime audio_time_per_tick = audio_time_per_second / 90'000;

/// Finds the frames of MPEG-1, -2 and -2.5 audio (ISO/IEC 11172-3, 13818-3), AAC in ADTS and in
/// LATM/LOAS (14496-3), AC-3 and E-AC-3 (ETSI TS 102 366) and DTS (ETSI TS 102 114) by their
/// headers. Where a frame does not follow on the one before, it looks for the next one that does.
/// Never allocates; safe on any bytes.
class AudioFrames {
  public:
    /// Whether frames of that codec can be counted.
    static bool counts(Codec codec);

    explicit AudioFrames(Codec codec) : codec_(codec) {}

    /// Bytes are missing here: nothing is counted before the next PES packet begins.
    void lose();
    /// Time of the frames whose first byte came since the last call, and begins anew. Not set: not
    /// all of them were seen. To be called before start_unit() of a PES packet with a stamp.
    std::optional<AudioTime> take();
    /// A PES packet begins: where frames are looked for, its first byte is the place to try.
    void start_unit();
    /// The next bytes of the elementary stream.
    void feed(std::span<const std::uint8_t> bytes) {
        if (bytes.size() <= skip_)
            skip_ -= bytes.size();
        else
            read(bytes);
    }
    /// Frames were found in this stream, now or before.
    bool found() const { return found_; }

  private:
    enum class State : std::uint8_t {
        lost,      // waits for the next PES packet
        searching, // looks for a frame
        in_step,   // a frame begins behind skip_ bytes
    };
    /// What a frame header says; `bytes` 0: it is none.
    struct Header {
        std::size_t bytes = 0;
        AudioTime time = 0; // 0: a part of the frame before it
        bool more = false;  // cannot be told before more bytes are there
    };

    void read(std::span<const std::uint8_t> bytes);
    std::size_t gather(std::span<const std::uint8_t> bytes);
    void accept(const Header& header);
    Header parse(std::span<const std::uint8_t> bytes);
    Header parse_latm(std::span<const std::uint8_t> bytes);

    static constexpr std::size_t longest_header = 24;

    Codec codec_;
    State state_ = State::lost;
    bool whole_ = false;    // no frame since take() was missed
    bool paid_ = false;     // the frame whose header is being gathered is in a sum already
    bool found_ = false;    // see found()
    std::uint8_t row_ = 0;  // frames in step, counted up to 2
    std::uint8_t held_ = 0; // bytes of a header that is not complete
    std::array<std::uint8_t, longest_header> head_{};
    std::size_t skip_ = SIZE_MAX; // bytes that need no look
    AudioTime sum_ = 0;
    AudioTime last_ = 0;      // of the last frame
    AudioTime latm_time_ = 0; // of a LATM frame, from the last configuration
};

} // namespace quarn
