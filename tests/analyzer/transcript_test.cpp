// transcript_test.cpp - replays the steps of cases.txt and compares what they write and leave.
//
// A line that begins with "> " is a step (see STEPS), the lines behind it are what it wrote ("h" on
// the application log, "m" on the access log) or shows. QUARN_RENEW in the environment prints the
// whole file anew, for a look at the differences.
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "fake_clock.h"
#include "program_test.h"

namespace {

class transcript_test : public program_test {
  public:
    using words = std::vector<std::string>;
    // Runs a case and returns it with the lines that it gave now.
    std::string replay(const std::string& text, bool no_rlog, bool access_log) {
        cfg = default_config();
        cfg.no_rlog = no_rlog;
        cfg.access_log_alerts = access_log;
        log.set_level(NORM_level);
        fake_clock fresh;
        clock = &fresh;
        std::string all;
        for (const std::string& line : split_lines(text)) {
            if (!line.starts_with("> ")) {
                all += line.starts_with("== ") || line.starts_with("# ") ? line + "\n" : "";
                continue;
            }
            std::istringstream in(line.substr(2));
            words w;
            for (std::string word; in >> word;)
                w.push_back(word);
            shown.clear();
            const auto found = STEPS.find(w[0]);
            EXPECT_NE(found, STEPS.end()) << line;
            if (found == STEPS.end())
                return all;
            found->second(*this, w);
            if (t && s.size() != 0)
                feed_new(s);
            all += line + "\n" + marked("h ", log.human()) + marked("m ", log.machine()) + shown;
            log.clear();
        }
        release();
        log.clear(); // of what a release says
        return all;
    }

  private:
    using step = std::function<void(transcript_test&, const words&)>;
    static const std::map<std::string, step> STEPS;

    static u64 num(const words& w, std::size_t i, u64 otherwise = 0) {
        return i < w.size() ? std::stoull(w[i]) : otherwise;
    }
    static unsigned small(const words& w, std::size_t i, unsigned otherwise = 0) {
        return static_cast<unsigned>(num(w, i, otherwise));
    }
    static unsigned pid(const words& w) { return small(w, 1); }
    // "v=1" gives 1.
    static unsigned option(const words& w, const std::string& name, unsigned otherwise = 0) {
        for (const std::string& word : w)
            if (word.starts_with(name + "="))
                return static_cast<unsigned>(std::stoul(word.substr(name.size() + 1)));
        return otherwise;
    }
    static ts::table_head head(const words& w) {
        return {.version = option(w, "v"), .section = option(w, "s"), .last = option(w, "l")};
    }
    static std::vector<ts::elementary> streams(const words& w) { // "1b:101" and so on
        std::vector<ts::elementary> list;
        for (const std::string& word : w)
            if (const std::size_t colon = word.find(':'); colon != std::string::npos)
                list.push_back({static_cast<unsigned>(std::stoul(word, nullptr, 16)),
                                static_cast<unsigned>(std::stoul(word.substr(colon + 1)))});
        return list;
    }
    void set(const std::string& name, long value) {
        const std::map<std::string, std::size_t*> sizes{{"pdts", &cfg.max_pdts_delta},
                                                        {"pcr", &cfg.max_pcr_delta},
                                                        {"freq", &cfg.pcr_freq_ms},
                                                        {"ndat", &cfg.max_ndat_pcount}};
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
    static std::string numbers(const std::vector<u64>& list) {
        return testing::PrintToString(list);
    }
    static std::string aggregate(const aggr_val& a) {
        return numbers({a.count, a.total, a.min, a.max});
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

    fake_clock* clock = nullptr;
    std::string shown;
};

// The steps by name. Their arguments follow in the transcript.
// clang-format off
#define STEP [](transcript_test& x, [[maybe_unused]] const words& w)
const std::map<std::string, transcript_test::step> transcript_test::STEPS = {
    {"start", STEP { x.start(); x.s = {}; }},
    {"load", STEP { x.load(w.size() > 1 ? streams(w) : VAS, option(w, "pcr", V)); }},
    {"level", STEP { x.log.set_level(w[1] == "debug" ? DEBUG_level : INFO_level); }},
    {"cfg", STEP { x.set(w[1], std::stol(w[2])); }}, // of the contexts made after it
    {"pat", STEP { // pids with program numbers from 0, v= s= l=
        std::vector<ts::program> list;
        for (std::size_t i = 1; i < w.size() && isdigit(w[i][0]); i++)
            list.push_back({static_cast<unsigned>(i - 1), small(w, i)});
        x.s.section(0, ts::pat_section(list, head(w)));
    }},
    {"pmt", STEP { // pid, streams, pcr= v=
        x.s.sections(pid(w), {ts::pmt_section(1, option(w, "pcr", V), streams(w), head(w))});
    }},
    {"data", STEP { x.s.data(pid(w), small(w, 2, 1)); }},
    {"null", STEP { x.s.null(small(w, 1, 1)); }},
    {"cc", STEP { // pid, counters
        for (std::size_t i = 2; i < w.size(); i++)
            x.s.set_cc(pid(w), small(w, i)).data(pid(w));
    }},
    {"lose", STEP { x.s.lose(pid(w), small(w, 2)).data(pid(w)); }},
    {"empty", STEP { x.s.add(ts::make_packet({.pid = pid(w), .cc = 9, .has_payload = false})); }},
    {"pcr", STEP { x.s.pcr(pid(w), num(w, 2)); }},
    {"pes", STEP { // pid, stream id, PTS or -, DTS or -, PCR
        ts::stamps when;
        if (w[3] != "-")
            when.pts = num(w, 3);
        if (w[4] != "-")
            when.dts = num(w, 4);
        const unsigned id = small(w, 2);
        w.size() > 5 ? x.s.pes(pid(w), id, when, num(w, 5)) : x.s.pes(pid(w), id, when);
    }},
    {"bad", STEP { // sync byte
        ts::packet p = ts::make_packet({.pid = pid(w), .cc = 3});
        p[0] = 0x46;
        x.shown = "result " + std::to_string(x.process(p)) + "\n";
    }},
    {"wait", STEP { x.clock->advance_ms(static_cast<long>(num(w, 1))); }},
    {"segment", STEP { tsan_next_seg(x.t); }},
    {"scan", STEP { tsan_check_ndat(x.t); }},
    {"index", STEP { tsan_set_pidx(x.t, num(w, 1)); }},
    {"statlines", STEP { tsan_alog_stats(x.t); }},
    {"stats", STEP { x.shown = x.marked("s ", x.stats()); }},
    {"forget", STEP { tsan_reset_local_stats(x.t); }},
    {"number", STEP { x.number(); }},
    {"unlisted", STEP { x.pg().pcr_idx = -1; x.pg().pcr_pid = 77; }}, // the PCR's stream
    {"show", STEP { x.show(); }},
};
// clang-format on

// What is left of a transcript under the two switches of alerts.
std::string filtered(const std::string& text, bool no_rlog, bool access_log) {
    std::string left;
    for (const std::string& line : split_lines(text))
        if (!(no_rlog && line.starts_with("h (WRN)  ALERT ")) &&
            !(!access_log && line.starts_with("m ALERT ")))
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
