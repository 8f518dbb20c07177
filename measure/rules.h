// The rules that a stream is held against: their numbers, names and severities.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace quarn {

/// How bad a finding is. Errors make the verdict `failed`.
enum class Severity : std::uint8_t { info, warning, error };

/// One row of what is measured. The numbers of 1.x to 3.x are those of ETSI TR 101 290, q.x are
/// this system's own.
enum class Rule : std::uint8_t {
    ts_sync_loss,                      // 1.1
    sync_byte_error,                   // 1.2
    pat_error_2,                       // 1.3.a
    continuity_count_error,            // 1.4
    pmt_error_2,                       // 1.5.a
    pid_error,                         // 1.6
    transport_error,                   // 2.1
    crc_error,                         // 2.2
    pcr_repetition_error,              // 2.3.a
    pcr_discontinuity_indicator_error, // 2.3.b
    pcr_accuracy_error,                // 2.4
    pts_error,                         // 2.5
    cat_error,                         // 2.6
    nit_actual_error,                  // 3.1.a
    nit_other_error,                   // 3.1.b
    si_repetition_error,               // 3.2
    buffer_error,                      // 3.3
    unreferenced_pid,                  // 3.4.a
    sdt_actual_error,                  // 3.5.a
    sdt_other_error,                   // 3.5.b
    eit_actual_error,                  // 3.6.a
    eit_other_error,                   // 3.6.b
    eit_pf_error,                      // 3.6.c
    rst_error,                         // 3.7
    tdt_error,                         // 3.8
    empty_buffer_error,                // 3.9
    data_delay_error,                  // 3.10
    late_stamp,                        // q.1
    stamp_jump,                        // q.2
    stamp_order,                       // q.3
    table_changed,                     // q.4
    version_unchanged,                 // q.5
    scrambling_changed,                // q.6
    clock_jump,                        // q.7
    datagram_error,                    // q.8
    off_air,                           // q.9
    truncated,                         // q.10
    unexpected,                        // q.11
    analyzer_ended,                    // q.12
    suppressed,                        // q.13
};
inline constexpr std::size_t rule_count = static_cast<std::size_t>(Rule::suppressed) + 1;

/// What is fixed about a rule.
struct RuleInfo {
    Rule rule;
    std::string_view id;   // "1.3.a"
    std::string_view name; // "PAT_error_2"
    Severity severity;     // the highest that a finding of it can have
    int priority;          // 1 to 3 as in TR 101 290, 0: q rows
};

/// All rules in the order of Rule.
extern const std::array<RuleInfo, rule_count> rule_table;

inline const RuleInfo& info(Rule rule) {
    return rule_table[static_cast<std::size_t>(rule)];
}

/// The rule with that number ("1.4", "q.2"), nothing if there is none.
std::optional<Rule> rule_by_id(std::string_view id);

/// What sort of fault of its rule a finding is.
enum class Kind : std::uint8_t {
    none,
    missing,        // 1.1
    inserted,       // 1.1
    garbled,        // 1.1
    gap,            // 1.3.a, 1.5.a, 3.x
    absent,         // 1.3.a, 1.5.a, 2.6
    table_id,       // 1.3.a, 2.6, 3.x
    scrambled,      // 1.3.a, 1.5.a
    loss,           // 1.4, q.8
    duplicate,      // 1.4, q.8
    frozen,         // 1.4
    order,          // 1.4, q.8
    reset,          // 1.4
    never,          // 1.6
    stopped,        // 1.6
    no_pcr,         // 1.6
    back,           // 2.3.b
    ahead,          // 2.3.b
    too_fast,       // 3.x
    jump,           // q.2
    drift,          // q.2
    frames_missing, // q.2
    flagged,        // q.7
    moved,          // q.7
};
inline constexpr std::size_t kind_count = static_cast<std::size_t>(Kind::moved) + 1;

/// The word of a kind as records have it; empty for Kind::none.
std::string_view word(Kind kind);
std::string_view word(Severity severity);

} // namespace quarn
