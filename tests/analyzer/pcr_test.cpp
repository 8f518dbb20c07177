// pcr_test.cpp - how often the PCR comes and how far audio lies from it.
#include "program_test.h"

namespace {

class pcr_test : public program_test {
  protected:
    static std::string show(const aggr_val& a) { // count, total, min, max
        return testing::PrintToString(std::vector<u64>{a.count, a.total, a.min, a.max});
    }
};

TEST_F(pcr_test, gaps) {
    const struct {
        std::size_t limit;
        std::vector<u64> pcrs;
        const char* measured;
        u64 alerts;
    } rows[] = {
        {40, {0, 9000, 12600, 16300}, "{ 2, 81, 40, 41 }", 1}, // a previous PCR of 0 is none
        {40, {9000, 8000}, "{ 1, 0, 0, 0 }", 0},
        {40, {WRAP - 900, 2700}, "{ 1, 40, 40, 40 }", 0},
        {40, {WRAP - 900, 2790}, "{ 1, 41, 41, 41 }", 1},
        {40, {WRAP - 900, 90000}, "{ 1, 0, 0, 0 }", 0}, // too far behind the wrap
        {0, {9000, 900000}, "{ 0, 0, 0, 0 }", 0},
    };
    for (const auto& row : rows) {
        cfg.pcr_freq_ms = row.limit;
        load();
        for (const u64 pcr : row.pcrs)
            s.pcr(V, pcr);
        feed_new(s);
        EXPECT_EQ(show(pg().av_pcr_freq), row.measured);
        EXPECT_EQ(pg().alert.pcr_freq, row.alerts) << row.measured;
    }
}

TEST_F(pcr_test, audio_against_the_pcr) {
    cfg.max_pcr_delta = 500;
    const struct {
        u64 pcr, pts;
        const char* measured;
        u64 alerts;
    } rows[] = {{850000, 900000, "{ 1, 555, 555, 555 }", 1},
                {890000, 850000, "{ 1, 444, 444, 444 }", 0},
                {850000, 895089, "{ 1, 500, 500, 500 }", 0},
                {0, 45090, "{ 1, 501, 501, 501 }", 1}, // a PCR of 0 is one
                // The smaller one goes first, so a wrap between the two is not seen as one.
                {WRAP - 900, 900, "{ 1, 95443697, 95443697, 95443697 }", 1}};
    for (const auto& row : rows) {
        load();
        feed_new(s.pcr(V, row.pcr).pes(A, ts::AUDIO_ID, {row.pts}));
        EXPECT_EQ(show(pg().av_pcr_delta), row.measured);
        EXPECT_EQ(pg().alert.pcr_delta, row.alerts) << row.measured;
    }
}

TEST_F(pcr_test, what_is_held_against_the_pcr) {
    cfg.max_pcr_delta = 500;
    load();
    feed_new(s.pes(A, ts::AUDIO_ID, {1}).pcr(V, 900000)); // no PCR yet
    feed_new(s.pes(V, ts::VIDEO_ID, {1}).pes(S, ts::PRIVATE_ID, {1}));
    EXPECT_EQ(pg().av_pcr_delta.count, 0U);
    feed_new(s.data(A)); // the stamp of packet 3 still waits
    EXPECT_EQ(pg().av_pcr_delta.count, 1U);
    feed(ts::make_packet({.pid = A, .has_payload = false}));
    EXPECT_EQ(pg().av_pcr_delta.count, 1U);
    feed_new(s.pes(A, ts::AUDIO_ID, {2, 3}));
    EXPECT_EQ(pg().av_pcr_delta.count, 3U);
    load(VAS, A); // audio that carries the PCR itself
    feed_new(s.pes(A, ts::AUDIO_ID, {1}, 900000).data(A));
    EXPECT_EQ(pg().av_pcr_delta.count, 0U);
}

} // namespace
