// Which inputs there are to check.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace quarn::check {

/// The operands, then the lines of the list (empty ones left out), of these those in the shard.
/// Line k, from 1 and empty ones counted, is in shard (k - 1) mod N + 1.
/// Throws std::system_error when the list cannot be read, std::runtime_error when nothing is in it.
std::vector<std::string> inputs_of(const CommandLine& line);

} // namespace quarn::check
