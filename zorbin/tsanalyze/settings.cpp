// settings.cpp - fills and shows the analyzer's settings.
//
// A host calls it before tsan_init: with the analyzer's group of a configuration file, with single
// settings in the form name=value, with a list of tracking switches. It owns nothing; every
// operation works on the record it is given.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <strings.h>

#include "config.h"
#include "log.h"
#include "tsanalyze.h"

LOG_MODULE(0);

namespace {

// What a configuration file that does not name the key stands for.
constexpr std::int64_t D_MAX_NO_ANALYZE = 9000; // packets
constexpr std::int64_t D_MAX_DELTA_MS = 500;    // ms
constexpr std::int64_t D_PCOUNT = 10000;        // packets

struct size_key {
    const char* key;
    std::size_t tsan_config::*field;
    std::int64_t missing; // value when the file does not name the key
};

// Read in this order; the first one that cannot be used ends the reading.
constexpr size_key SIZE_KEYS[] = {
    {"max_skipped_pkts", &tsan_config::max_skip_pkts, D_MAX_NO_ANALYZE},
    {"max_pdts_delta_ms", &tsan_config::max_pdts_delta, D_MAX_DELTA_MS},
    {"max_pcr_delta_ms", &tsan_config::max_pcr_delta, 0},
    {"pcr_freq_ms", &tsan_config::pcr_freq_ms, 0},
    {"dump_stats_period", &tsan_config::dump_stats_period, 0},
    {"max_ndat_pcount", &tsan_config::max_ndat_pcount, D_PCOUNT},
};

struct track_switch {
    bool tracking_opt::*field;
    const char* token; // in a switch list
    const char* key;   // in a configuration file
    const char* label; // in the dump
    bool in_list_all;  // cleared by every switch list and set by "all"
};

// intended: "all" stands for the per-packet traces and leaves the last three alone, and so does
// the clearing before a list is applied.
constexpr track_switch SWITCHES[] = {
    {&tracking_opt::sdt_ignore, "sdt_i", "sdt_ignore", "T:sdt_ignore:", true},
    {&tracking_opt::misc_ignore, "misc_i", "misc_ignore", "T:misc_ignore:", true},
    {&tracking_opt::pdts_update, "pdts_u", "pdts_update", "T:pdts_update:", true},
    {&tracking_opt::pat_pmt_pkt, "pat_pmt", "pat_pmt_pkt", "T:pat_pmt_pkt:", true},
    {&tracking_opt::pcr_update, "pcr_u", "pcr_update", "T:pcr_update:", true},
    {&tracking_opt::cc_track, "cc_t", "cc", "T:cc_track:", false},
    {&tracking_opt::pmt_diff, "pmt_d", "pmt_diff", "T:pmt_diff:", false},
    {&tracking_opt::pat_diff, "pat_d", "pat_diff", "T:pat_diff:", false},
};

struct state_word {
    const char* word;
    bool enabled;
};

constexpr state_word STATE_WORDS[] = {
    {"on", true}, {"enable", true}, {"off", false}, {"disable", false}};

struct named_size {
    const char* name;
    std::size_t tsan_config::*field;
};

constexpr named_size NAMED_SIZES[] = {
    {"skipped_pkts", &tsan_config::max_skip_pkts},
    {"pdts_delta", &tsan_config::max_pdts_delta},
    {"pcr_delta", &tsan_config::max_pcr_delta},
    {"pcr_freq", &tsan_config::pcr_freq_ms},
};

// A size of a configuration file is a signed number. A negative one reads as a size that is never
// reached, like -1 for SIZE_MAX; what the platform's size_t cannot hold becomes its largest value.
std::size_t size_from_file(std::int64_t value) {
    const bool fits =
        value < 0 ? std::in_range<std::ptrdiff_t>(value) : std::in_range<std::size_t>(value);
    return fits ? static_cast<std::size_t>(value) : SIZE_MAX;
}

// True only for a member of `group` that is a boolean and true. Anything that is not a group has
// no members.
bool is_true(const config_setting_t* group, const char* key) {
    int value = 0;
    return config_setting_lookup_bool(group, key, &value) == CONFIG_TRUE && value != 0;
}

int load_sizes(config_setting_t* s, tsan_config* cfg) {
    for (const size_key& k : SIZE_KEYS) {
        std::int64_t value = 0;
        const int rc = load_config_setting_size(s, k.key, &value, k.missing);
        if (rc != 0)
            return rc;
        cfg->*k.field = size_from_file(value);
    }
    return 0;
}

void load_cc(const config_setting_t* cc, tsan_config* cfg) {
    cfg->cc_track = is_true(cc, "track");
    int seconds = 0;
    if (config_setting_lookup_int(cc, "max_zreset_time", &seconds) != CONFIG_TRUE)
        seconds = 0;
    if (__builtin_mul_overflow(seconds, 1000, &cfg->cc_max_ms0_ms))
        cfg->cc_max_ms0_ms = seconds < 0 ? LONG_MIN : LONG_MAX;
}

void apply_named(const char* name, long value, tsan_config* cfg) {
    for (const named_size& n : NAMED_SIZES) {
        if (std::strcmp(name, n.name) == 0)
            cfg->*n.field = static_cast<std::size_t>(value);
    }
    // intended: milliseconds here, seconds in the file; both are established.
    if (std::strcmp(name, "max_zreset_time") == 0)
        cfg->cc_max_ms0_ms = value;
    if (std::strcmp(name, "cc_track") == 0)
        cfg->cc_track = value > 0;
}

const char* yes_no(bool flag) {
    return flag ? "yes" : "no";
}

} // namespace

