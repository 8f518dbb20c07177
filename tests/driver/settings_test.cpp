// settings_test.cpp - the analyzer's settings: configuration group, name=value settings, switch
// lists, dump.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "fixture.h"
#include "log_capture.h"
#include "tsanalyze.h"

namespace {

using std::string;
using std::to_string;

constexpr bool tracking_opt::*SWITCHES[] = {&tracking_opt::sdt_ignore,  &tracking_opt::misc_ignore,
                                            &tracking_opt::pdts_update, &tracking_opt::pat_pmt_pkt,
                                            &tracking_opt::pcr_update,  &tracking_opt::cc_track,
                                            &tracking_opt::pmt_diff,    &tracking_opt::pat_diff};

void set_switches(tracking_opt& trk, const string& bits) {
    for (std::size_t i = 0; i < bits.size(); i++)
        trk.*SWITCHES[i] = bits[i] == '1';
}

// Every field as name=value, the switches in field order.
string show(const tsan_config& c) {
    string trk;
    for (const auto field : SWITCHES)
        trk += c.trk.*field ? '1' : '0';
    return "on=" + to_string(c.is_enabled) + " tag=" + c.source +
           " skip=" + to_string(c.max_skip_pkts) + " pdts=" + to_string(c.max_pdts_delta) +
           " pcr=" + to_string(c.max_pcr_delta) + " freq=" + to_string(c.pcr_freq_ms) +
           " alerts=" + to_string(c.access_log_alerts) +
           " period=" + to_string(c.dump_stats_period) + " ndat=" + to_string(c.max_ndat_pcount) +
           " cc=" + to_string(c.cc_track) + " ms0=" + to_string(c.cc_max_ms0_ms) + " trk=" + trk +
           " norlog=" + to_string(c.no_rlog);
}

// The same with the fields that `changes` names replaced, "freq=40 cc=0".
string show(const tsan_config& c, const string& changes) {
    string text = show(c);
    std::istringstream words(changes);
    for (string word; words >> word;) {
        const std::size_t at = (" " + text).find(" " + word.substr(0, word.find('=') + 1));
        text.replace(at, text.find(' ', at) - at, word);
    }
    return text;
}

// No field has the value that a configuration file gives it by default, so that a field left alone
// is told from one that was read.
tsan_config marked_config() {
    tsan_config c = default_config();
    c.max_pdts_delta = 11;
    c.max_pcr_delta = 12;
    c.pcr_freq_ms = 13;
    c.access_log_alerts = true;
    c.dump_stats_period = 14;
    c.max_ndat_pcount = 15;
    set_switches(c.trk, "10101010");
    c.no_rlog = true;
    return c;
}

// Loads the setting "group = <text>;" of a file into `cfg`.
int load(const string& text, tsan_config* cfg) {
    config_t file;
    config_init(&file);
    EXPECT_EQ(config_read_string(&file, ("group = " + text + ";").c_str()), CONFIG_TRUE)
        << config_error_text(&file);
    const int rc = tsan_load_config(config_lookup(&file, "group"), cfg);
    config_destroy(&file);
    return rc;
}

TEST(settings, reads_the_group_of_a_file) {
    const string defaults = "tag= skip=9000 pdts=500 pcr=0 freq=0 alerts=0 period=0 ndat=10000 ";
    const string longest(62, 'x');
    const string huge = to_string(std::min<unsigned long long>(5000000000, SIZE_MAX));
    const string never = to_string(SIZE_MAX - (sizeof(std::size_t) == 4 ? 0 : 4294967295));
    const string latest = to_string(std::min<long long>(2147483647000, LONG_MAX));
    const string earliest = to_string(std::max<long long>(-2147483648000, LONG_MIN));
    const struct {
        string body;    // behind "enabled = true;"
        string changes; // to marked_config() with the defaults above
    } rows[] = {
        {"", ""},
        {"access_log_alerts = true; source_tag = \"a:tag\"; max_skipped_pkts = 1;"
         "max_pdts_delta_ms = 2; max_pcr_delta_ms = 3; pcr_freq_ms = 4; dump_stats_period = 5;"
         "max_ndat_pcount = 6;",
         "alerts=1 tag=a:tag skip=1 pdts=2 pcr=3 freq=4 period=5 ndat=6"},
        // sizes: texts, missing ones in disguise, numbers that size_t may not hold
        {"max_skipped_pkts = \"1.5K\"; pcr_freq_ms = \"40\"; max_ndat_pcount = 0;",
         "skip=1536 freq=40 ndat=0"},
        {"max_skipped_pkts = \"\"; max_pdts_delta_ms = true; max_ndat_pcount = 2.5;", ""},
        {"max_ndat_pcount = 5000000000L; max_skipped_pkts = -1;",
         "ndat=" + huge + " skip=" + to_string(SIZE_MAX)},
        {"max_skipped_pkts = -4294967296L;", "skip=" + never},
        // texts and booleans
        {"source_tag = \"" + longest + "\";", "tag=" + longest},
        {"access_log_alerts = \"true\"; source_tag = 7;", ""},
        // the continuity-counter group gives both values or neither
        {"cc = { };", "cc=0 ms0=0"},
        {"cc = { track = true; };", "ms0=0"},
        {"cc = { track = true; max_zreset_time = 2; };", "ms0=2000"},
        {"cc = { track = 1; max_zreset_time = \"2\"; };", "cc=0 ms0=0"},
        {"cc = { max_zreset_time = 2147483647; };", "cc=0 ms0=" + latest},
        {"cc = { max_zreset_time = 0x80000000; };", "cc=0 ms0=" + earliest},
        {"cc = ( { track = true; } );", "cc=0 ms0=0"},
        // switches stand beside "track", whatever that is
        {"pat_diff = true; sdt_ignore = false;", ""},
        {"track = false; pat_diff = true;", "trk=00000001"},
        {"track = { pat_diff = true; sdt_ignore = true; };", "trk=00000000"},
        {"track = 1; misc_ignore = true; pat_pmt_pkt = true; pmt_diff = true;", "trk=01010010"},
        {"track = 1; sdt_ignore = true; pdts_update = true; pcr_update = true; pat_diff = 1;",
         "trk=10101000"},
        {"track = 1; cc = true;", "trk=00000100 cc=0 ms0=0"},
        {"track = 1; cc = { track = true; max_zreset_time = 1; };", "trk=00000000 ms0=1000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body);
        log_capture log;
        tsan_config cfg = marked_config();
        EXPECT_EQ(load("{ enabled = true; " + row.body + " }", &cfg), 0);
        EXPECT_EQ(show(cfg), show(marked_config(), defaults + row.changes));
        EXPECT_EQ(log.human(), "");
    }
}

TEST(settings, reads_nothing_more_when_disabled) {
    for (const char* group :
         {"{ }", "{ enabled = false; max_ndat_pcount = 1; source_tag = \"x\"; }",
          "{ enabled = 1; max_ndat_pcount = 1; cc = { }; }", "{ enabled = \"true\"; }", "5",
          "[ 1, 2 ]", "( )", "\"text\"", "true"}) {
        SCOPED_TRACE(group);
        log_capture log(DEBUG_level);
        tsan_config cfg = marked_config();
        EXPECT_EQ(load(group, &cfg), 0);
        EXPECT_EQ(show(cfg), show(marked_config(), "on=0"));
        EXPECT_EQ(log.human(),
                  "(DBG)  tsan_load_config: TSAN disabled, skipping further settings\n");
    }
}

TEST(settings, stops_at_the_first_value_that_cannot_be_used) {
    const struct {
        string body;
        int rc;
        string changes;     // to marked_config(): what was read before
        string helper_line; // behind "load_config_setting_str: "
    } rows[] = {
        {"source_tag = \"" + string(63, 'x') + "\";", -1, "alerts=0",
         "source_tag value is too long (63), max = 63 characters.\n"},
        {"max_pcr_delta_ms = 7; pcr_freq_ms = \"12KiB\";", -5,
         "alerts=0 tag= skip=9000 pdts=500 pcr=7", ""},
        {"max_skipped_pkts = \"99999999999999999999\";", -2, "alerts=0 tag=", ""},
        {"max_skipped_pkts = \"" + string(32, '1') + "\";", -1,
         "alerts=0 tag=", "max_skipped_pkts value is too long (32), max = 32 characters.\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body);
        log_capture log;
        tsan_config cfg = marked_config();
        EXPECT_EQ(load("{ enabled = true; max_ndat_pcount = 1; cc = { }; " + row.body + " }", &cfg),
                  row.rc);
        EXPECT_EQ(show(cfg), show(marked_config(), row.changes));
        const string helper =
            row.helper_line.empty() ? "" : "(ERR)  load_config_setting_str: " + row.helper_line;
        EXPECT_EQ(log.human(), helper + "(ERR)  tsan_load_config: failed to load config, rc=" +
                                   to_string(row.rc) + "\n");
    }
}

TEST(settings, applies_one_setting) {
    const string most = to_string(LONG_MAX);
    const struct {
        string opt;
        string line;    // of the application log, behind "tsan_cli_opt: "
        string changes; // to marked_config()
    } rows[] = {
        {"on", "on=0 OK", ""},
        {"Disable", "Disable=0 OK", "on=0"},
        {"OFF", "OFF=0 OK", "on=0"},
        {"off=1", "off=1 OK", ""},
        {"skipped_pkts=200000", "skipped_pkts=200000 OK", "skip=200000"},
        {"pdts_delta=21", "pdts_delta=21 OK", "pdts=21"},
        {"pcr_delta=22", "pcr_delta=22 OK", "pcr=22"},
        {"pcr_freq=23", "pcr_freq=23 OK", "freq=23"},
        {"max_zreset_time=2", "max_zreset_time=2 OK", "ms0=2"},
        {"cc_track=0", "cc_track=0 OK", "cc=0"},
        {"cc_track=2", "cc_track=2 OK", ""},
        {"cc_track=on", "cc_track=0 OK", "cc=0"},
        {"pcr_delta=", "pcr_delta=0 OK", "pcr=0"},
        {"pcr_delta= 8x", "pcr_delta=8 OK", "pcr=8"},
        {"pcr_delta=9=10", "pcr_delta=9 OK", "pcr=9"},
        {"pcr_freq=99999999999999999999", "pcr_freq=" + most + " OK", "freq=" + most},
        // unknown names
        {"PCR_delta=9", "PCR_delta=9 OK", ""},
        {"pcr_delta =9", "pcr_delta =9 OK", ""},
        {"max_ndat_pcount=9", "max_ndat_pcount=9 OK", ""},
        {"=9", "=9 OK", ""},
        // refused
        {"pcr_delta=-1", "invalid parameter value: -1/-1", ""},
        {"foo=-2x", "invalid parameter value: -2x/-2", ""},
        {"pcr_delta", "invalid option string format: pcr_delta", ""},
        {"on ", "invalid option string format: on ", ""},
        {"", "invalid option string format: ", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.opt);
        log_capture log(DEBUG_level);
        tsan_config cfg = marked_config();
        const bool refused = row.line.starts_with("invalid");
        EXPECT_EQ(tsan_cli_opt(row.opt.c_str(), &cfg), refused ? EINVAL : 0);
        EXPECT_EQ(show(cfg), show(marked_config(), row.changes));
        EXPECT_EQ(log.human(),
                  string(refused ? "(ERR)" : "(DBG)") + "  tsan_cli_opt: " + row.line + "\n");
    }
    for (const char* word : {"ON", "enable"}) {
        tsan_config cfg{};
        EXPECT_EQ(tsan_cli_opt(word, &cfg), 0);
        EXPECT_TRUE(cfg.is_enabled) << word;
    }
}

TEST(settings, applies_a_switch_list) {
    const struct {
        const char* before;
        const char* list;
        const char* after;
    } rows[] = {
        {"00000000", "all", "11111000"},
        {"00000101", "ALL", "11111101"},
        {"11111111", "", "00000111"},
        {"11111010", "nonsense", "00000010"},
        {"00000000", "sdt_i", "10000000"},
        {"00000000", "misc_i", "01000000"},
        {"00000000", "pdts_u:pcr_u", "00101000"},
        {"00000000", "pat_pmt", "00010000"},
        {"11111000", "cc_t:pat_d", "00000101"},
        {"00000000", "pmt_d", "00000010"},
        {"00000000", "pat_pmt_d", "00010010"}, // any substring counts
        {"00000000", "xsdt_ignore,misc_icc_track", "11000100"},
        {"00000000", "PDTS_U", "00000000"},
        {"00000000", "all:cc_t", "00000100"}, // "all" is the whole argument or nothing
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(string(row.before) + " " + row.list);
        tsan_config cfg = default_config();
        set_switches(cfg.trk, row.before);
        EXPECT_EQ(tsan_xtrack_opt(row.list, &cfg), 0);
        EXPECT_EQ(show(cfg), show(default_config(), string("trk=") + row.after));
    }
}

string dump(const tsan_config& cfg) {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* const fp = open_memstream(&text, &length);
    tsan_dump_config(fp, "title", &cfg);
    std::fclose(fp);
    string result(text, length);
    std::free(text);
    return result;
}

TEST(settings, shows_what_is_set) {
    tsan_config cfg = marked_config();
    cfg.is_enabled = false;
    EXPECT_EQ(dump(cfg), "title: disabled\n");

    cfg.is_enabled = true;
    EXPECT_EQ(dump(cfg), "title: \n"
                         "\tsource:                [src]\n"
                         "\tskipped packets:       5000\n"
                         "\tNDAT p-count:          15\n"
                         "\tPTS/DTS delta:         11 (ms)\n"
                         "\tPCR delta:             12 (ms)\n"
                         "\tPCR frequency:         13 (ms)\n"
                         "\tdump stats every:      14 (sec)\n"
                         "\tvalidate CC sequence:  yes\n"
                         "\tCC reset threshold:    30 (ms)\n"
                         "\tT:sdt_ignore:          yes\n"
                         "\tT:misc_ignore:         no\n"
                         "\tT:pdts_update:         yes\n"
                         "\tT:pat_pmt_pkt:         no\n"
                         "\tT:pcr_update:          yes\n"
                         "\tT:cc_track:            no\n"
                         "\tT:pmt_diff:            yes\n"
                         "\tT:pat_diff:            no\n"
                         "\taccess-log-alerts:     YES\n"
                         "\twrite-to-log:          NO\n");
    cfg.cc_max_ms0_ms = 0;
    EXPECT_EQ(dump(cfg).find("CC reset"), string::npos);

    cfg = {};
    cfg.is_enabled = true;
    cfg.cc_max_ms0_ms = 30; // not shown where nothing is checked
    set_switches(cfg.trk, "01010101");
    EXPECT_EQ(dump(cfg), "title: \n"
                         "\tsource:                []\n"
                         "\tskipped packets:       0\n"
                         "\tNDAT p-count:          0\n"
                         "\tvalidate CC sequence:  no\n"
                         "\tT:sdt_ignore:          no\n"
                         "\tT:misc_ignore:         yes\n"
                         "\tT:pdts_update:         no\n"
                         "\tT:pat_pmt_pkt:         yes\n"
                         "\tT:pcr_update:          no\n"
                         "\tT:cc_track:            yes\n"
                         "\tT:pmt_diff:            no\n"
                         "\tT:pat_diff:            yes\n"
                         "\taccess-log-alerts:     no\n"
                         "\twrite-to-log:          yes\n");
}

} // namespace
