// Damage to packets themselves: 1.1, 1.2, 2.1, q.10, and counters that show copies, order or stand
// still.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "clock.h"
#include "continuity.h"
#include "output.h"
#include "programs.h"
#include "stream.h"

namespace quarn {

class Damage {
  public:
    explicit Damage(Output& output) : output_(output) {}

    void programs(const ProgramsPtr& programs) { programs_ = programs; }
    void transport_error(std::uint16_t pid, const Place& place);
    void sync_byte(const Place& place);
    void sync_loss(const SyncLoss& loss, const Place& begin, const Place& end);
    void truncated(std::int64_t bytes, const Place& place);
    void datagrams(const DatagramEvent& event, const Place& place);
    void order(const OrderFault& fault, const Place& begin, const Place& end);
    void copies(const CopyFault& fault, const Place& place);
    /// `going_on`: it has not ended (live).
    void frozen(const FrozenRun& run, const Place& begin, const Place& end, bool going_on);
    void advance(const Place& now);
    /// Live: what goes on. Called now and then.
    void look(const Place& now);
    void finish();

  private:
    struct Run {
        Place first;
        Place last;
        std::uint64_t count = 0;
        std::uint64_t interval = 0; // live: Finding::id
    };
    struct Swap {
        OrderFault fault;
        Place begin;
        Place end;
    };
    void close(std::uint16_t pid, const Run& run);
    Finding make(std::uint16_t pid, const Run& run) const;
    void close_swaps();
    Finding make(Rule rule, Kind kind, std::optional<std::uint16_t> pid) const;

    Output& output_;
    ProgramsPtr programs_;
    std::map<std::uint16_t, Run> runs_;
    std::vector<Swap> swaps_;                       // that overlap
    std::map<std::uint16_t, std::uint64_t> frozen_; // live: Finding::id by pid
};

} // namespace quarn
