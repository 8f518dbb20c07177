// What is known of all inputs as JSON.
#pragma once

#include <string>
#include <vector>

#include "live/snapshot.h"

namespace quarn::live {

/// An object with the version of the program and an array `inputs`, in the order given. Units are
/// in the names of keys. Bytes of texts that are no valid UTF-8 are written as \xHH.
std::string inputs_json(const std::vector<Snapshot>& inputs);

} // namespace quarn::live
