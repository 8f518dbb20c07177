// Findings: what a Stream hands to its sink.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rules.h"

namespace quarn {

/// Ticks of the 27 MHz system clock (ISO/IEC 13818-1, 2.4.2.1), the unit of all times in here.
using Ticks = std::int64_t;
inline constexpr Ticks ticks_per_second = 27'000'000;
inline constexpr Ticks ticks_per_ms = 27'000;
/// A time or stamp that is not known.
inline constexpr std::int64_t no_time = INT64_MIN;

/// A packet of the input, and when it was there.
struct Place {
    std::uint64_t packet = 0; // number in the input, from 1
    std::uint64_t byte = 0;   // offset of its sync byte
    Ticks time = no_time;     // from the first packet on the stream clock
    std::int64_t utc_us =
        no_time;            // arrival, microseconds since 1970-01-01 UTC, where the input knows it
    bool estimated = false; // the time is an estimate (variable rate, no PCR on one side)
};

enum class Shape : std::uint8_t { point, interval };
/// Intervals of live inputs are raised and cleared, all else are events.
enum class State : std::uint8_t { event, raise, clear };
/// How sure a figure is; for most findings there is nothing to doubt: exact.
enum class Sure : std::uint8_t { exact, modulo_16, guess };

/// One difference between two versions of a table (q.4), or between what is expected and what there
/// is (q.11).
struct TableChange {
    enum class Op : std::uint8_t { added, removed, moved, changed };
    enum class What : std::uint8_t {
        program,
        stream,
        pcr_pid,
        pmt_pid,
        service,
        network,
        descriptor,
        // of q.11 only:
        name,       // of a service
        language,   // of a stream
        codec,      // the same
        scrambling, // the same
        table,      // that comes too seldom, or not; `number` is its table_id
        bitrate,    // of a pid, of a program, or where neither is set of all packets
        rate,       // constant or variable
    };
    Op op = Op::changed;
    What what = What::program;
    std::optional<int> number; // program number or service id; table_id
    std::optional<int> pid;    // the pid it is about (its new one when moved)
    std::optional<std::string>
        before; // what it was, in words of the field ("audio deu", "pid 256")
    std::optional<std::string> after;
    std::optional<std::string> name = std::nullopt; // of the service that it is about
};

/// Figures of a finding; which are set depends on the rule.
struct Detail {
    std::optional<int> expected;           // 1.4: counter
    std::optional<int> got;                // 1.4: counter
    std::optional<std::int64_t> lost;      // 1.4: packets; not set: not known
    std::optional<std::int64_t> bytes;     // 1.1, q.10
    std::optional<double> interval_ms;     // gaps: how long
    std::optional<double> limit_ms;        // gaps: the limit
    std::optional<int> table_id;           // 2.2, tables
    std::optional<double> step_ms;         // 2.3.b, q.2, q.3, q.7; signed
    std::optional<double> drift_ms_per_s;  // q.2 drift
    std::optional<double> error_ns;        // 2.4
    std::optional<double> late_ms;         // q.1
    std::vector<TableChange> changes;      // q.4, q.11: one
    std::optional<std::int64_t> datagrams; // q.8
    std::optional<std::int64_t> packets;   // q.8, 1.4 order and duplicate: how many packets
    std::optional<double> away_ms;         // q.9
    std::optional<std::int64_t> extra_ms;  // 1.1: lost time by the clock, beyond `bytes`
    std::vector<std::uint16_t> pids;       // where there are several
    std::optional<double> worst;           // floods: in the unit of the rule's own key
};

struct Finding {
    Rule rule = Rule::ts_sync_loss;
    Kind kind = Kind::none;
    Severity severity = Severity::error;
    Shape shape = Shape::point;
    State state = State::event;
    std::uint64_t id = 0; // live: of an interval, the same in raise and clear; else 0
    bool open = false;    // the interval had not ended when the input did (live: nor in a raise)
    Sure sure = Sure::exact;
    std::vector<std::uint16_t> programs; // numbers of the programs it concerns
    std::optional<std::uint16_t> pid;
    std::uint64_t count = 1; // events
    Place begin;
    Place end; // equals begin for points
    Detail detail;
};

/// Receives findings in the order in which they are decided, in the thread that feeds the stream.
class Sink {
  public:
    virtual ~Sink() = default;
    virtual void finding(const Finding& finding) = 0;
};

} // namespace quarn
