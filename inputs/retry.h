// When to try again what failed, and how long it was away.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "moment.h"

namespace quarn::inputs {

/// Attempts behind a failure: after 1 s, then after twice as long each time, up to 30 s. Times are
/// of the monotonic clock.
class Retry {
  public:
    static constexpr std::int64_t shortest = ns_per_s;
    static constexpr std::int64_t longest = 30 * ns_per_s;

    bool away() const { return away_; }
    /// It is gone since `now_ns`, or an attempt failed.
    void failed(std::int64_t now_ns) {
        if (!away_)
            since_ns_ = now_ns;
        away_ = true;
        next_ns_ = now_ns + pause_ns_;
        pause_ns_ = std::min(2 * pause_ns_, longest);
    }
    /// The next attempt is as if it were the first.
    void soon(std::int64_t now_ns) {
        next_ns_ = now_ns;
        pause_ns_ = shortest;
    }
    bool due(std::int64_t now_ns) const { return now_ns >= next_ns_; }
    void back(std::int64_t now_ns) {
        away_ = false;
        soon(now_ns);
    }
    /// For how long it has been away, or was the last time: "12.3 s".
    std::string gone_for(std::int64_t now_ns) const {
        char text[32];
        (void)std::snprintf(text, sizeof text, "%.1f s",
                            static_cast<double>(now_ns - since_ns_) /
                                static_cast<double>(ns_per_s));
        return text;
    }

  private:
    bool away_ = false;
    std::int64_t since_ns_ = 0;
    std::int64_t next_ns_ = 0;
    std::int64_t pause_ns_ = shortest;
};

} // namespace quarn::inputs
