#include "syslog_target.h"

#include <syslog.h>

namespace quarn::live {

namespace {
int priority(Severity severity) {
    switch (severity) {
    case Severity::error:
        return LOG_ERR;
    case Severity::warning:
        return LOG_WARNING;
    case Severity::info:
        break;
    }
    return LOG_INFO;
}
} // namespace

SyslogTarget::SyslogTarget(int facility) {
    ::openlog("quarn-live", LOG_PID, facility);
}

SyslogTarget::~SyslogTarget() {
    ::closelog();
}

bool SyslogTarget::take(const Record& record) {
    const int length = static_cast<int>(record.text.size()) - 1; // without its line feed
    ::syslog(priority(record.severity), "%.*s", length, record.text.c_str());
    return true;
}

} // namespace quarn::live
