// context_test.cpp - life of a context, packet tags, the pid look-up.
#include <cstring>

#include "program_test.h"

namespace {

class context_test : public program_test {};

TEST_F(context_test, life) {
    log.set_level(DEBUG_level);
    const std::string tag(70, 'x');
    int error = 55;
    t = tsan_init(tag.c_str(), &cfg, &error);
    EXPECT_EQ(error, 55);
    const std::string shown = "tsan[" + tag.substr(0, 63) + "] (" + address() + ")";
    expect_lines({dbg("tsan_init: " + shown + " created")}, {});
    EXPECT_TRUE(pg(31).pcr_idx == -1 && pg(31).ref_idx == -1);
    t->cfg.source[0] = '\0'; // as a context that was released before looks
    tsan_free(t);
    expect_lines({wrn("tsan_free: avoiding double-freeing of tsan[] (" + address() + ")")}, {});
    strcpy(t->cfg.source, "src");
    const std::string freed = dbg("tsan_free: freeing up tsan[src] (" + address() + ")");
    release();
    expect_lines({freed}, {});
}

TEST_F(context_test, tag_texts) {
    constexpr u64 MAX = ~u64{0};
    const struct {
        tag_info tag;
        std::string expected;
    } rows[] = {
        {{tag_kind::pat, false, -1, -1, 1, 0, 0}, "PAT[1]"},
        {{tag_kind::pmt, false, 0, -1, 57, 0, 0}, "0:M[57]"},
        {{tag_kind::pmt, true, 31, -1, 57, 0, 56}, "31:M[57]:(pcr=0)+56"},
        {{tag_kind::stream, false, 31, 63, MAX, 5, 5}, "31:63[18446744073709551615]"},
        {{tag_kind::other, false, -1, -1, 3, 0, 0}, "pkt[3]"},
        {{tag_kind::none, true, 0, 0, 0, 0, 0}, ""},
        {{tag_kind::stream, true, 31, 63, MAX, MAX, MAX}, // cut at 62 characters
         "31:63[18446744073709551615]:(pcr=18446744073709551615)+1844674"},
    };
    for (const auto& row : rows) {
        char text[PKTIDX_LEN];
        memset(text, 'x', sizeof text);
        tag_text(&row.tag, text);
        EXPECT_EQ(text, row.expected);
    }
}

// PMT pids come before streams, and the first of several equal pids wins, as in a search from 0.
TEST_F(context_test, every_pid_is_found_where_a_search_finds_it) {
    const auto look_up_all = [this] {
        for (unsigned pid = 0; pid < PID_COUNT; pid++) {
            ssize_t ipg = pid == 0 ? -1 : get_pmt_pg(t, pid), istm = -1;
            const bool is_pmt = ipg >= 0;
            for (std::size_t i = 0; pid != 0 && ipg < 0 && i < t->nprogs; i++) {
                istm = find_stream(pg(i).stm, pg(i).nstreams, pid);
                ipg = istm < 0 ? -1 : static_cast<ssize_t>(i);
            }
            setup_dat(t, pid);
            mk_ptag(t);
            EXPECT_TRUE(t->dat.ipg == ipg && t->dat.istm == istm) << pid;
            EXPECT_TRUE(t->dat.is_pat == (pid == 0) && t->dat.is_pmt == is_pmt) << pid;
            EXPECT_EQ(t->dat.program, ipg < 0 ? nullptr : &t->pg[ipg]) << pid;
            EXPECT_EQ(t->dat.stream, istm < 0 ? nullptr : &t->pg[ipg].stm[istm]) << pid;
            const std::string program = std::to_string(ipg) + ":";
            const std::string kind = pid == 0    ? "PAT"
                                     : is_pmt    ? program + "M"
                                     : istm >= 0 ? program + std::to_string(istm)
                                                 : "pkt";
            EXPECT_EQ(ptag(t), kind + "[" + std::to_string(t->last_pkt_idx) + "]");
        }
    };
    start();
    s.section(0, ts::pat_section({{1, PMT}, {2, 200}, {3, PMT}, {4, 300}}));
    s.section(200, ts::pmt_section(2, 201, {{0x1b, 201}, {0x0f, 202}, {0x0f, 201}, {6, 0}}));
    s.section(PMT, ts::pmt_section(1, V, {{0x1b, V}, {0x0f, 202}, {6, 200}, {6, 0x11}}));
    s.section(300, ts::pmt_section(4, 201, {{0x1b, 0x1fff}, {0x0f, 201}, {0x0f, 301}}));
    feed_new(s);
    look_up_all();
    feed_new(s.section(PMT, ts::pmt_section(1, V, {{0x1b, 203}}))); // what is gone is not found
    look_up_all();
    feed_new(s.section(0, ts::pat_section({{1, PMT}}, {.version = 1})));
    look_up_all();
}

} // namespace
