// descs_test.cpp - descriptors that would keep a printer busy for ever.
#include <cstring>

#include "program_test.h"

namespace {

class descs_test : public program_test {
  protected:
    ~descs_test() override { alarm(0); }
    void give(const ts::bytes& descriptors) {
        feed_new(s.sections(
            PMT, {ts::pmt_section(1, V, {{0x1b, V, descriptors}, {0x0f, A}}, {}, descriptors)}));
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

const sample SAMPLES[] = {
    {0x45, {1, 2, 0xe1, 0xe2, 4, 1, 0xe3}, 1, 254},
    {0x51, {0x91, 4, 1, 1, 5, 0, 8, 0, 1, 6, 1, 7, 8}, 3, 252},
    {0x5b, {'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 3, 252},
    {0x5c, {'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 3, 252},
    {0x5d, {'e', 'n', 'g', 2, 'a', 'b', 1, 'c', 'd', 'e', 'u', 0, 0}, 3, 251},
    {0x5e, {7, 'e', 'n', 'g', 2, 'a', 'b', 'd', 'e', 'u', 0}, 4, 252},
    {0x6c, {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0}, 9, 246},
    {0x6d, {0, 1, 2, 3, 4, 5, 0, 0, 1, 2, 3, 4, 5, 0}, 6, 249},
};

TEST_F(descs_test, endless_ones_are_shown_as_unknown) {
    alarm(60);
    for (const sample& row : SAMPLES) {
        SCOPED_TRACE(testing::Message() << std::hex << row.tag);
        ts::bytes data = row.sound;
        EXPECT_TRUE(is_left_alone(ts::descriptor(row.tag, data)));
        load();
        give(ts::descriptor(row.tag, data));
        EXPECT_NE(text().find("    - desc " + hex(row.tag)), std::string::npos) << text();
        EXPECT_EQ(text().find("invalid"), std::string::npos) << text();

        data[row.len_byte] = row.endless;
        EXPECT_FALSE(is_left_alone(ts::descriptor(row.tag, data)));
        EXPECT_TRUE(is_left_alone(ts::descriptor(0x0a, data)));
        give(ts::descriptor(row.tag, data));
        const std::string shown = "    - desc " + hex(row.tag | 0x80) +
                                  " unknown length=" + std::to_string(data.size()) + " value=";
        EXPECT_NE(text().find(shown), std::string::npos) << text();
        EXPECT_EQ(pg().nstreams, 2U);
        give(ts::descriptor(row.tag, data));
        EXPECT_EQ(pg().alert.pmt_diff, 2U);
        data.back() ^= 1; // a change in one still shows
        give(ts::descriptor(row.tag, data));
        EXPECT_EQ(pg().alert.pmt_diff, 3U);
        load({{0x1b, V, ts::descriptor(row.tag, data)}}); // in a first PMT
        EXPECT_NE(text().find("    - desc " + hex(row.tag | 0x80)), std::string::npos) << text();
    }
}

} // namespace
