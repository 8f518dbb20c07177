// Cuts out of a live input.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "measure/finding.h"
#include "memory.h"
#include "settings.h"
#include "where.h"
#include "writer.h"

namespace quarn::cuts {

/// Keeps the last seconds of an input and has the packets around findings written, until the files
/// or bytes that are allowed are used up. One thread, which never waits. Findings that lie near
/// each other share a file.
class LiveCuts {
  public:
    /// Throws std::runtime_error if there is no memory.
    LiveCuts(const Settings& settings, std::string_view name, std::shared_ptr<Writer> writer);

    /// Packet `number` of the input, 188 bytes, that came at `arrival`.
    void packet(const std::uint8_t* packet, std::uint64_t number, Ticks arrival) {
        if (arrival >= wake_at_)
            finish(arrival);
        if (memory_.completes(number, arrival) && !cuts_.empty())
            hand_over();
        memory_.add(packet, number, arrival);
        if (!memory_.filling() && !cuts_.empty())
            give_up(arrival);
    }
    /// The clock of arrivals stands at `now`.
    void tick(Ticks now) {
        if (now >= wake_at_)
            finish(now);
    }

    /// The cut for a finding whose record is written now, `utc_us`: when that is, where the finding
    /// does not know. Nothing where there is no room, or its packets are not kept any more.
    std::optional<Where> take(const Finding& finding, std::int64_t utc_us);
    /// Nothing comes any more.
    void end();

    /// Told once: why findings have no cuts from now on. Empty if there is nothing new.
    std::string remark();

  private:
    struct Cut {
        std::shared_ptr<Destination> to;
        std::string file;
        std::uint64_t first = 0; // number of the packet it begins with
        std::uint64_t next = 0;  // number of the first packet that was not handed over
        Ticks core_begin = 0;    // of the findings in it, arrival
        Ticks until = 0;         // has packets up to there
        std::uint64_t bytes = 0;
    };
    struct Reach {
        Ticks begin = 0, end = 0; // arrivals
    };

    std::optional<Reach> reach_of(const Finding& finding) const;
    static Where where(const Cut& cut, const Finding& finding);
    std::optional<Where> begin_cut(const Finding& finding, const Reach& reach, std::int64_t utc_us);
    bool shares(const Cut& cut, const Finding& finding, const Reach& reach, bool done) const;
    void hand_over();
    void catch_up(Cut& cut);
    void finish(Ticks now);
    void close(std::size_t i, bool whole);
    void give_up(Ticks now);
    void set_alarm();

    const Settings settings_;
    const std::string name_;
    const Ticks around_;
    std::shared_ptr<Writer> writer_;
    Memory memory_;
    std::vector<Cut> cuts_;   // that packets are added to
    std::optional<Cut> last_; // the one that ended last: more findings may be in it
    Ticks wake_at_ = INT64_MAX;
    std::uint64_t files_ = 0;
    std::uint64_t bytes_ = 0;
    bool full_ = false, told_full_ = false;
    std::uint64_t needed_ = 0; // bytes, of the cut that there was no room for
};

} // namespace quarn::cuts
