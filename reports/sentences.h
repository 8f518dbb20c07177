// What findings say, in words for people.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "measure/measure.h"

namespace quarn {

/// Names of programs by their numbers, as the input has them.
using ProgramNames = std::map<std::uint16_t, std::string>;
ProgramNames program_names(const Summary& summary);

/// "program 2", "programs 1 "Alpha", 2 "Beta"": those of the finding, with names that are not long;
/// of many their number only, empty where there are none.
std::string programs_text(const Finding& finding, const ProgramNames& names);

/// What has happened, with the figures of the finding; one sentence or two. Plain text, but names
/// are as the input has them.
std::string sentence(const Finding& finding, const ProgramNames& names = {});

/// What findings of that rule, kind and severity mean for somebody who watches the stream.
std::string_view meaning(Rule rule, Kind kind, Severity severity);

/// A stretch between two PCRs, the packets lost, ...: what `worst` of that rule counts, with its
/// unit ("812 ms", "3 packets"); empty for rules that have no such figure. `limit_ms`: that it is
/// over, where there is one.
std::string figure_text(Rule rule, double figure, const std::optional<double>& limit_ms);

/// The figure of a finding by which the worst is chosen: the rule's own, or that of its flood.
std::optional<double> figure(const Finding& finding);

} // namespace quarn
