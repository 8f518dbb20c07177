// Text that may come from an input (names of services, of files) made safe to show.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "measure/finding.h"

namespace quarn {

/// Length of the valid UTF-8 sequence that `text` begins with; 0 if it begins with none.
std::size_t utf8_length(std::string_view text);

/// `text` with every byte that is no valid UTF-8 as \xHH. Control characters stay.
std::string valid_utf8(std::string_view text);

/// valid_utf8() besides without control characters (those of a terminal, the 8-bit ones too, as
/// \xHH): one line, safe for terminals and XML.
std::string printable(std::string_view text);

/// Text as it stands in attributes and content of XML and HTML.
std::string escaped(std::string_view text);

/// Columns that UTF-8 text takes, one a character.
std::size_t columns(std::string_view text);

/// Appends `text` in lines of at most `width` columns, each behind `indent` blanks, broken at
/// blanks; a longer word stands alone.
void wrap(std::string& out, std::string_view text, std::size_t indent, std::size_t width = 80);

/// "320 ms", "12.3 s", "0.7 us". `limit`: what it is over, with as many digits as show that
/// ("100.04 ms" of 100 ms).
std::string duration_text(double ms, std::optional<double> limit = std::nullopt);
/// "45.2 ms", "7.2 s", "12 min 5 s", "24 h 0 min": rounded as the figures of findings are.
std::string length_text(Ticks ticks);
/// "618 kbit/s", "12.5 Mbit/s".
std::string rate_text(std::uint64_t bits_per_second);
/// "3 packets", "1 packet".
std::string count_text(std::uint64_t count, std::string_view noun);

} // namespace quarn
