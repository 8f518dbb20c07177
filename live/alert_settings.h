// The analyzer's keys of the configuration file.
#pragma once

#include <vector>

#include "analyzer_settings.h"
#include "settings/config_file.h"

namespace quarn::live {

/// Keys that may stand for all inputs, and those of one input only.
inline const std::vector<const char*> alert_keys{
    "alert_lines",    "alert_log_size", "alert_log_files", "alert_log_daily",
    "alert_log_time", "alert_syslog",   "analyzer",        "analyzer_config"};
inline const std::vector<const char*> alert_path_keys{"alert_log", "alert_text_log"};

/// What is said of the analyzer at the top of the file, or for one input.
struct AlertSettings {
    bool lines = false;
    AnalyzerSettings analyzer;

    /// Nothing differs that the analyzer could tell.
    bool operator==(const AlertSettings& other) const;
};

/// Takes over what the group says. Throws settings::WrongValue.
void read_alerts(const settings::Group& group, AlertSettings& alerts);

} // namespace quarn::live
