// The distance of the decoding stamps of a video stream: pictures that are not there.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace quarn {

/// Learns the distance of pictures from the last steps of DTS. Speaks only where nearly all of them
/// are the same: film on 60 Hz and variable frame rates have steps of other lengths by right.
class PictureSteps {
  public:
    /// DTS went on by `ticks` (90 kHz) over so many PES starts, one picture each. Returns by how
    /// much it is more than the pictures account for, if that is a picture or more.
    std::optional<double> step(std::int64_t ticks, std::uint32_t starts);

  private:
    std::optional<double> usual() const;
    void note(double ticks);

    std::array<double, 40> steps_{};
    std::size_t count_ = 0; // ever
};

} // namespace quarn
