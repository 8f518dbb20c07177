// pmt_test.cpp - stream tables: built, compared, rebuilt.
#include "program_test.h"

namespace {

class pmt_test : public program_test {
  protected:
    void give(const std::vector<ts::elementary>& streams, unsigned pcr_pid = V,
              unsigned version = 0) {
        feed_new(s.sections(PMT, {ts::pmt_section(1, pcr_pid, streams, {.version = version})}));
    }
};

TEST_F(pmt_test, invariants) {
    load();
    EXPECT_ASSERT(give({{5, 104}}, 0), "prog(tc)->pcr_pid");
    feed_new(s.null());
    EXPECT_ASSERT(cc_track(t, &stm(0), 0), "i >= 0 && i < (ssize_t)prog(tc)->nstreams");
}

// A PMT that was known not to change anything does not hide a change.
TEST_F(pmt_test, there_and_back) {
    cfg.trk.pmt_diff = true;
    const std::vector<ts::elementary> other{{0x1b, V}}, none{{5, 104}};
    load();
    const struct {
        const std::vector<ts::elementary>* streams;
        unsigned version;
        u64 alerts;
        std::size_t followed;
    } rows[] = {
        {&VAS, 0, 0, 3},  {&VAS, 0, 0, 3}, {&other, 0, 1, 1}, {&VAS, 0, 2, 3}, {&VAS, 0, 2, 3},
        {&none, 0, 3, 0}, {&VAS, 0, 3, 3}, // fills an empty table, which is not a comparison
        {&VAS, 0, 4, 3},  {&VAS, 0, 4, 3}, {&VAS, 1, 5, 3},   {&VAS, 1, 5, 3}, {&VAS, 1, 5, 3}};
    for (const auto& row : rows) {
        give(*row.streams, V, row.version);
        EXPECT_EQ(pg().alert.pmt_diff, row.alerts) << &row - rows;
        EXPECT_EQ(pg().nstreams, row.followed);
    }
    log.set_level(DEBUG_level); // the short way says what the long one does
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(pg().seen_pmt.len == 0, i == 1);
        log.clear();
        t->work[0] = 0x55; // nothing is copied on the short way
        give(VAS, V, 1);
        EXPECT_EQ(t->work[0] == 0x55, i == 0);
        expect_lines({inf("cmp_PMT: ok pid=100 3/3")}, {});
        pg().seen_pmt.len = 0;
    }
}

// A descriptor that reaches behind its section makes what follows there part of the text.
TEST_F(pmt_test, what_a_descriptor_claims_counts) {
    load();
    ts::bytes payload = ts::pointed(ts::pmt_section(1, V, {{0x1b, V, ts::descriptor(0xc0, {1})}}));
    payload[payload.size() - 6] = 9; // its byte, the CRC and four bytes behind
    const struct {
        std::uint8_t tail;
        u64 alerts;
    } rows[] = {{1, 1}, {1, 1}, {1, 1}, {2, 2}, {2, 2}, {2, 2}, {1, 3}};
    for (const auto& row : rows) {
        ts::bytes filled_up = payload;
        filled_up.resize(184, row.tail);
        feed_new(s.add({.pid = PMT, .pusi = true, .payload = filled_up}));
        EXPECT_EQ(pg().alert.pmt_diff, row.alerts);
    }
}

// A rendering without room warns for each dropped line of each repetition.
TEST_F(pmt_test, more_streams_than_places_and_room) {
    std::vector<ts::elementary> many;
    for (unsigned i = 0; i < 70; i++)
        many.push_back({3, 1000 + i});
    start();
    s.section(0, ts::pat_section({{1, PMT}}));
    give(many);
    EXPECT_EQ(pg().nstreams, MAX_NSTREAMS);
    const std::string said = log.human();
    EXPECT_GT(split_lines(said).size(), 5U);
    for (const std::string& line : split_lines(said))
        EXPECT_TRUE(line.starts_with(wrn("add_ctxt_line: PMT buffer may overflow, "))) << line;
    for (int repetition = 0; repetition < 3; repetition++) {
        log.clear();
        give(many);
        EXPECT_EQ(log.human(), said);
    }
    log.clear();
    setup_dat(t, PMT);
    EXPECT_EQ(add_stream(t, 2000, 3), -1);
    expect_lines({err("add_stream: [src] too many streams: 64")}, {});
}

} // namespace
