// The table of rules, and the words of kinds and severities.
#include "rules.h"

#include <algorithm>

namespace quarn {

namespace {
constexpr auto error = Severity::error;
constexpr auto warning = Severity::warning;
constexpr auto info_only = Severity::info;
} // namespace

constexpr std::array<RuleInfo, rule_count> rule_table = {{
    {Rule::ts_sync_loss, "1.1", "TS_sync_loss", error, 1},
    {Rule::sync_byte_error, "1.2", "Sync_byte_error", error, 1},
    {Rule::pat_error_2, "1.3.a", "PAT_error_2", error, 1},
    {Rule::continuity_count_error, "1.4", "Continuity_count_error", error, 1},
    {Rule::pmt_error_2, "1.5.a", "PMT_error_2", error, 1},
    {Rule::pid_error, "1.6", "PID_error", error, 1},
    {Rule::transport_error, "2.1", "Transport_error", error, 2},
    {Rule::crc_error, "2.2", "CRC_error", error, 2},
    {Rule::pcr_repetition_error, "2.3.a", "PCR_repetition_error", error, 2},
    {Rule::pcr_discontinuity_indicator_error, "2.3.b", "PCR_discontinuity_indicator_error", error,
     2},
    {Rule::pcr_accuracy_error, "2.4", "PCR_accuracy_error", warning, 2},
    {Rule::pts_error, "2.5", "PTS_error", error, 2},
    {Rule::cat_error, "2.6", "CAT_error", error, 2},
    {Rule::nit_actual_error, "3.1.a", "NIT_actual_error", warning, 3},
    {Rule::nit_other_error, "3.1.b", "NIT_other_error", warning, 3},
    {Rule::si_repetition_error, "3.2", "SI_repetition_error", warning, 3},
    {Rule::buffer_error, "3.3", "Buffer_error", error, 3},
    {Rule::unreferenced_pid, "3.4.a", "Unreferenced_PID", warning, 3},
    {Rule::sdt_actual_error, "3.5.a", "SDT_actual_error", warning, 3},
    {Rule::sdt_other_error, "3.5.b", "SDT_other_error", warning, 3},
    {Rule::eit_actual_error, "3.6.a", "EIT_actual_error", warning, 3},
    {Rule::eit_other_error, "3.6.b", "EIT_other_error", warning, 3},
    {Rule::eit_pf_error, "3.6.c", "EIT_PF_error", warning, 3},
    {Rule::rst_error, "3.7", "RST_error", warning, 3},
    {Rule::tdt_error, "3.8", "TDT_error", warning, 3},
    {Rule::empty_buffer_error, "3.9", "Empty_buffer_error", error, 3},
    {Rule::data_delay_error, "3.10", "Data_delay_error", error, 3},
    {Rule::late_stamp, "q.1", "Late_stamp", error, 0},
    {Rule::stamp_jump, "q.2", "Stamp_jump", error, 0},
    {Rule::stamp_order, "q.3", "Stamp_order", error, 0},
    {Rule::table_changed, "q.4", "Table_changed", info_only, 0},
    {Rule::version_unchanged, "q.5", "Version_unchanged", warning, 0},
    {Rule::scrambling_changed, "q.6", "Scrambling_changed", info_only, 0},
    {Rule::clock_jump, "q.7", "Clock_jump", info_only, 0},
    {Rule::datagram_error, "q.8", "Datagram_error", error, 0},
    {Rule::off_air, "q.9", "Off_air", error, 0},
    {Rule::truncated, "q.10", "Truncated", warning, 0},
    {Rule::unexpected, "q.11", "Unexpected", error, 0},
    {Rule::analyzer_ended, "q.12", "Analyzer_ended", warning, 0},
    {Rule::suppressed, "q.13", "Suppressed", warning, 0},
}};

std::optional<Rule> rule_by_id(std::string_view id) {
    const auto row = std::find_if(rule_table.begin(), rule_table.end(),
                                  [&](const RuleInfo& r) { return r.id == id; });
    if (row == rule_table.end())
        return std::nullopt;
    return row->rule;
}

std::string_view word(Kind kind) {
    static constexpr std::array<std::string_view, kind_count> words = {
        "",         "missing",   "inserted", "garbled",        "gap",     "absent",
        "table_id", "scrambled", "loss",     "duplicate",      "frozen",  "order",
        "reset",    "never",     "stopped",  "no_pcr",         "back",    "ahead",
        "too_fast", "jump",      "drift",    "frames_missing", "flagged", "moved",
    };
    return words[static_cast<std::size_t>(kind)];
}

std::string_view word(Severity severity) {
    static constexpr std::array<std::string_view, 3> words = {"info", "warning", "error"};
    return words[static_cast<std::size_t>(severity)];
}

} // namespace quarn
