// Gathers time series while a stream is measured. Rules tell it what they see; it decides nothing.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "finding.h"
#include "gaps.h"
#include "programs.h"
#include "time_series.h"

namespace quarn {

/// Packets of each pid since the last look at the counters.
struct CountsItem {
    struct Count {
        std::uint16_t pid = 0;
        std::uint32_t packets = 0;
    };
    At from; // the first of them; the last is the one before the item's
    std::uint64_t packets = 0;
    std::vector<Count> pids;
};

class Recorder {
  public:
    void programs(const ProgramsPtr& programs) { programs_ = programs; }
    /// `to`: behind the last of the packets.
    void counts(const CountsItem& item, const Place& from, const Place& to);
    /// A PCR so long after the one before it.
    void pcr_interval(std::uint16_t pid, const Place& place, Ticks interval);
    void pcr_error(std::uint16_t pid, const Place& place, double ns);
    /// A stamp of a stream of the PMTs, so far ahead of the clock of its program.
    void lead(std::uint16_t pid, const Place& place, Ticks lead);
    /// Packets of a pid were lost before that place.
    void loss(const Finding& finding);
    /// A section so long after the one before it.
    void table(const GapRow& row, const Place& place, Ticks interval);

    /// Hands over all there is up to `end`, the last packet of the stream.
    TimeSeries take(const Place& end);

  private:
    using Values = Filling<Extremes>;
    struct PcrIntervals {
        Values values;
        std::array<std::uint64_t, 257> histogram{};
    };
    struct Lead {
        Values values;
        Sample last;
        std::int64_t at = 0; // x of the last one
    };
    struct Offset {
        Values values;
        std::uint16_t video = 0; // pid
    };
    struct Table {
        Values values;
        double limit_ms = 0;
    };
    /// Entries up to a number, and which found no room.
    template <class Key, class Entry, std::size_t most>
    struct Bounded {
        std::map<Key, Entry> entries;
        std::set<Key> refused;

        Entry* at(const Key& key) {
            const auto known = entries.find(key);
            if (known != entries.end())
                return &known->second;
            if (entries.size() < most)
                return &entries[key];
            refused.insert(key);
            return nullptr;
        }
    };

    std::int64_t x_of(const Place& place);
    template <class Cell>
    Cell& cell(Filling<Cell>& series, std::int64_t x);
    template <class Cell>
    Buckets<Cell> take(Filling<Cell>& series) const;
    void add(Values& values, std::int64_t x, const Sample& sample);
    void spread(Filling<PacketCount>& series, std::int64_t from, std::int64_t to, double packets);
    void offsets(std::uint16_t pid, std::int64_t x, const Sample& sample);
    void rate(std::uint64_t packets, const Place& from, const Place& to);

    std::optional<bool> timed_; // not known before the first place
    std::int64_t width_ = 0;
    std::int64_t last_x_ = 0;
    ProgramsPtr programs_;
    Place rate_from_;
    std::uint64_t rate_packets_ = 0;
    Filling<FirstPacket> first_;
    Values rate_;
    Bounded<std::uint16_t, Filling<PacketCount>, 512> packets_;
    Filling<PacketCount> other_;
    Bounded<std::uint16_t, PcrIntervals, 24> pcr_intervals_;
    Bounded<std::uint16_t, Values, 24> pcr_errors_;
    Bounded<std::uint16_t, Lead, 48> leads_;
    Bounded<std::pair<std::uint16_t, std::uint16_t>, Offset, 24> offsets_; // program, audio pid
    Bounded<int, Filling<LossCount>, 64> losses_;
    Bounded<std::pair<std::uint16_t, std::uint8_t>, Table, 32> tables_;
};

} // namespace quarn
