// Jumps and drifts of audio stamps.
#include "audio_steps.h"

#include <algorithm>
#include <cmath>

namespace quarn {

namespace {

constexpr double ticks_per_ms_90k = 90;
constexpr double second = 90'000;
/// A step behind a large one belongs to the same drift from here on, or from that share of it on.
constexpr double drift_step = 1.5 * ticks_per_ms_90k;
constexpr double drift_share = 0.1;
/// Free-running sampling clocks differ by less from the system clock, per unit of time; receivers
/// follow that.
constexpr double sampling_clock = 100e-6;
/// The sum counts as unmoved within this, and a drift is over when it stays so.
constexpr double unmoved = 0.5 * ticks_per_ms_90k;
constexpr double still_time = 5 * second;

bool same_sign(double a, double b) {
    return (a < 0) == (b < 0);
}

} // namespace

std::optional<AudioFault> AudioSteps::step(const AudioStep& step) {
    if (lead_count_ == 0)
        note_lead(lead_);
    const double lead_before = usual_lead();
    lead_ += step.stamps - step.clock;
    const double off = step.stamps - step.frames;
    std::optional<AudioFault> fault;
    if (waiting_) {
        fault = decide(step);
        if (fault && fault->kind == Kind::drift) {
            note_lead(lead_);
            return fault;
        }
    }
    sent_ += step.frames;
    if (std::abs(off) <= limit_) {
        note_lead(lead_);
        if (std::optional<AudioFault> drift = sum(step); drift && !fault)
            fault = drift;
        return fault;
    }
    if (drifting_ && same_sign(off, upwards_ ? 1 : -1)) {
        note_lead(lead_);
        return fault;
    }
    waiting_ = step;
    lead_usual_ = lead_before;
    return fault;
}

std::optional<AudioFault> AudioSteps::flush() {
    if (!waiting_)
        return std::nullopt;
    const double off = waiting_->stamps - waiting_->frames;
    const AudioFault fault{Kind::jump, waiting_->from,        waiting_->to, off,
                           0,          is_silence(off, lead_)};
    waiting_.reset();
    lead_count_ = 0;
    return fault;
}

std::optional<AudioFault> AudioSteps::restart() {
    const std::optional<AudioFault> fault = flush();
    *this = AudioSteps(limit_);
    return fault;
}

void AudioSteps::note_lead(double lead) {
    leads_[lead_count_++ % leads_.size()] = lead;
}

double AudioSteps::usual_lead() const {
    std::array<double, 8> sorted = leads_;
    const std::size_t count = std::min(lead_count_, sorted.size());
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(sorted.begin(), middle, sorted.begin() + static_cast<std::ptrdiff_t>(count));
    return *middle;
}

/// Did the stamps keep their distance from the clock, rather than move by `off` against it?
bool AudioSteps::is_silence(double off, double lead) const {
    return off > 0 && lead - lead_usual_ < off / 2;
}

/// A large step waited; `step` is the one behind it.
std::optional<AudioFault> AudioSteps::decide(const AudioStep& step) {
    const AudioStep first = *waiting_;
    const double off = first.stamps - first.frames;
    const double next_off = step.stamps - step.frames;
    const bool goes_on = same_sign(off, next_off) &&
                         std::abs(next_off) > std::max(drift_step, drift_share * std::abs(off));
    waiting_.reset();
    if (goes_on) {
        drifting_ = true;
        upwards_ = off > 0;
        sum_ = rest_sum_ = mark_sum_ = 0;
        mark_sent_ = rest_sent_ = sent_ += step.frames;
        rest_ = step.to;
        const double both = off + next_off;
        return AudioFault{Kind::drift,
                          first.from,
                          first.to,
                          both,
                          both / (first.frames + step.frames),
                          is_silence(both, lead_)};
    }
    const double lead_behind = lead_ - (step.stamps - step.clock); // at the large step
    // Packets come in bursts: two arrivals tell more than one.
    const bool silence = is_silence(off, (lead_behind + lead_ - next_off) / 2);
    lead_count_ = 0; // the distance from the clock is another one now
    note_lead(lead_behind);
    return AudioFault{Kind::jump, first.from, first.to, off, 0, silence};
}

std::optional<AudioFault> AudioSteps::sum(const AudioStep& step) {
    if (!rest_)
        rest_ = step.from;
    sum_ += step.stamps - step.frames;
    find_rest(step);
    if (std::abs(sum_) <= limit_)
        return std::nullopt;
    const double moved = sum_ - rest_sum_;
    const double sent = sent_ - rest_sent_;
    if (sent <= 0) { // no frames: what was taken for some is something else
        *this = AudioSteps(limit_);
        return std::nullopt;
    }
    const Place begin = off_rest_.value_or(*rest_);
    const AudioFault fault{Kind::drift, *rest_, begin, sum_, moved / sent, false};
    const bool known = drifting_ && upwards_ == (sum_ > 0);
    drifting_ = std::abs(moved) >= unmoved && std::abs(moved) > sampling_clock * sent;
    upwards_ = sum_ > 0;
    sum_ = rest_sum_ = mark_sum_ = 0;
    rest_sent_ = mark_sent_ = sent_;
    rest_ = step.to;
    off_rest_.reset();
    if (known || !drifting_)
        return std::nullopt;
    return fault;
}

/// Where did the stamps last stand still? That is where a drift began.
void AudioSteps::find_rest(const AudioStep& step) {
    if (std::abs(sum_ - rest_sum_) < unmoved) {
        rest_ = step.to;
        rest_sent_ = sent_;
        off_rest_.reset();
    } else if (!off_rest_) {
        off_rest_ = step.to;
    }
    if (sent_ - mark_sent_ < still_time)
        return;
    if (std::abs(sum_ - mark_sum_) < unmoved) { // wherever that is
        drifting_ = false;
        rest_sum_ = sum_;
        rest_ = step.to;
        rest_sent_ = sent_;
        off_rest_.reset();
    }
    mark_sum_ = sum_;
    mark_sent_ = sent_;
}

} // namespace quarn
