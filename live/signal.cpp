#include "live/signal.h"

#include <cstdio>

#include "reports/words.h"

namespace quarn::live {
namespace {

constexpr Ticks strange_after = ticks_per_second; // RTP holds packets back, for less than that
constexpr Ticks strange_again = 60 * ticks_per_second;

/// To the second.
std::string moment_text(std::int64_t utc_us) {
    const std::string text = utc_text(utc_us);
    return text.substr(0, text.find('.')) + "Z";
}

std::string seconds_text(Ticks ticks) {
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f s",
                        static_cast<double>(ticks) / static_cast<double>(ticks_per_second));
    return text;
}

} // namespace

Signal::State Signal::said(InputState state, std::string_view text, const inputs::Arrival& now) {
    const bool news = !said_ || state != said_->state;
    said_ = State{state, std::string(text)};
    strange_now_ = false;
    waits_ = news && state == InputState::waiting;
    if (news) {
        silent_ = false;
        last_ = now;
    }
    return silent_ ? State{InputState::gone, said_->text} : *said_;
}

Signal::State Signal::back(const inputs::Arrival& before, const inputs::Arrival& when) {
    silent_ = strange_now_ = false;
    return {InputState::up, "receiving " + unit_ + " again; it was away for " +
                                seconds_text(when.ticks - before.ticks)};
}

std::optional<Signal::State> Signal::look(const inputs::Arrival& now) {
    if (!said_)
        return std::nullopt;
    if (last_.ticks == no_time)
        last_ = now;
    if (now.ticks - last_.ticks >= limit_)
        return silence();
    return look_at_strange(now.ticks);
}

std::optional<Signal::State> Signal::silence() {
    if (std::exchange(waits_, false))
        return State{said_->state, said_->text + "; no " + unit_ + " yet"};
    if (silent_ || said_->state != InputState::up)
        return std::nullopt;
    silent_ = true;
    std::string text = "no " + unit_ + " since " + moment_text(last_.utc_us);
    if (strange_now_)
        text += "; the last " + std::to_string(strange_) + " had no packets of a transport stream";
    return State{InputState::gone, text};
}

/// Datagrams of something else, such as another kind of stream.
std::optional<Signal::State> Signal::look_at_strange(Ticks now) {
    if (strange_ == 0) {
        if (!std::exchange(strange_now_, false))
            return std::nullopt;
        return State{said_->state, "receiving packets of a transport stream"};
    }
    if (strange_since_ == no_time)
        strange_since_ = now;
    const bool due = strange_told_ == no_time || now - strange_told_ >= strange_again;
    if (now - strange_since_ < strange_after || !due)
        return std::nullopt;
    strange_told_ = now;
    strange_now_ = true;
    return State{said_->state,
                 std::to_string(strange_) + " " + unit_ + " without packets of a transport stream"};
}

} // namespace quarn::live
