// The page of doc/findings.md on a rule, in the terminal.
#pragma once

#include <string>

#include "measure/rules.h"
#include "reports/people.h"

namespace quarn::check {

std::string explain(Rule rule, const Colours& colours);

} // namespace quarn::check
