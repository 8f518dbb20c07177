// Which row of the rules speaks of which table of service information.
#pragma once

#include <cstdint>
#include <optional>

#include "options.h"
#include "psi.h"
#include "rules.h"

namespace quarn {

struct SiRow {
    Rule rule;
    Ticks limit;   // between two sections of one number; 0: none
    bool too_fast; // sections may also follow each other too closely
    std::uint16_t pid;
};

/// Nothing for tables that are none of service information. EIT present/following: the row for
/// both sections together.
inline std::optional<SiRow> si_row(std::uint8_t id, const Limits& limits) {
    switch (id) {
    case table_id::nit_actual:
        return SiRow{Rule::nit_actual_error, limits.nit_actual, true, table_pid::nit};
    case table_id::nit_other:
        return SiRow{Rule::nit_other_error, limits.nit_other, false, table_pid::nit};
    case table_id::sdt_actual:
        return SiRow{Rule::sdt_actual_error, limits.sdt_actual, true, table_pid::sdt};
    case table_id::sdt_other:
        return SiRow{Rule::sdt_other_error, limits.sdt_other, false, table_pid::sdt};
    case table_id::bat:
        return SiRow{Rule::si_repetition_error, limits.bat, false, table_pid::sdt};
    case table_id::eit_actual:
        return SiRow{Rule::eit_actual_error, limits.eit_actual, true, table_pid::eit};
    case table_id::eit_other:
        return SiRow{Rule::eit_other_error, limits.eit_other, false, table_pid::eit};
    case table_id::tdt:
        return SiRow{Rule::tdt_error, limits.tdt, true, table_pid::tdt};
    case table_id::rst:
        return SiRow{Rule::rst_error, 0, true, table_pid::rst};
    case table_id::tot:
        return SiRow{Rule::si_repetition_error, limits.tot, false, table_pid::tdt};
    default:
        break;
    }
    if (id < table_id::eit_schedule || id > table_id::eit_last)
        return std::nullopt;
    const bool near = (id & 0x0F) <= 1; // the first four days of the schedule and the next four
    return SiRow{Rule::si_repetition_error, near ? limits.eit_schedule : limits.eit_schedule_far,
                 false, table_pid::eit};
}

/// The row that foreign table ids on that pid fall under; nothing for pids of other things.
inline std::optional<Rule> foreign_row(std::uint16_t pid) {
    switch (pid) {
    case table_pid::pat:
        return Rule::pat_error_2;
    case table_pid::cat:
        return Rule::cat_error;
    case table_pid::nit:
        return Rule::nit_actual_error;
    case table_pid::sdt:
        return Rule::sdt_actual_error;
    case table_pid::eit:
        return Rule::eit_actual_error;
    case table_pid::rst:
        return Rule::rst_error;
    case table_pid::tdt:
        return Rule::tdt_error;
    default:
        return std::nullopt;
    }
}

} // namespace quarn
