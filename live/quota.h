// At most so many records of an input in a minute (q.13).
#pragma once

#include <cstdint>
#include <optional>

#include "measure/finding.h"

namespace quarn::live {

/// Counts by the clock of arrival; what it leaves out it counts.
class Quota {
  public:
    static constexpr std::uint64_t a_minute = 1000;
    static constexpr Ticks minute = 60 * ticks_per_second;

    /// Whether one more may be written now.
    bool take(Ticks now) {
        if (now - begin_ >= minute || now < begin_)
            begin(now);
        if (taken_ < a_minute) {
            ++taken_;
            return true;
        }
        leave_out(now);
        return false;
    }
    /// One more is left out.
    void leave_out(Ticks now) {
        ++left_out_;
        last_left_out_ = now;
    }
    /// How many were left out since reset().
    std::uint64_t left_out() const { return left_out_; }
    /// Nothing was left out for a minute.
    bool quiet(Ticks now) const { return left_out_ == 0 || now - last_left_out_ >= minute; }
    void reset() { left_out_ = 0; }

  private:
    void begin(Ticks now) {
        begin_ = now;
        taken_ = 0;
    }

    Ticks begin_ = 0;
    Ticks last_left_out_ = 0;
    std::uint64_t taken_ = 0;
    std::uint64_t left_out_ = 0;
};

} // namespace quarn::live
