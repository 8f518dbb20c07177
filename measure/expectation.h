// What is expected of an input: what an operator knows about it and no rule of a standard can.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "finding.h"
#include "summary.h"

namespace quarn {

/// Whole numbers from `least` to `most`, both included. As it is made: any.
struct Range {
    static constexpr std::int64_t no_end = INT64_MAX;

    std::int64_t least = 0;
    std::int64_t most = no_end;

    static constexpr std::int64_t highest_bitrate = 1'000'000'000'000; // that files can hold

    bool any() const { return least <= 0 && most == no_end; }
    bool one() const { return least == most; }
    bool contains(std::int64_t value) const { return value >= least && value <= most; }
    bool operator==(const Range&) const = default;
};

/// Services, streams, tables and bit rates that should be there. All that is left as it is made is
/// not looked at: an empty list of words, a range without ends, an interval of 0.
struct Expectation {
    static constexpr Ticks longest_interval = 24 * 3600 * ticks_per_second; // that files can hold

    struct Stream {
        Range pid;
        std::vector<StreamKind> kinds;      // one of these
        std::vector<Codec> codecs;          // the same
        std::vector<std::string> languages; // ISO 639-2; an empty one: none is said
        std::optional<bool> scrambled;
        Range bitrate;         // bits a second, mean over bitrate_over
        bool optional = false; // it may be missing

        bool operator==(const Stream&) const = default;
    };
    struct Service {
        std::uint16_t number = 0;       // program number, service id
        std::vector<std::string> names; // one of these, as the SDT has it
        Range pmt_pid;
        Range pcr_pid;
        Ticks pmt_interval = 0; // at most from one PMT to the next
        Range bitrate;          // of its streams and PCRs together
        std::vector<Stream> streams;
        bool other_streams = true; // there may be others
        bool optional = false;     // it may be missing

        bool operator==(const Service&) const = default;
    };
    struct Table {
        std::uint8_t id = 0; // table_id
        Range pid;
        Ticks interval = 0;    // at most from one section of it to the next
        bool optional = false; // it need not come at all

        bool operator==(const Table&) const = default;
    };

    std::vector<Service> services;
    std::vector<Table> tables;                  // but for PMTs
    Range bitrate;                              // of all packets
    std::optional<bool> constant_rate;          // of the stream clock
    Ticks bitrate_over = 10 * ticks_per_second; // bit rates are means over so long; above 0
    bool other_services = true;                 // there may be others

    const Service* service(std::uint16_t number) const {
        for (const Service& s : services)
            if (s.number == number)
                return &s;
        return nullptr;
    }
    /// Services are listed and this is none of them, or one that may be missing.
    bool leaves_out(std::uint16_t number) const {
        const Service* const s = service(number);
        return !services.empty() && (s == nullptr || s->optional);
    }
    bool operator==(const Expectation&) const = default;
};

/// Shared by those that were told the same; equal when what is expected is.
class SharedExpectation {
  public:
    SharedExpectation() = default;
    SharedExpectation(Expectation expectation)
        : is_(std::make_shared<const Expectation>(std::move(expectation))) {}

    explicit operator bool() const { return is_ != nullptr; }
    const Expectation& operator*() const { return *is_; }
    const Expectation* operator->() const { return is_.get(); }
    bool operator==(const SharedExpectation& other) const {
        return is_ == other.is_ || (is_ && other.is_ && *is_ == *other.is_);
    }

  private:
    std::shared_ptr<const Expectation> is_;
};

} // namespace quarn
