// Time series as JSON, in the form that the pages' script reads.
#pragma once

#include <string>

#include "json.h"
#include "measure/measure.h"

namespace quarn {

/// Writes an object. What is too much for a page is left out, and the object says how much that
/// was. `stride`: bytes from packet to packet in the input.
void series_json(Json& json, TimeSeries&& series, const Summary& summary, int stride);

} // namespace quarn
