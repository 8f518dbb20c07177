// The last stage before the host's sink: of findings of one rule, kind and pid close together three
// stay as they are, the rest becomes one. Live, intervals are raised and cleared.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

#include "counters.h"
#include "finding.h"

namespace quarn {

/// The figure of a finding that says how bad it is, in the unit of its rule's own key.
std::optional<double> magnitude(const Finding& finding);

/// Whether two places lie that far apart: by time, without a clock by packets.
inline bool apart(const Place& from, const Place& to, Ticks time, std::uint64_t packets) {
    if (from.time != no_time && to.time != no_time)
        return to.time - from.time >= time;
    return to.packet >= from.packet + packets;
}

class Floods {
  public:
    Floods(bool live, Sink& sink) : live_(live), sink_(sink) {}

    /// A point, or an interval that has ended.
    void event(const Finding& finding);
    /// Live: an interval has begun; what ends it has the same id.
    void raise(const Finding& finding);
    /// Live: an interval that was raised has ended.
    void clear(const Finding& finding);
    bool raised(std::uint64_t id) const { return raised_.contains(id); }
    /// Events of an interval that were there when it was raised.
    std::uint64_t counted(std::uint64_t id) const { return raised_.at(id).finding.count; }
    std::uint64_t new_id() { return ++last_id_; }

    void advance(const Place& now);
    /// Nothing comes any more.
    void finish();
    /// Intervals that the host takes for open now.
    const FindingCounts& open() const { return open_; }

  private:
    using Key = std::tuple<Rule, Kind, std::optional<std::uint16_t>>;
    struct Flood {
        unsigned run = 0; // findings with less than a second between
        Place last;
        std::optional<Finding> held;
        Severity severity = Severity::info; // with which it was raised
        unsigned going_on = 0;              // intervals in it that have not ended
    };
    struct Raised {
        Finding finding;
        bool in_flood = false;
    };

    static Key key(const Finding& f) { return {f.rule, f.kind, f.pid}; }
    bool joins(Flood& flood, const Finding& finding);
    void hold(Flood& flood, const Finding& finding);
    void merge(Finding& held, const Finding& finding) const;
    bool over(const Key& key, const Flood& flood, const Place& now) const;
    void close(Flood& flood);
    void tell(const Finding& finding, State state);

    const bool live_;
    Sink& sink_;
    std::map<Key, Flood> floods_;
    std::map<std::uint64_t, Raised> raised_;
    FindingCounts open_;
    std::uint64_t last_id_ = 0;
};

} // namespace quarn
