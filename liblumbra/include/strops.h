// strops.h - numbers with size suffixes, and line ends.
//
// A number is what strtod reads, optionally followed by K, M or G in either case and with or
// without a b: "1.5K" is 1536. Multipliers are powers of two in every spelling. Letters mean
// suffixes, so there are no exponents and no hexadecimal numbers.
//
// Blanks may stand in front of a number. A text without one is 0: "", "-", and "K" too. What
// follows a number is ignored up to the first letter, which begins the suffix: "12 34" is 12, "12
// 34K" is 12288.
//
// The parsers return 0, or below and with `out` untouched. `out` may be null; `str` may not.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int NUM_RANGE = -2;  // does not fit the result (a2int64, a2size)
inline constexpr int NUM_LENGTH = -3; // 64 characters or more before the suffix
inline constexpr int NUM_CONV = -4;   // too large or small for strtod
inline constexpr int NUM_SUFFIX = -5; // unknown suffix

[[nodiscard]] int a2double(const char* str, double* out);
[[nodiscard]] int a2int64(const char* str, std::int64_t* out); // fractions are cut off
// Limited to 32 bits, sign included; a negative number is there again when `out` is read as
// ssize_t.
[[nodiscard]] int a2size(const char* str, std::size_t* out);

// Removes the line end in place: the last two characters as far as they are LF or CR.
void chomp(char* str);
