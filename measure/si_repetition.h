// How often the tables of service information come: 3.1 to 3.8 but for 3.4.
#pragma once

#include <array>
#include <bitset>
#include <compare>
#include <cstdint>
#include <map>
#include <vector>

#include "events.h"
#include "gaps.h"
#include "options.h"
#include "output.h"
#include "programs.h"
#include "si_rows.h"

namespace quarn {

/// Judges each sub-table and section number from the first time on that it was seen; with
/// Options::dvb the tables that a DVB stream must have from its start. At most series_max sections
/// are kept in mind.
class SiRepetition {
  public:
    static constexpr std::size_t series_max = 32'768;

    SiRepetition(const Options& options, Gaps& gaps) : options_(options), gaps_(gaps) {}

    void start(const Place& first);
    /// A section of service information on the pid where it belongs, and its row.
    void section(const SectionEvent& section, const SiRow& row, const Place& begin,
                 const Place& end);
    void programs(const ProgramsPtr& programs, const Place& place);
    /// Another transport stream: all begins anew.
    void forget(const Place& place) { forget(place, false); }
    /// Nothing is known of what was between the two places.
    void anew(const Place& before, const Place& at);
    /// Live: what does not come.
    void look(const Place& now);
    void finish(const Place& end);
    void judge(Judgement& judgement) const;
    /// Any table of service information was seen, or Options::dvb.
    bool armed() const { return armed_; }
    void found(Rule rule) { found_.set(static_cast<std::size_t>(rule)); }

  private:
    struct Key {
        std::uint8_t table_id;
        std::uint16_t extension;
        std::uint32_t sub_table;
        auto operator<=>(const Key&) const = default;
    };
    struct Part { // a section number
        std::uint8_t number = 0;
        Series series;
    };
    struct Table {
        std::uint8_t version = 0;
        std::vector<Part> parts;
    };
    // EIT present/following: a service without both sections falls under one row, a service
    // without one of them under another.
    struct Half {
        Series series;
        Ticks both_away = 0; // longest time without either
    };
    struct PresentFollowing {
        Series any;
        std::array<Half, 2> halves;
    };

    void sections_of_version(const Key& key, const SectionEvent& section, const SiRow& row,
                             const Place& end);
    void present_following(const Key& key, const SectionEvent& section, const SiRow& row,
                           const Place& end);
    void too_fast(const SectionEvent& section, const SiRow& row, const Place& begin,
                  const Place& end);
    void replace_actual(const Key& key, const Place& place);
    // A distance of the series ends here, and is judged.
    void came(Series& series, const Key& key, Rule rule, Ticks limit, const Place& place);
    void stays_away(Series& series, const Key& key, Rule rule, Ticks limit, const Place& place,
                    bool open);
    void forget(const Place& place, bool open);
    void look(const Key& key, PresentFollowing& both, const Place& now);
    bool is_gone(const Key& key, const Place& last, const Place& now) const;
    bool half_is_gap(const Half& half, const Key& key, const Place& place) const;
    void close(const Key& key, Table& table, const Place& place, bool open);
    void close(const Key& key, PresentFollowing& both, const Place& place, bool open);
    GapRow gap_row(const Key& key, Rule rule, Ticks limit) const;
    std::vector<std::uint16_t> programs_of(const Key& key) const;
    Ticks limit_of(const Key& key) const;
    Ticks half_limit(const Key& key) const;
    void row_seen(Rule rule, Ticks limit);

    const Options& options_;
    Gaps& gaps_;
    ProgramsPtr programs_ = std::make_shared<Programs>();
    std::map<Key, Table> tables_;
    std::map<Key, PresentFollowing> present_following_;
    std::map<std::uint8_t, Key> actual_; // the one sub-table of NIT and SDT actual
    // Last byte of the last section, by table id and extension.
    std::map<std::uint32_t, Place> last_bytes_;
    std::map<std::uint8_t, Series> awaited_; // tables that must come
    std::size_t series_ = 0;
    std::array<Ticks, rule_count> limits_{}; // longest limit of what was seen
    std::bitset<rule_count> seen_;
    std::bitset<rule_count> found_;
    bool armed_ = false;
    Ticks next_look_ = no_time; // live
};

} // namespace quarn
