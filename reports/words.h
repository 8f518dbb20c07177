// The words of records for values that the measurement library has no words for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "measure/measure.h"

namespace quarn {

std::string_view word(Profile profile);
std::string_view word(Shape shape);
std::string_view word(State state);
std::string_view word(Sure sure);
std::string_view word(Verdict verdict);
std::string_view word(Judged judged);
std::string_view word(ClockSummary::Source source);
std::string_view word(TableChange::Op op);
std::string_view word(TableChange::What what);

/// "the PMT", "the SDT of this network", "table 0x90": ISO/IEC 13818-1 table 2-31, EN 300 468
/// table 2.
std::string table_name(int table_id);

/// "1.4, 2.3.a"
std::string id_list(const std::vector<Rule>& rules);
/// What made the verdict: rules, or that there is no such program; empty for `healthy` and for an
/// input without packets.
std::string why_text(const Summary& summary);
/// Whether findings of that rule are why the verdict is `failed`.
bool made_failed(const Summary& summary, Rule rule);

/// "2026-11-21T05:34:17.408351Z", from microseconds since 1970 (RFC 3339).
std::string utc_text(std::int64_t utc_us);

} // namespace quarn
