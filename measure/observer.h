// Gathers what Observed says. Rules are not concerned.
#pragma once

#include <array>
#include <map>
#include <optional>

#include "events.h"
#include "first_look.h"
#include "gaps.h"
#include "observed.h"
#include "pid_rates.h"

namespace quarn {

/// Memory is bounded whatever the input. One thread.
class Observer {
  public:
    void start(const Place& first);
    void programs(const ProgramsPtr& programs, const Place& place);
    void section(const SectionEvent& section, const Place& end);
    void seen(const SpansItem::Span& span, const Place& first, const Place& last);
    void counts(const CountsItem& item, const Place& from, const Place& to,
                std::optional<bool> constant);
    /// Nothing is known of what was between the two places.
    void anew(const Place& at);
    /// What there was up to `end`, the last packet so far.
    Observed observed(const Place& end) const;

  private:
    struct Table {
        Observed::Table is;
        Place last;
    };
    struct Scrambling {
        std::optional<Place> scrambled; // since where the other has not come
        std::optional<Place> clear;
        bool mostly_scrambled = true; // never clear for half a second
        bool mostly_clear = true;
    };
    struct Window {
        PidRates rates;
        Observed::Rates seen;
    };

    void add(Table& table, const Place& end);
    void add(Window& window);

    ProgramsPtr programs_;
    SureClock clock_;
    Place start_;
    std::map<std::pair<std::uint16_t, std::uint8_t>, Table> tables_;
    std::map<std::uint16_t, Table> pmts_;
    std::map<std::uint16_t, Place> since_; // programs that are there
    std::map<std::uint16_t, Scrambling> scrambling_;
    std::array<Window, 3> windows_ = {window(10), window(3), window(1)};
    std::uint64_t constant_ = 0; // looks at the rate
    std::uint64_t variable_ = 0;

    static Window window(int seconds) {
        return {PidRates(seconds * ticks_per_second), {seconds * ticks_per_second, 0, {}, {}, {}}};
    }
};

} // namespace quarn
