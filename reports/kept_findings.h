// Which findings a page shows one by one; of the others it shows how many there were, and where.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

#include "measure/measure.h"
#include "records.h"

namespace quarn {

/// Keeps the records of the first findings of each rule and pid: as many as all of them together
/// leave room for. What it takes does not grow with the number of findings.
class KeptFindings {
  public:
    static constexpr std::size_t most_of_a_kind = 200;
    static constexpr std::size_t most = 1500;

    /// `input`: its name, as records have it.
    explicit KeptFindings(std::string_view input) : records_(input) { records_.skip(); }

    void add(const Finding& finding, const Extras& extras = {});

    struct Key {
        Rule rule;
        int pid; // -1: none

        bool operator<(const Key& other) const {
            return std::tie(rule, pid) < std::tie(other.rule, other.pid);
        }
    };
    struct Kept {
        std::uint64_t seq = 0; // of the record
        Severity severity = Severity::info;
        Place begin;
        std::uint64_t count = 0; // events
        std::string record;      // a line of JSON
    };
    /// Events of findings that are not kept.
    struct Count {
        std::uint64_t events = 0;
        Severity severity = Severity::info; // the worst
        FirstPacket first;

        void add(const Count& other);
    };
    /// Buckets are of packets, from the first packet of the input on.
    using Counts = std::map<Rule, Filling<Count>>;

    const std::map<Key, std::deque<Kept>>& kept() const { return kept_; }
    const Counts& counts() const { return counts_; }

  private:
    void count(Rule rule, const Kept& left_out);
    void make_room();

    Records records_;
    std::map<Key, std::deque<Kept>> kept_;
    std::size_t size_ = 0;
    std::size_t most_of_a_kind_ = most_of_a_kind; // becomes less when there are very many kinds
    Counts counts_;
};

} // namespace quarn
