// Findings and summaries of one input as JSON Lines; quarn-findings-1.schema.json says what they
// hold.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "measure/measure.h"

namespace quarn {

/// Members of a finding that only some hosts know.
struct Extras {
    std::optional<std::uint64_t> raised_seq; // `seq` of the raise that a clear belongs to
    std::optional<std::string> packet_hex;   // q.12: the packet that ended the analyzer
    std::optional<std::uint64_t> left_out;   // q.13: records that were not written
    std::optional<std::string> cut_file;     // file with the packets around the finding
    std::optional<std::uint64_t> cut_packet; // number of the finding's first packet in it
};

/// Writes the records of one input, one line each. Cheap enough for hundreds of thousands.
class Records {
  public:
    /// `input`: name of the input as its user gave it.
    explicit Records(std::string_view input);

    void start(std::string& out, int packet_size, Profile profile);
    /// Returns the `seq` of the record.
    std::uint64_t finding(std::string& out, const Finding& finding, const Extras& extras = {});
    void summary(std::string& out, const Summary& summary);
    /// Counts a record that is not written.
    void skip() { ++seq_; }
    /// An input that cannot be read; `kind` is one of the schema's words.
    void error(std::string& out, std::string_view kind, std::string_view text);

  private:
    void begin(std::string& out, std::string_view type);

    std::string head_; // what all records begin with, up to the number behind "seq":
    std::uint64_t seq_ = 0;
};

} // namespace quarn
