// The stamps of an audio stream against the time of its frames: jumps and drifts.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

#include "finding.h"

namespace quarn {

/// From one time stamp of an audio stream to the next; times in 90 kHz ticks.
struct AudioStep {
    Place from;
    Place to;
    double stamps = 0; // distance of the stamps, signed
    double frames = 0; // what the frames account for
    double clock = 0;  // distance of the arrivals on the stream clock
};

/// Where the stamps of an audio stream left its frames.
struct AudioFault {
    Kind kind = Kind::jump; // jump, drift
    Place from;
    Place to;             // where it shows first
    double off = 0;       // by how much, in 90 kHz ticks, signed
    double speed = 0;     // drift: by how much in a unit of time, signed
    bool silence = false; // nothing was sent meanwhile: the stamps are right
};

/// Sees each step of one stream in order. A step that is off by more than the limit waits for the
/// next one, which tells a jump from a drift. What is off by less is summed up, and a drift as
/// well when the sum is over the limit. Rounded stamps add up to nothing.
class AudioSteps {
  public:
    /// `limit` in 90 kHz ticks.
    explicit AudioSteps(double limit) : limit_(limit) {}

    std::optional<AudioFault> step(const AudioStep& step);
    /// Steps do not follow on each other here: decides what waits for another one.
    std::optional<AudioFault> restart();
    /// The same where the next one does not come, without forgetting the rest.
    std::optional<AudioFault> flush();
    /// The step that waits for another one.
    const std::optional<AudioStep>& waiting() const { return waiting_; }

  private:
    void note_lead(double lead);
    double usual_lead() const;
    bool is_silence(double off, double lead) const;
    std::optional<AudioFault> decide(const AudioStep& step);
    std::optional<AudioFault> sum(const AudioStep& step);
    void find_rest(const AudioStep& step);

    double limit_;
    std::optional<AudioStep> waiting_;
    double lead_ = 0;       // of the stamps over the stream clock since the restart
    double lead_usual_ = 0; // the same before waiting_
    std::array<double, 8> leads_{};
    std::size_t lead_count_ = 0;

    bool drifting_ = false;
    bool upwards_ = false; // the drift
    double sent_ = 0;      // frames since the restart
    double sum_ = 0;       // of what was off
    // The stamps stood still against the frames, at that sum, up to there:
    double rest_sum_ = 0;
    double rest_sent_ = 0;
    std::optional<Place> rest_;
    std::optional<Place> off_rest_; // the first stamp behind it
    // A while ago:
    double mark_sum_ = 0;
    double mark_sent_ = 0;
};

} // namespace quarn
