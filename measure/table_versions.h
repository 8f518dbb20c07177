// The sections of one table: which are in force, and which of its next version have come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sections.h"

namespace quarn {

/// Whole sections, in the order of their numbers.
using Sections = std::vector<std::vector<std::uint8_t>>;

class TableVersions {
  public:
    enum class Outcome {
        repeated, // nothing new
        waiting,  // other sections of its version are missing
        in_force, // a version is whole, or a section of the one in force has other content
    };

    /// Tables of more sections are not followed: memory.
    explicit TableVersions(unsigned max_sections) : max_sections_(max_sections) {}

    /// Whether the section is in force as it is.
    bool holds(const SectionHead& head, Bytes bytes) const;
    /// Takes a section whose CRC is right and which is current.
    Outcome take(const SectionHead& head, Bytes bytes);

    bool empty() const { return in_force_.sections.empty(); }
    const Sections& sections() const { return in_force_.sections; }
    /// What was in force before the last outcome in_force; empty if it is the first.
    const Sections& before() const { return before_; }
    void forget_before() { before_ = {}; }
    /// The last outcome in_force came with the version number of the one before it.
    bool same_version() const { return same_version_; }
    std::uint16_t extension() const { return in_force_.extension; }

  private:
    struct Version {
        std::uint8_t version = 0;
        std::uint8_t last_number = 0;
        std::uint16_t extension = 0;
        Sections sections; // those that have not come are empty
        std::size_t have = 0;

        bool fits(const SectionHead& head) const;
    };

    unsigned max_sections_;
    Version in_force_;
    Version next_;
    Sections before_;
    bool same_version_ = false;
};

} // namespace quarn
