// transcript_test.cpp - replays the steps of cases.txt and compares what they write and leave.
//
// A line that begins with "> " is a step (one of ACTIONS below or of tsmake/steps.h), the lines
// behind it are what it wrote ("h" on the application log, "m" on the access log) or shows.
// QUARN_RENEW in the environment prints the whole file anew, for a look at the differences.
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "analyzer_test.h"
#include "fake_clock.h"

namespace {

using ts::words;

std::string numbers(const std::vector<u64>& list) {
    return testing::PrintToString(list);
}
std::string aggregate(const aggr_val& a) {
    return numbers({a.count, a.total, a.min, a.max});
}

class transcript_test : public analyzer_test {
  public:
    // Runs a case and returns it with the lines that it gave now.
    std::string replay(const std::string& text, bool no_rlog, bool access_log) {
        cfg = default_config();
        cfg.no_rlog = no_rlog;
        cfg.access_log_alerts = access_log;
        log.set_level(NORM_level);
        fake_clock fresh;
        fresh.advance_ms(age += 1'000'000); // what the process shares is of long ago
        clock = &fresh;
        std::string all;
        for (const std::string& line : split_lines(text)) {
            if (line.starts_with("> "))
                all += line + "\n" + run(ts::split_words(line.substr(2)));
            else if (line.starts_with("== ") || line.starts_with("# "))
                all += line + "\n";
        }
        release();
        log.clear(); // of what a release says
        return all;
    }

  private:
    using action = std::function<void(transcript_test&, const words&)>;
    static const std::map<std::string, action> ACTIONS;

    std::string run(const words& w) {
        shown.clear();
        if (const auto found = ACTIONS.find(w[0]); found != ACTIONS.end())
            found->second(*this, w);
        else
            EXPECT_TRUE(ts::add_step(s, w)) << w[0];
        for (; fed < s.size(); fed++)
            if (const int rc = process(s.packets()[fed]); rc != 0)
                shown += "result " + std::to_string(rc) + "\n";
        std::string all = marked("h ", log.human()) + marked("m ", log.machine()) + shown;
        log.clear();
        return all;
    }
    void restart() {
        start();
        s = {};
        fed = 0;
    }
    void set(const std::string& name, long value) {
        const std::map<std::string, std::size_t*> sizes{
            {"pdts", &cfg.max_pdts_delta}, {"pcr", &cfg.max_pcr_delta},
            {"freq", &cfg.pcr_freq_ms},    {"ndat", &cfg.max_ndat_pcount},
            {"skip", &cfg.max_skip_pkts},  {"period", &cfg.dump_stats_period}};
        tracking_opt& trk = cfg.trk;
        const std::map<std::string, bool*> flags{
            {"sdt", &trk.sdt_ignore},    {"misc", &trk.misc_ignore},   {"tables", &trk.pat_pmt_pkt},
            {"newpcr", &trk.pcr_update}, {"stamps", &trk.pdts_update}, {"cc", &trk.cc_track},
            {"patdiff", &trk.pat_diff},  {"pmtdiff", &trk.pmt_diff},   {"enabled", &cfg.is_enabled},
            {"track", &cfg.cc_track}};
        if (const auto it = sizes.find(name); it != sizes.end())
            *it->second = static_cast<std::size_t>(value);
        else if (const auto flag = flags.find(name); flag != flags.end())
            *flag->second = value != 0;
        else
            cfg.cc_max_ms0_ms = value;
    }
    std::string marked(const std::string& mark, std::string text) const {
        for (std::size_t at; t && (at = text.find(address())) != std::string::npos;)
            text.replace(at, address().size(), "<ctx>");
        std::string all;
        for (const std::string& line : split_lines(text))
            all += mark + line + "\n";
        if (!text.empty() && text.back() != '\n')
            all.insert(all.size() - 1, "\\"); // no line feed
        return all;
    }
    void number() { // each its own number, so that no two can be exchanged
        t->gac = {71, 72, 73};
        t->pre_skipped = 9;
        t->atotal = 8;
        u64 n = 100;
        for (std::size_t i = 0; i < t->nprogs; i++, n += 100) {
            pg(i).alert = {n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, n + 7, n + 8};
            pg(i).stat = {n + 11, n + 12, n + 13, n + 14, n + 15, n + 16, n + 17, n + 18};
            pg(i).av_pdts_delta = {n + 21, n + 22, n + 23, n + 24, n + 25, n + 26, n + 27, n + 28};
            pg(i).av_pcr_delta = {n + 31, n + 32, n + 33, n + 34, n + 35, n + 36, n + 37, n + 38};
            pg(i).av_pcr_freq = {n + 41, n + 42, n + 43, n + 44, n + 45, n + 46, n + 47, n + 48};
            pg(i).stm[0].acount = n + 51;
        }
    }
    void show() {
        std::ostringstream out;
        const cc_alert_ctx& c = t->last_cca;
        out << "packets " << numbers({t->ptotal, t->atotal, t->pre_skipped}) << " alerts "
            << numbers({t->gac.lost_sync, t->gac.pat_diff, t->gac.cc_mlr}) << " ndat "
            << t->ndat_pcount << " loss " << c.seg_idx << " " << c.pid << " " << c.delta << " "
            << c.nmlr << "\n";
        for (std::size_t i = 0; i < t->nprogs; i++) {
            const program_info& p = pg(i);
            const pg_alert_count& a = p.alert;
            const sa_stats& n = p.stat;
            out << i << ": pmt " << t->pmt_pid[i] << " pcr " << p.pcr_pid << "/" << p.pcr_idx
                << " ref " << p.ref_idx;
            for (std::size_t j = 0; j < p.nstreams; j++) {
                const stream_info& x = p.stm[j];
                out << "  " << x.stype << x.pid << "=" << x.pcount << "/" << x.acount << " cc "
                    << x.cc.value << " " << x.last_pts << "@" << x.pts_pktnum << " " << x.last_dts
                    << "@" << x.dts_pktnum;
            }
            out << "\n   counts "
                << numbers({n.pcount, n.acount, n.v_pcount, n.v_acount, n.a_pcount, n.a_acount,
                            n.s_pcount, n.s_acount})
                << " alerts "
                << numbers({a.pmt_diff, a.cc_break, a.cc_reset, a.pcr_delta, a.pcr_freq,
                            a.av_delta0, a.av_deltaplus, a.pid_ndat})
                << " av " << aggregate(p.av_pdts_delta) << " pcr " << aggregate(p.av_pcr_delta)
                << " freq " << aggregate(p.av_pcr_freq) << "\n";
        }
        shown = out.str();
    }
    // The statistics, or what a period makes of them.
    void dump(const words& w) {
        const int dumped = tsan_check_dump_stats(w.size() > 1 ? nullptr : g_log.fp, t);
        shown = "dumped " + std::to_string(dumped) + "\n";
    }

