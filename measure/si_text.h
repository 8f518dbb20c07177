// Texts of service information (EN 300 468, annex A).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace quarn {

/// The text as valid UTF-8, by the character table that its first bytes select; without emphasis
/// and other control codes, line breaks as blanks. U+FFFD stands for what the table does not have.
std::string si_text(std::span<const std::uint8_t> bytes);

} // namespace quarn
