// tables_test.cpp - tables whose lengths and descriptors lie, and what they may cost.
#include <unistd.h>

#include "fixture.h"

namespace {

constexpr unsigned PMT_PID = 100;
constexpr unsigned VIDEO_PID = 101;

class tables_test : public analyzer_test {
  protected:
    void load() {
        start();
        s = {};
        feed_new(s.section(0, ts::pat_section({{1, PMT_PID}})));
        log.clear();
    }
    void give(const ts::bytes& section) { feed_new(s.section(PMT_PID, section)); }

    ts::stream s;
};

// A list of descriptors that claims 4095 bytes, in a section of a few: the packet's stuffing is no
// part of it, nor is what may lie behind.
TEST_F(tables_test, lists_end_with_their_section) {
    struct {
        const char* what;
        std::size_t high; // place of the upper length byte
        bool is_program;
    } const rows[] = {{"program", 10, true}, {"stream", 15, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        load();
        for (unsigned version = 0; version < 4; version++) {
            ts::bytes section = ts::pmt_section(1, VIDEO_PID, {{0x1b, VIDEO_PID}}, {version & 1});
            section[row.high] = section[row.high + 1] = 0xff;
            give(section);
        }
        EXPECT_EQ(log.human_lines("may overflow"), std::vector<std::string>{});
        EXPECT_EQ(log.human_lines("ALERT PMT-DIFF").size(), row.is_program ? 0U : 3U);
    }
}

// The first descriptor takes the tag of the second, which has to be changed, for a length of its
// own: with the new tag it would be read for ever.
TEST_F(tables_test, descriptors_that_reach_into_each_other) {
    alarm(20);
    ts::bytes names{'e', 'n', 'g', 54};
    names.resize(58);
    ts::bytes descriptors = ts::descriptor(0x5d, names);
    const ts::bytes vbi = ts::descriptor(0x45, {1, 254});
    descriptors.insert(descriptors.end(), vbi.begin(), vbi.end());
    cfg.trk.pmt_diff = true;
    load();
    give(ts::pmt_section(1, VIDEO_PID, {{0x1b, VIDEO_PID}}, {}, descriptors));
    alarm(0);
    EXPECT_EQ(log.human_lines("desc dd unknown").size(), 1U);
    EXPECT_EQ(log.human_lines("desc c5 unknown").size(), 1U);
}

// The printer shows a time and behind it a text: whatever the time, the text is found.
TEST_F(tables_test, times_before_1970) {
    cfg.trk.pmt_diff = true;
    load();
    for (const unsigned day : {0x10U, 0x11U}) {
        const ts::bytes offset{'e', 'n', 'g', 0, 0, 0, static_cast<std::uint8_t>(day),
                               0,   0,   0,   0, 0, 0};
        give(ts::pmt_section(1, VIDEO_PID, {{0x1b, VIDEO_PID, ts::descriptor(0x58, offset)}}));
    }
    EXPECT_EQ(log.human_lines("ALERT PMT-DIFF").size(), 1U); // the change shows
    EXPECT_EQ(log.human_lines("end PMT").size(), 4U);        // in use, older, new, in use
}

} // namespace
