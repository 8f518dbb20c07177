// What doc/findings.md says of each rule.
#pragma once

#include <string_view>

#include "measure/rules.h"

namespace quarn {

/// The page on a rule: its heading ("## 1.4 ...") and what is below, Markdown; empty if there is
/// none. Some pages are on several rules.
std::string_view rule_page(Rule rule);

} // namespace quarn
