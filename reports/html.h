// Pages for a browser: one on each capture, with plots, and one on many captures.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "groups.h"
#include "kept_findings.h"
#include "measure/measure.h"
#include "people.h"

namespace quarn {

/// What a page shows.
struct HtmlInput {
    const InputFacts& facts;
    const Options& options;
    const Summary& summary;
    const Groups& groups;
    const KeptFindings& findings;
    std::string error; // why the input could not be read to its end; empty: it was
};

/// The page on one capture: whole, needs no other file. The same input gives the same bytes.
/// `version`: of the program.
std::string html_page(const HtmlInput& input, TimeSeries&& series, std::string_view version);

/// A capture's row in the overview; `link`: the address of its page, empty where it has none.
std::string html_row(const InputFacts& facts, const Summary& summary, const Groups& groups,
                     std::string_view link);
/// The same for one that cannot be read, or not to its end.
std::string html_error_row(std::string_view name, std::string_view text, std::string_view link);

/// How many captures got which verdict.
struct HtmlCounts {
    std::size_t failed = 0, insufficient = 0, healthy = 0, unreadable = 0;
};
/// The overview up to its first row, and what follows the last one.
std::string html_overview_begin(const HtmlCounts& counts);
std::string html_overview_end(std::string_view version);

} // namespace quarn
