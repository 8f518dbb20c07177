// The command line of quarn-live.
#pragma once

#include <variant>

#include "settings.h"

namespace quarn::live {

/// What to do, or the exit status when that is all: help and version were shown on standard output,
/// a mistake on standard error.
std::variant<CommandLine, int> parse_command_line(int argc, char** argv);

} // namespace quarn::live
