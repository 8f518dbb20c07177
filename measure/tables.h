// Follows the tables: which programs and streams are announced at each place of the stream. Part of
// the first look; needs no time.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "events.h"
#include "packet.h"
#include "programs.h"

namespace quarn {

/// Collects sections, checks their CRC, puts PAT, PMT and CAT in force, and tells what changes.
/// Every complete section is a SectionEvent; a change of what is in force is a TableChangedEvent
/// (where something can be said about it) and a ProgramsEvent behind it. Memory is bounded whatever
/// the input. One thread.
class Tables {
  public:
    /// The sink must outlive the tables.
    explicit Tables(EventSink& sink);
    ~Tables();
    Tables(const Tables&) = delete;
    Tables& operator=(const Tables&) = delete;

    /// Whether packets of that pid are to be fed: PAT, CAT, SI, PMTs and the network PID.
    bool wants(std::uint16_t pid) const { return wanted_[pid]; }

    /// The payload of the next packet of a pid that is wanted (others are ignored): not scrambled,
    /// without transport error, and no copy.
    void feed(const At& at, std::uint16_t pid, std::span<const std::uint8_t> payload,
              bool unit_start);

    /// Packets of the pid (null_pid: of all) are missing or damaged: the section under way is
    /// dropped, which makes neither a CRC error nor a finding.
    void disturbed(std::uint16_t pid);

    /// What is in force behind the last packet that was fed. Never null.
    const ProgramsPtr& current() const { return current_; }

    /// From now on the SDT in force is told of (NamesEvent).
    void tell_names() { tells_names_ = true; }

    /// Names by service id (program number), from the SDT in force.
    const std::map<std::uint16_t, ServiceNames>& services() const;

  private:
    class Impl;
    std::bitset<pid_count> wanted_; // this and current_ are set by impl_
    ProgramsPtr current_;
    bool tells_names_ = false;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn
