// Tells of tables that changed: q.4, and q.5 where the version did not.
#pragma once

#include "events.h"
#include "output.h"

namespace quarn {

/// Each change is a finding of its own.
class Changes {
  public:
    /// The output must outlive it.
    explicit Changes(Output& output) : output_(output) {}

    void changed(const TableChangedEvent& event, const Place& place);
    /// Any section with a right CRC makes both rows judged.
    void section(const SectionEvent& section) { seen_ = seen_ || section.crc_right; }
    void judge(Judgement& judgement) const;

  private:
    Output& output_;
    bool seen_ = false;
};

} // namespace quarn
