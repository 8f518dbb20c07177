// Findings in syslog.
#pragma once

#include "lane.h"

namespace quarn::live {

/// One message a finding, its record; severities error, warning and info are syslog's.
class SyslogTarget final : public Target {
  public:
    /// One at a time in a process: syslog's connection is the process's.
    explicit SyslogTarget(int facility);
    ~SyslogTarget() override;
    SyslogTarget(const SyslogTarget&) = delete;
    SyslogTarget& operator=(const SyslogTarget&) = delete;

    bool take(const Record& record) override;
};

} // namespace quarn::live
