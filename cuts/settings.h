// What is cut out of inputs, and how much.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quarn::cuts {

struct Settings {
    std::string directory;                          // where cuts are written; empty: nowhere
    double seconds = 2;                             // before and behind a finding
    std::uint64_t files = 100;                      // of one input at the most
    std::uint64_t bytes = std::uint64_t{1} << 30U;  // of all files of one input at the most
    std::uint64_t memory = std::uint64_t{32} << 20; // bytes that are kept of a live input

    bool wanted() const { return !directory.empty(); }
    bool operator==(const Settings&) const = default;
};

// What may be said of them, on command lines and in configuration files.
inline constexpr double longest_seconds = 60;
inline constexpr std::uint64_t most_files = 1'000'000;
inline constexpr std::uint64_t least_bytes = 1024;
inline constexpr std::uint64_t most_bytes = std::uint64_t{1} << 40U;
inline constexpr std::uint64_t least_memory = std::uint64_t{1} << 20U;
inline constexpr std::uint64_t most_memory = std::uint64_t{1} << 30U;

/// Throws std::system_error unless files can be made in that directory.
void check_directory(const std::string& directory);

/// Why there is no other cut beside so many files and bytes: one more file, or `needed` bytes (0: a
/// cut was ended for them). `option`: what the names of its options begin with, as "--cut-".
std::string no_room(const Settings& settings, std::uint64_t files, std::uint64_t bytes,
                    std::uint64_t needed, std::string_view option);

} // namespace quarn::cuts
