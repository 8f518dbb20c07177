#include "alert_settings.h"

#include <cstring>
#include <tuple>

#include "appcfg.h"
#include "settings.h"
#include "strops.h"
#include "timeop.h"

namespace quarn::live {

using settings::Group;
using settings::in_quotes;
using settings::WrongValue;

namespace {

constexpr std::int64_t most_files = 127;

std::size_t size_of(const std::string& text) {
    std::size_t size = 0;
    if (text.empty() || text[0] == '-' || a2size(text.c_str(), &size) != 0)
        throw WrongValue(in_quotes(text) + " is no size, such as \"10M\"");
    return size;
}

std::uint32_t time_of(const std::string& name) {
    const std::uint32_t flags = str_to_timefmt(name.c_str());
    if (flags == TMF_BAD)
        throw WrongValue(in_quotes(name) + " is none of local, gmt, raw, raw_mono, no_time");
    return flags;
}

void read_checks(const Group& group, tsan_config& analyzer) {
    if (const auto file = group.text("analyzer_config"))
        group.taken("analyzer_config", [&] { load_analyzer_file(*file, analyzer); });
    if (const auto checks = group.group("analyzer"))
        load_analyzer_group(*checks, analyzer);
}

auto fields(const tsan_config& c) {
    return std::tie(c.is_enabled, c.max_pdts_delta, c.max_pcr_delta, c.pcr_freq_ms,
                    c.dump_stats_period, c.max_ndat_pcount, c.cc_track, c.cc_max_ms0_ms);
}

auto fields(const AnalyzerSettings& a) {
    return std::tie(a.name, a.alert_log, a.text_log, a.log_size, a.log_files, a.log_daily,
                    a.log_time, a.syslog, a.datagrams);
}

} // namespace

bool AlertSettings::operator==(const AlertSettings& other) const {
    const tsan_config& a = analyzer.analyzer;
    const tsan_config& b = other.analyzer.analyzer;
    return lines == other.lines && fields(analyzer) == fields(other.analyzer) &&
           fields(a) == fields(b) && std::memcmp(&a.trk, &b.trk, sizeof a.trk) == 0;
}

void read_alerts(const Group& group, AlertSettings& alerts) {
    AnalyzerSettings& a = alerts.analyzer;
    alerts.lines = group.flag("alert_lines").value_or(alerts.lines);
    a.alert_log = group.text("alert_log").value_or(a.alert_log);
    a.text_log = group.text("alert_text_log").value_or(a.text_log);
    if (const auto size = group.text("alert_log_size"))
        a.log_size = group.taken("alert_log_size", [&] { return size_of(*size); });
    if (const auto files = group.number("alert_log_files", 1, most_files))
        a.log_files = static_cast<std::size_t>(*files);
    a.log_daily = group.flag("alert_log_daily").value_or(a.log_daily);
    if (const auto name = group.text("alert_log_time"))
        a.log_time = group.taken("alert_log_time", [&] { return time_of(*name); });
    if (const auto name = group.text("alert_syslog"))
        a.syslog = group.taken("alert_syslog", [&] { return facility_of(*name); });
    read_checks(group, a.analyzer);
    if (const std::string wrong = wrong_settings(a); !wrong.empty()) {
        const std::size_t blank = wrong.find(' '); // behind the key
        throw group.wrong(wrong.substr(0, blank).c_str(), wrong.substr(blank + 1));
    }
}

} // namespace quarn::live
