// Settings of the analyzer beside an input: what it checks, and where its lines go.
//
// In the configuration file, of an input or for all of them:
//
//     alert_lines = true;                     # run the analyzer beside the input; default false
//     alert_log = "/var/log/quarn/news.alerts";   # lines for machines; default: standard output
//     alert_text_log = "/var/log/quarn/news.log"; # lines and statistics for people; default: none
//     alert_log_size = "10M";   # both are rotated at this size; 0: never; default 10M, least 1M
//     alert_log_files = 16;     # rotated files kept of each, 1 to 127; default 16
//     alert_log_daily = true;   # and at the end of the local day; default true
//     alert_log_time = "local"; # local, gmt, raw, raw_mono, no_time; default local
//     alert_syslog = "local3";  # lines for machines to syslog as well: user, local0 to local7
//     analyzer = { pcr_freq_ms = 40; dump_stats_period = 60; ... };
//     analyzer_config = "/etc/quarn/quarn.conf"; # in its place: group zbn.stream_analyzer there
//
// Both logs are one input's: alert_log and alert_text_log make no sense outside the inputs. The
// keys of `analyzer` are those of quarn.conf(5), with its defaults. `enabled` need not be there;
// `source_tag`, `access_log_alerts` and `max_skipped_pkts` have no effect: the tag is the input's
// name, alert_lines says whether lines are written, and an input without tables goes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "settings/config_file.h"
#include "tsanalyze.h"

namespace quarn::live {

/// What the analyzer checks when nothing is said: continuity, audio 500 ms from video and 1000 ms
/// from the PCR, PCRs 100 ms apart, silent streams; statistics every 60 s.
tsan_config default_analyzer();

/// Settings of a group in the style of quarn.conf. Throws settings::WrongValue, also for keys that
/// it does not have and would pass over.
void load_analyzer_group(const settings::Group& group, tsan_config& cfg);
/// Settings of the group zbn.stream_analyzer of a file for quarn, which takes any key. Throws
/// settings::WrongValue, with the file.
void load_analyzer_file(const std::string& path, tsan_config& cfg);

struct AnalyzerSettings {
    std::string name;                // of the input, any text
    bool datagrams = true;           // false: a file or pipe, whose blocks may be cut anywhere
    std::string alert_log;           // path; empty: standard output
    std::string text_log;            // path; empty: no lines for people
    std::size_t log_size = 10 << 20; // bytes, 0: not rotated by size
    std::size_t log_files = 16;
    bool log_daily = true;
    std::uint32_t log_time = 0; // flags of timeop.h, as str_to_timefmt() gives them
    int syslog = -1;            // facility as str2fac() gives it, -1: none
    tsan_config analyzer = default_analyzer();
    std::size_t ring_bytes = 512 << 10; // shared memory, a power of two: 0.4 s of 10 Mbit/s
};

/// What cannot be of these settings, and what would be right; empty: nothing.
std::string wrong_settings(const AnalyzerSettings& settings);

/// A name as the source of alert lines, whose columns are separated by blanks: at most 63 bytes of
/// UTF-8 in which blanks, control characters and wrong bytes are "_"; never empty.
std::string source_tag(std::string_view name);

} // namespace quarn::live
