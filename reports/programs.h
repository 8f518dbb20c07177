// Programs and their streams as JSON, the same wherever they are listed.
#pragma once

#include <vector>

#include "json.h"
#include "measure/summary.h"

namespace quarn {

/// An array with an object a program.
void write_programs(Json& json, const std::vector<ProgramSummary>& programs);

} // namespace quarn