int tsan_load_config(config_setting_t* s, tsan_config* cfg) {
    cfg->is_enabled = is_true(s, "enabled");
    if (!cfg->is_enabled) {
        LOG(&g_log, DEBUG_level, "%s: TSAN disabled, skipping further settings\n", __func__);
        return 0;
    }
    cfg->access_log_alerts = is_true(s, "access_log_alerts");

    int rc = load_config_setting_str(s, "source_tag", cfg->source, MAX_STAG_LEN - 1, "");
    if (rc == 0)
        rc = load_sizes(s, cfg);
    if (rc != 0) {
        LOG(&g_log, ERR_level, "%s: failed to load config, rc=%d\n", __func__, rc);
        return rc;
    }

    if (const config_setting_t* cc = config_setting_get_member(s, "cc"))
        load_cc(cc, cfg);
    // intended: "track" only says that switches follow; they stand beside it, not inside it.
    if (config_setting_get_member(s, "track")) {
        for (const track_switch& sw : SWITCHES)
            cfg->trk.*sw.field = is_true(s, sw.key);
    }
    return 0;
}

int tsan_cli_opt(const char* optstr, tsan_config* cfg) {
    const std::unique_ptr<char, decltype(&std::free)> opt(strdup(optstr), &std::free);
    if (!opt) {
        const int err = errno;
        LOG(&g_log, ERR_level, "%s: strdup() ERROR(%d): %s\n", __func__, err, std::strerror(err));
        return err;
    }

    char* const name = opt.get();
    long value = 0;
    const auto* word =
        std::find_if(std::begin(STATE_WORDS), std::end(STATE_WORDS),
                     [name](const state_word& w) { return strcasecmp(name, w.word) == 0; });
    if (word != std::end(STATE_WORDS)) {
        cfg->is_enabled = word->enabled;
    } else {
        char* const equals = std::strchr(name, '=');
        if (!equals) {
            LOG(&g_log, ERR_level, "%s: invalid option string format: %s\n", __func__, name);
            return EINVAL;
        }
        *equals = '\0';
        const char* const text = equals + 1;
        value = std::strtol(text, nullptr, 10);
        if (value < 0) {
            LOG(&g_log, ERR_level, "%s: invalid parameter value: %s/%ld\n", __func__, text, value);
            return EINVAL;
        }
        apply_named(name, value, cfg);
    }
    LOG(&g_log, DEBUG_level, "%s: %s=%ld OK\n", __func__, name, value);
    return 0;
}

int tsan_xtrack_opt(const char* optstr, tsan_config* cfg) {
    const bool all = strcasecmp(optstr, "all") == 0;
    for (const track_switch& sw : SWITCHES) {
        if (sw.in_list_all)
            cfg->trk.*sw.field = all;
        if (std::strstr(optstr, sw.token))
            cfg->trk.*sw.field = true;
    }
    return 0;
}

void tsan_dump_config(FILE* fp, const char* title, const tsan_config* cfg) {
    std::fprintf(fp, "%s: %s\n", title, cfg->is_enabled ? "" : "disabled");
    if (!cfg->is_enabled)
        return;

    std::fprintf(fp, "\tsource:                [%s]\n", cfg->source);
    std::fprintf(fp, "\tskipped packets:       %zu\n", cfg->max_skip_pkts);
    std::fprintf(fp, "\tNDAT p-count:          %zu\n", cfg->max_ndat_pcount);
    if (cfg->max_pdts_delta)
        std::fprintf(fp, "\tPTS/DTS delta:         %zu (ms)\n", cfg->max_pdts_delta);
    if (cfg->max_pcr_delta)
        std::fprintf(fp, "\tPCR delta:             %zu (ms)\n", cfg->max_pcr_delta);
    if (cfg->pcr_freq_ms)
        std::fprintf(fp, "\tPCR frequency:         %zu (ms)\n", cfg->pcr_freq_ms);
    if (cfg->dump_stats_period)
        std::fprintf(fp, "\tdump stats every:      %zu (sec)\n", cfg->dump_stats_period);
    std::fprintf(fp, "\tvalidate CC sequence:  %s\n", yes_no(cfg->cc_track));
    if (cfg->cc_track && cfg->cc_max_ms0_ms)
        std::fprintf(fp, "\tCC reset threshold:    %ld (ms)\n", cfg->cc_max_ms0_ms);
    for (const track_switch& sw : SWITCHES)
        std::fprintf(fp, "\t%-23s%s\n", sw.label, yes_no(cfg->trk.*sw.field));
    // intended: capitals mark the two values that differ from the usual run.
    std::fprintf(fp, "\taccess-log-alerts:     %s\n", cfg->access_log_alerts ? "YES" : "no");
    std::fprintf(fp, "\twrite-to-log:          %s\n", cfg->no_rlog ? "NO" : "yes");
}