    program_info& pg(std::size_t i = 0) { return t->pg[i]; }
    int process(const ts::packet& p) {
        if (t == nullptr)
            start();
        return tsan_process(t, p.data());
    }

    ts::stream s;
    fake_clock* clock = nullptr;
    long age = 0; // of this process, in ms
    std::string shown;
    std::size_t fed = 0; // packets of `s` handed over
};

unsigned long long num(const words& w) {
    return std::stoull(w.at(1));
}

// clang-format off
#define DO [](transcript_test& x, [[maybe_unused]] const words& w)
const std::map<std::string, transcript_test::action> transcript_test::ACTIONS = {
    {"start", DO { x.restart(); }},
    {"load", DO { // a context that has read a PAT and a PMT, by default of V, A and S
        x.restart();
        words pmt{"pmt", "100"};
        pmt.insert(pmt.end(), w.begin() + 1, w.end());
        if (w.size() == 1)
            pmt.insert(pmt.end(), {"1b:101", "0f:102", "06:103"});
        x.run({"pat", "1:100"});
        x.run(pmt);
    }},
    {"level", DO { x.log.set_level(w[1] == "debug" ? DEBUG_level : INFO_level); }},
    {"cfg", DO { x.set(w[1], std::stol(w[2])); }}, // of the contexts made after it
    {"wait", DO { x.clock->advance_ms(static_cast<long>(num(w))); }},
    {"segment", DO { tsan_next_seg(x.t); }},
    {"lostsync", DO { x.shown = "result " + std::to_string(tsan_alert_lostsync(x.t)) + "\n"; }},
    {"scan", DO { tsan_check_ndat(x.t); }},
    {"index", DO { tsan_set_pidx(x.t, num(w)); }},
    {"statlines", DO { // of so many dumps the last
        for (u64 n = w.size() > 1 ? num(w) : 1; n > 0; n--) {
            x.log.clear();
            tsan_alog_stats(x.t);
        }
    }},
    {"stats", DO { tsan_dump_stats(g_log.fp, x.t); }},
    {"dump", DO { x.dump(w); }},
    {"forget", DO { tsan_reset_local_stats(x.t); }},
    {"number", DO { x.number(); }},
    {"unlisted", DO { x.pg().pcr_idx = -1; x.pg().pcr_pid = 77; }}, // the PCR's stream
    {"show", DO { x.show(); }},
};
// clang-format on

// What is left of a transcript under the two switches of alerts.
std::string filtered(const std::string& text, bool no_rlog, bool access_log) {
    std::string left;
    for (const std::string& line : split_lines(text))
        if (!(no_rlog && line.starts_with("h (WRN)  ALERT ")) &&
            !(!access_log && line.starts_with("m ALERT ") && !line.starts_with("m ALERT LOST")))
            left += line + "\n";
    return left;
}

TEST_F(transcript_test, cases) {
    std::ifstream file(ANALYZER_CASES);
    std::vector<std::string> cases;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("== "))
            cases.emplace_back();
        if (!cases.empty() && !line.empty())
            cases.back() += line + "\n";
    }
    EXPECT_GT(cases.size(), 20U);
    for (const std::string& text : cases) {
        SCOPED_TRACE(text.substr(0, text.find('\n')));
        if (getenv("QUARN_RENEW"))
            printf("%s\n", replay(text, false, true).c_str());
        else
            for (const bool no_rlog : {false, true})
                for (const bool access_log : {false, true})
                    EXPECT_EQ(replay(text, no_rlog, access_log),
                              filtered(text, no_rlog, access_log));
    }
}

} // namespace
