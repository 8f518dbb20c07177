// Things that are not as expected, from where they begin to where they are right again (q.11).
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "finding.h"
#include "gaps.h"
#include "output.h"

namespace quarn {

/// What a deviation is about. Each is one finding.
struct Thing {
    enum class Aspect : std::uint8_t {
        service, // there or not
        name,
        pmt_pid,
        pcr_pid,
        stream, // there, and what it is
        scrambling,
        other_service, // nobody expects it
        other_stream,
        table,
        bitrate,
        rate,
    };
    Aspect aspect = Aspect::service;
    std::size_t service = 0; // index in the expectation, or the number of another one
    std::size_t item = 0;    // index of a stream or table, the pid of another stream

    auto operator<=>(const Thing&) const = default;
};

struct Deviation {
    TableChange change;
    std::vector<std::uint16_t> programs;
    std::optional<std::uint16_t> pid;
    Place begin;
    /// It counts if it lasts longer; 0: at once, and without a clock as well.
    Ticks patience = 0;
};

class Deviations {
  public:
    /// Both must outlive it.
    Deviations(Output& output, const SureClock& clock) : output_(output), clock_(clock) {}

    /// It is so from deviation.begin on. Said again it goes on; what it is now may have changed.
    void is(const Thing& thing, Deviation&& deviation);
    /// It is right from here on, or nobody can say any more.
    void is_not(const Thing& thing, const Place& place) { end(thing, place, false); }
    /// As much is known of it up to here, and nothing behind.
    void lost_sight(const Thing& thing, const Place& place) { end(thing, place, true); }
    bool has(const Thing& thing) const { return active_.contains(thing); }

    /// Live: what goes on. Called now and then.
    void look(const Place& now);
    /// The input is over: decides what is pending.
    void finish(const Place& end);
    /// Something had not lasted long enough to count when the input was over.
    bool undecided() const { return undecided_; }

  private:
    struct Active {
        Deviation is;
        std::uint64_t id = 0; // live: Finding::id
    };

    void end(const Thing& thing, const Place& place, bool open);
    bool counts(const Deviation& deviation, const Place& to) const;
    Finding make(const Deviation& deviation, const Place& to) const;
    void close(Active& active, const Place& place, bool open);

    Output& output_;
    const SureClock& clock_;
    std::map<Thing, Active> active_;
    bool undecided_ = false;
};

} // namespace quarn
