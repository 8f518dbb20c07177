// What is known of all inputs in Prometheus' text format.
#pragma once

#include <string>
#include <vector>

#include "live/process_use.h"
#include "live/snapshot.h"

namespace quarn::live {

/// All metrics. Names of inputs are a label: bytes that are no valid UTF-8 are written as \xHH.
std::string metrics_of(const std::vector<Snapshot>& inputs, const ProcessFigures& process,
                       const ProcessUse& use);

} // namespace quarn::live
