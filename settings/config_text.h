// The text of configuration files, looked at before libconfig reads it: where libconfig ends the
// process, takes a number for another one, or leaves out the rest of a file without a word.
#pragma once

#include <string>

namespace quarn::settings {

/// The text of a file as libconfig is to have it. Throws WrongValue, with file and line, for what
/// cannot be read or is not taken as it was meant, there or in a file that it includes.
std::string config_text(const std::string& path);

/// Whether a list ends in that line with a comma, which libconfig takes for the start of one more
/// element.
bool comma_before_closing(const std::string& text, int line);

} // namespace quarn::settings
