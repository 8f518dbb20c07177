// Findings put together for people: what is alike is one group.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "measure/measure.h"
#include "records.h"

namespace quarn {

/// Findings of one rule, kind, severity and pid; of q.11 those about one thing.
struct Group {
    std::uint64_t count = 0; // events
    bool open = false;       // the last of them had not ended when the input did
    bool sure = true;        // no figure of them is a guess
    std::optional<double> worst;
    Place first, last;
    Finding finding; // the first of them
    /// The first of them that was cut out of the input, if one was.
    struct Cut {
        std::uint64_t found_at = 0; // packet of the input
        std::string file;
        std::uint64_t packet = 0; // of the file
    };
    std::optional<Cut> cut;
};

/// Sums findings up. What it takes grows with rules and pids only, not with findings.
class Groups {
  public:
    struct Key {
        Severity severity;
        Rule rule;
        Kind kind;
        int pid;           // -1: none
        std::string thing; // what q.11 is about, beside its pid

        bool operator<(const Key& other) const {
            return std::tie(other.severity, rule, kind, pid, thing) <
                   std::tie(severity, other.rule, other.kind, other.pid, other.thing);
        }
    };

    void add(const Finding& finding, const Extras& extras = {});
    /// There is no such file any more.
    void forget_cut(const std::string& file);
    /// The worst first, then in the order of rules.
    const std::map<Key, Group>& all() const { return groups_; }

  private:
    std::map<Key, Group> groups_;
};

/// "packet 497 at 1.234 s"
std::string place_text(const Place& place);
/// "at packet 497 at 1.234 s", "from packet 497 at 1.234 s to packet 502 at 1.301 s"
std::string stretch_text(const Finding& finding);
/// "3 times, first ..., last ..., worst ...": where and how bad.
std::string group_text(Rule rule, const Group& group);

} // namespace quarn
