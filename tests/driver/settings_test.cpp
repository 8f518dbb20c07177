// settings_test.cpp - what the golden runs do not show of the analyzer's settings: odd values in a
// configuration group, single settings, switch lists, and what each of them leaves alone.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <libconfig.h>

#include "analyzer_test.h"

namespace {

using std::string;
using std::to_string;

// Every field as name=value, the switches in field order.
string show(const tsan_config& c) {
    const tracking_opt& t = c.trk;
    std::ostringstream s;
    s << " on=" << c.is_enabled << " tag=" << c.source << " skip=" << c.max_skip_pkts
      << " pdts=" << c.max_pdts_delta << " pcr=" << c.max_pcr_delta << " freq=" << c.pcr_freq_ms
      << " alerts=" << c.access_log_alerts << " period=" << c.dump_stats_period
      << " ndat=" << c.max_ndat_pcount << " cc=" << c.cc_track << " ms0=" << c.cc_max_ms0_ms
      << " norlog=" << c.no_rlog << " trk=" << t.sdt_ignore << t.misc_ignore << t.pdts_update
      << t.pat_pmt_pkt << t.pcr_update << t.cc_track << t.pmt_diff << t.pat_diff << ' ';
    return s.str();
}

// No field has the value that a file gives it by default, so that one left alone can be told.
const tsan_config marked = [] {
    tsan_config c = {true, "src", 5000, 11, 12, 13, true, 14, 15, true, 30, {}, true};
    c.trk.sdt_ignore = c.trk.pdts_update = c.trk.pcr_update = c.trk.pmt_diff = true;
    return c;
}();

// Shows `marked` with the fields replaced that `changes` names, "freq=40 cc=0".
string with(const string& changes) {
    string text = show(marked);
    std::istringstream words(changes);
    for (string word; words >> word;) {
        const std::size_t at = text.find(" " + word.substr(0, word.find('=') + 1)) + 1;
        text.replace(at, text.find(' ', at) - at, word);
    }
    return text;
}

int load(const string& group, tsan_config* cfg) {
    config_t file;
    config_init(&file);
    EXPECT_EQ(config_read_string(&file, ("group = " + group + ";").c_str()), CONFIG_TRUE);
    const int rc = tsan_load_config(config_lookup(&file, "group"), cfg);
    config_destroy(&file);
    return rc;
}

TEST(settings, group_of_a_file) {
    const string huge = to_string(std::min<unsigned long long>(5000000000, SIZE_MAX));
    const string latest = to_string(std::min<long long>(2147483647000, LONG_MAX));
    const string tag = "alerts=0 tag= ", skip = tag + "skip=9000 pdts=500 pcr=0 ";
    const string all = skip + "freq=0 period=0 ndat=10000 ";
    const struct {
        int rc;
        string group, changes; // behind "enabled = true; "; to `marked`
    } rows[] = {
        {0, R"(max_skipped_pkts = "1.5K"; pcr_freq_ms = ""; max_ndat_pcount = 0;)",
         all + "skip=1536 ndat=0"},
        {0, "max_ndat_pcount = 5000000000L; max_skipped_pkts = -1;",
         all + "ndat=" + huge + " skip=" + to_string(SIZE_MAX)},
        {0, R"(access_log_alerts = "true"; source_tag = 7; pcr_freq_ms = 2.5;)", all},
        {-1, "source_tag = \"" + string(63, 'x') + "\"; cc = { };", "alerts=0"},
        {-5, R"(pcr_freq_ms = "12KiB"; max_ndat_pcount = 1;)", skip},
        {-2, R"(max_skipped_pkts = "99999999999999999999"; cc = { };)", tag},
        {0, "cc = { track = true; };", all + "ms0=0"},
        {0, R"(cc = { track = 1; max_zreset_time = "2"; };)", all + "cc=0 ms0=0"},
        {0, "cc = { max_zreset_time = 2147483647; };", all + "cc=0 ms0=" + latest},
        // switches stand beside "track", whatever that is
        {0, "pat_diff = true; sdt_ignore = false;", all},
        {0, "track = 1; misc_ignore = true; pmt_diff = 1; cc = true;",
         all + "trk=01000100 cc=0 ms0=0"},
        {0, "track = { pat_diff = true; }; pdts_update = true;", all + "trk=00100000"},
    };
    for (const auto& row : rows) {
        tsan_config cfg = marked;
        EXPECT_EQ(load("{ enabled = true; " + row.group + " }", &cfg), row.rc) << row.group;
        EXPECT_EQ(show(cfg), with(row.changes)) << row.group;
    }
    for (const char* group : {"{ max_ndat_pcount = 1; cc = { }; }", "{ enabled = 1; cc = { }; }",
                              "{ enabled = \"true\"; }", "[ 1, 2 ]", "( )", "\"text\"", "true"}) {
        tsan_config cfg = marked;
        EXPECT_EQ(load(group, &cfg), 0);
        EXPECT_EQ(show(cfg), with("on=0")) << group;
    }
}

TEST(settings, single_ones) {
    const struct {
        string opt, changes;
        int rc = 0;
    } rows[] = {
        // clang-format off
        {"on", ""}, {"Disable", "on=0"}, {"off=1", ""}, {"=9", ""}, {"skipped_pkts=99", "skip=99"},
        {"cc_track=0", "cc=0"}, {"cc_track=2", ""}, {"max_zreset_time=2", "ms0=2"},
        {"PCR_delta=9", ""}, {"pcr_delta =9", ""}, {"pcr_delta= 9=10", "pcr=9"},
        {"pdts_delta=", "pdts=0"}, {"pcr_freq=99999999999999999999", "freq=" + to_string(LONG_MAX)},
        {"foo=-2x", "", EINVAL}, {"on ", "", EINVAL}, {"", "", EINVAL},
    }; // clang-format on
    log_capture log(DEBUG_level);
    for (const auto& row : rows) {
        tsan_config cfg = marked;
        EXPECT_EQ(tsan_cli_opt(row.opt.c_str(), &cfg), row.rc) << row.opt;
        EXPECT_EQ(show(cfg), with(row.changes)) << row.opt;
    }
    EXPECT_THAT(log.human(), testing::HasSubstr("(DBG)  tsan_cli_opt: pcr_delta=9 OK\n"));
}

TEST(settings, switch_lists) {
    const std::pair<const char*, const char*> rows[] = {
        // clang-format off
        {"", "00000010"}, {"ALL", "11111010"}, {"cc_t:pat_d", "00000111"}, {"all:cc_t", "00000110"},
        {"PDTS_U", "00000010"}, {"pat_pmt_d", "00010010"}, {"pdts_u:pcr_u", "00101010"},
        {"xsdt_ignore,misc_icc_track", "11000110"},
    }; // clang-format on
    for (const auto& [list, switches] : rows) {
        tsan_config cfg = marked;
        EXPECT_EQ(tsan_xtrack_opt(list, &cfg), 0);
        EXPECT_EQ(show(cfg), with(string("trk=") + switches)) << list;
    }
}

} // namespace
