// Who sends the datagrams of an input: one sender at a time, or several whose streams get mixed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "endpoint.h"

namespace quarn::inputs {

/// A sender that is started again has another port, so one that takes the place of another is
/// news; datagrams that change to and fro within a second are several senders at one address. What
/// anybody sends has no effect on how often it is told: not more than once a minute each.
class Senders {
  public:
    /// Where a datagram came from.
    void add(const Endpoint& from) {
        if (from == now_)
            return;
        if (now_)
            ++changes_;
        else
            told_ = from; // by text()
        before_ = now_;
        now_ = from;
    }

    /// "receiving datagrams from 10.0.0.7:5000", or what add() said last; empty before the first.
    std::string text() const;
    /// Once a second (monotonic clock): the new text if there is news.
    std::optional<std::string> look(std::int64_t now_ns);

  private:
    std::optional<Endpoint> now_;
    std::optional<Endpoint> before_;
    std::optional<Endpoint> told_;
    unsigned changes_ = 0; // since the last look
    bool several_ = false;
    std::int64_t several_ns_ = 0;      // when they were last seen
    std::int64_t several_told_ns_ = 0; // 0: never
    std::int64_t told_ns_ = 0;         // that one took the place of another; 0: never
};

} // namespace quarn::inputs
