// descs_test.cpp - descriptors that would keep a printer busy for ever.
#include <map>

#include "program_test.h"

namespace {

class descs_test : public program_test {
  protected:
    ~descs_test() override { alarm(0); }
    void give(const ts::bytes& descriptors) {
        feed_new(s.sections(
            PMT, {ts::pmt_section(1, V, {{0x1b, V, descriptors}, {0x0f, A}}, {}, descriptors)}));
    }
    // A descriptor between two others.
    static ts::bytes among(unsigned tag, const ts::bytes& data) {
        ts::bytes all = ts::descriptor(0x0a, {'e', 'n', 'g', 0});
        for (const ts::bytes& d : {ts::descriptor(tag, data), ts::descriptor(0xc0, {1, 2})})
            all.insert(all.end(), d.begin(), d.end());
        return all;
    }
    static std::string hex(unsigned tag) {
        char digits[12];
        snprintf(digits, sizeof digits, "%02x", tag);
        return digits;
    }
    std::string text() {
        return {pg().txt_pmt.buf, static_cast<std::size_t>(pg().txt_pmt.textlen)};
    }
    // Whether a section is printed as it came.
    static bool is_left_alone(const ts::bytes& descriptors) {
        const ts::bytes sec = ts::pmt_section(1, V, {{0x1b, V, descriptors}}, {}, descriptors);
        std::vector<std::uint8_t> work(SECTION_WORK);
        std::copy(sec.begin(), sec.end(), work.begin());
        defuse_descriptors(work.data());
        return std::equal(sec.begin(), sec.end(), work.begin());
    }
};

struct sample {
    unsigned tag;
    ts::bytes sound;      // two entries that end where the descriptor does
    std::size_t len_byte; // the place of a length in it
    std::uint8_t endless; // the value of that byte with which a step wraps to 0
};

// Bytes of 0 with some set.
ts::bytes with(std::size_t size, const std::map<std::size_t, std::uint8_t>& set) {
    ts::bytes data(size);
    for (const auto& [at, value] : set)
        data[at] = value;
    return data;
}

const sample SAMPLES[] = {
    {0x45, {1, 2, 0xe1, 0xe2, 4, 1, 0xe3}, 1, 254},
    {0x51, {0x91, 4, 1, 1, 5, 0, 8, 0, 1, 6, 1, 7, 8}, 3, 252},
    {0x5b, {'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 3, 252},
    {0x5c, {'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 3, 252},
    {0x5d, {'e', 'n', 'g', 2, 'a', 'b', 1, 'c', 'd', 'e', 'u', 0, 0}, 3, 251},
    {0x5e, {7, 'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 4, 252},
    {0x6c, {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0}, 9, 246},
    {0x6d, {0, 1, 2, 3, 4, 5, 0, 0, 1, 2, 3, 4, 5, 0}, 6, 249},
    // What follows the first variable part counts too: a linkage, a second length.
    {0x51, with(249, {{3, 244}, {248, 0}}), 248, 4},
    {0x5d, with(105 + 30, {{3, 100}, {104, 30}}), 104, 151},
};

TEST_F(descs_test, endless_ones_are_shown_as_unknown) {
    alarm(60);
    for (const sample& row : SAMPLES) {
        SCOPED_TRACE(testing::Message() << std::hex << row.tag);
        ts::bytes data = row.sound;
        EXPECT_TRUE(is_left_alone(among(row.tag, data)));
        load();
        give(among(row.tag, data));
        EXPECT_NE(text().find("    - desc " + hex(row.tag)), std::string::npos) << text();
        EXPECT_EQ(text().find("invalid"), std::string::npos) << text();

        data[row.len_byte] = row.endless;
        EXPECT_FALSE(is_left_alone(among(row.tag, data)));
        EXPECT_TRUE(is_left_alone(among(0x0b, data)));
        give(among(row.tag, data));
        const std::string shown = "    - desc " + hex(row.tag | 0x80) +
                                  " unknown length=" + std::to_string(data.size()) + " value=";
        EXPECT_NE(text().find(shown), std::string::npos) << text();
        EXPECT_EQ(pg().nstreams, 2U);
        give(among(row.tag, data));
        EXPECT_EQ(pg().alert.pmt_diff, 2U);
        data.back() ^= 1; // a change in one still shows
        give(among(row.tag, data));
        EXPECT_EQ(pg().alert.pmt_diff, 3U);
        data.back() ^= 1;
        load({{0x1b, V, among(row.tag, data)}}); // in a first PMT
        EXPECT_NE(text().find("    - desc " + hex(row.tag | 0x80)), std::string::npos) << text();
    }
}

// A changed tag is a length to the descriptor before it, which it makes endless in turn.
TEST_F(descs_test, neighbours) {
    alarm(60);
    load();
    ts::bytes list = ts::descriptor(0x5d, {'e', 'n', 'g'});
    const ts::bytes next = ts::descriptor(0x45, with(200, {{1, 254}, {196, 54}}));
    list.insert(list.end(), next.begin(), next.end());
    give(list);
    EXPECT_NE(text().find("    - desc dd unknown length=3 value=656e67"), std::string::npos);
    EXPECT_NE(text().find("    - desc c5 unknown length=200 "), std::string::npos);
}

// A list ends with its section, whatever it claims.
TEST_F(descs_test, lists_end_with_their_section) {
    for (const bool program_list : {false, true}) {
        const ts::bytes d = ts::descriptor(0xc0, {1});
        ts::bytes sec =
            program_list ? ts::pmt_section(1, V, {}, {}, d) : ts::pmt_section(1, V, {{0x1b, V, d}});
        load();
        feed_new(s.section(PMT, sec));
        const std::string expected = text();
        EXPECT_NE(expected.find("    - desc c0 unknown length=1 value=01\nend PMT"),
                  std::string::npos)
            << expected;
        for (const std::uint8_t claimed : ts::bytes{4, 5, 8, 150}) {
            sec[sec.size() - 4 - d.size() - 1] = claimed;
            load();
            feed_new(s.section(PMT, sec));
            EXPECT_EQ(text(), expected) << claimed;
        }
    }
}

} // namespace
