// Whether anything comes from an input, in words: receivers know of connections and interfaces, and
// nothing of silence.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "input_state.h"
#include "inputs/consumer.h"
#include "measure/finding.h"

namespace quarn::live {

/// Puts together what the receiver says and what comes. One thread.
class Signal {
  public:
    struct State {
        InputState state = InputState::waiting;
        std::string text; // for people
    };

    /// Nothing for `limit` (ticks), and the input is gone. `unit`: what it is to get, in the
    /// plural.
    Signal(Ticks limit, std::string_view unit) : limit_(limit), unit_(unit) {}

    /// The receiver's own word, at `now`; returns what there is to say then.
    State said(InputState state, std::string_view text, const inputs::Arrival& now);
    /// A datagram, before its packets: the new state if it was silent before.
    std::optional<State> datagram(const inputs::Arrival& when) {
        ++strange_;
        const inputs::Arrival before = std::exchange(last_, when);
        return silent_ ? std::optional(back(before, when)) : std::nullopt;
    }
    void packet() {
        strange_ = 0;
        strange_since_ = no_time;
    }
    /// Several times a second: the new state, if it is another one.
    std::optional<State> look(const inputs::Arrival& now);

  private:
    State back(const inputs::Arrival& before, const inputs::Arrival& when);
    std::optional<State> silence();
    std::optional<State> look_at_strange(Ticks now);

    const Ticks limit_;
    const std::string unit_;
    std::optional<State> said_; // by the receiver
    inputs::Arrival last_{};    // something came, or the receiver had news
    bool silent_ = false;       // and that was said
    bool waits_ = false;        // nothing came yet, and that was not said
    std::uint64_t strange_ = 0; // datagrams since the last packet
    Ticks strange_since_ = no_time;
    Ticks strange_told_ = no_time; // last
    bool strange_now_ = false;     // it was the last that was said
};

} // namespace quarn::live
