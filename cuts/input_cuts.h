// Cuts out of an input that quarn-check reads: what is written comes from the input, read again.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "file.h"
#include "inputs/input.h"
#include "measure/finding.h"
#include "settings.h"
#include "stretch.h"
#include "where.h"

namespace quarn::cuts {

/// Writes the packets around findings of one input, until the files or bytes that are allowed are
/// used up. Findings that lie near each other share a file. One thread.
///
/// Of an interval longer than ten seconds, and than its limit, the begin is cut out. What is
/// decided does not depend on how the input was read.
class InputCuts {
  public:
    /// Bytes to be kept of what cannot be read twice (inputs::OpenOptions::keep).
    static constexpr std::size_t kept_bytes = std::size_t{64} << 20U;

    /// `bitrate`: bits a second of an input without a clock, 0 if not known. The input must outlive
    /// it.
    InputCuts(const Settings& settings, std::string_view name, inputs::Input& input,
              std::uint64_t bitrate);

    /// Begins a cut, or takes one that is there: nothing where there is no room for it, where the
    /// packets cannot be had any more, or where it could not be written.
    std::optional<Where> take(const Finding& finding);
    /// To be called now and then while the input is read: goes on with what was begun.
    void turn();
    /// The input is at its end.
    void end();

    /// What could not be written; empty if all could.
    const std::string& trouble() const { return trouble_; }
    /// Files that are gone again.
    const std::vector<std::string>& lost() const { return lost_; }
    /// Findings that have no cut, and why; empty if all have.
    std::vector<std::string> remarks() const;

  private:
    struct Cut {
        File file;
        std::uint64_t first = 0;          // number in the input of the packet it begins with
        std::uint64_t next = 0;           // offset of the byte that is to be written next
        Place core_begin, core_end;       // of the findings in it
        std::uint64_t try_at = 0;         // not before the input has so many bytes
        std::optional<std::uint64_t> end; // written up to here, all that belongs to core_end
    };

    bool shares(const Cut& cut, const Place& begin, const Place& end) const;
    std::optional<Where> begin_cut(const Finding& finding, const Place& begin, const Place& end);
    Place end_of(const Finding& finding) const;
    void go_on(Cut& cut, bool last);
    bool copy(Cut& cut, std::uint64_t end);
    bool failed(File& file, int error);
    void finish(Cut& cut);
    double rate(const Place& place) const;

    const Settings settings_;
    const std::string name_;
    inputs::Input& input_;
    const std::uint64_t bitrate_;
    std::deque<Cut> open_; // the newest ones, which more findings may share
    std::uint64_t files_ = 0;
    std::uint64_t promised_ = 0; // bytes that the cuts are expected to have
    std::uint64_t written_ = 0;
    std::vector<std::uint8_t> buffer_;
    std::string trouble_;
    std::vector<std::string> lost_;
    bool full_ = false;
    std::uint64_t needed_ = 0;   // bytes, of the cut that there was no room for
    std::uint64_t left_out_ = 0; // findings, since it is full
    std::uint64_t gone_ = 0;     // findings whose packets are not kept any more
};

} // namespace quarn::cuts
