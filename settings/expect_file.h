// Files that say what is expected of an input: libconfig's format, made to be read and edited.
#pragma once

#include <string>

#include "measure/expectation.h"
#include "measure/observed.h"
#include "measure/summary.h"

namespace quarn::settings {

/// Reads such a file. Throws WrongValue, with file, line, key and what would be right.
Expectation read_expectation(const std::string& path);

/// Such a file, from what an input was like; `input`: its name. Throws WrongValue where there is
/// nothing to be expected: no packets, no PAT, no PMT.
std::string expectation_text(const std::string& input, const Summary& summary,
                             const Observed& observed);

/// Whether a file can be written there, before the work that fills it; leaves none behind. Throws
/// WrongValue where it cannot.
void check_expectation_place(const std::string& path);

/// Writes it beside the file that is to be, then puts it in its place, so that nobody ever reads
/// half of it. Throws WrongValue where that cannot be done; what was there before stays then.
void write_expectation(const std::string& path, const std::string& text);

} // namespace quarn::settings
