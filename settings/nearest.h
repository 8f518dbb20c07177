// What somebody may have meant who has mistyped a word.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quarn::settings {

/// Those of `words` that are nearest to `text` (letters put in, left out or exchanged; small and
/// capital ones are the same), in their order; none when even they are too far from it.
std::vector<std::string> nearest(std::string_view text, const std::vector<std::string>& words);

} // namespace quarn::settings
