// section_test.cpp - sections found in packets, whole, split and damaged.
#include "program_test.h"

namespace {

using sections = std::vector<ts::bytes>;
sections g_taken;
std::size_t g_behind = 0; // bytes behind the last one

void take(tsan_ctx*, const section_view& v) {
    g_taken.emplace_back(v.bytes.begin(), v.bytes.end());
    g_behind = v.behind.size();
}

ts::bytes cut(const ts::bytes& b, std::size_t from, std::size_t to) {
    return {b.begin() + static_cast<std::ptrdiff_t>(from),
            b.begin() + static_cast<std::ptrdiff_t>(to)};
}

// A section of `size` bytes in all with the length field and CRC to match.
ts::bytes sized(std::size_t size, unsigned table_id = 0) {
    return ts::make_section(table_id, 1, {}, ts::bytes(size - 12, 0xe1));
}

class section_test : public program_test {
  protected:
    section_test() {
        start();
        g_taken.clear();
    }
    // Hands over one packet and returns how many sections came of it.
    std::size_t give(bool pusi, const ts::bytes& payload, table_kind table = table_kind::pat,
                     unsigned pid = 0) {
        const std::size_t before = g_taken.size();
        const ts::packet p = ts::make_packet(filled(pid, pusi, payload));
        collect_sections(t, &collector, table, p, take);
        return g_taken.size() - before;
    }
    section_collector collector{};
};

const ts::bytes PAT = ts::pat_section({{1, 100}, {2, 200}, {3, 300}});
const ts::bytes PMT_SECTION = ts::pmt_section(1, V, VAS);

// Three pieces, empty ones included: handed on once, with the last byte.
TEST_F(section_test, split_anywhere) {
    log.set_level(DEBUG_level);
    for (const auto& [sec, table] :
         {std::pair{PAT, table_kind::pat}, std::pair{PMT_SECTION, table_kind::pmt}})
        for (std::size_t i = 1; i < sec.size(); i++)
            for (std::size_t j = i; j <= sec.size(); j++) {
                SCOPED_TRACE(testing::Message() << i << " " << j);
                g_taken.clear();
                const ts::bytes first = ts::pointed(cut(sec, 0, i));
                EXPECT_EQ(give(true, first, table), 0U);
                EXPECT_EQ(give(false, cut(sec, i, j), table), j == sec.size() ? 1U : 0U);
                ts::bytes rest = cut(sec, j, sec.size());
                rest.resize(rest.size() + 5, 0xff); // stuffing
                EXPECT_EQ(give(false, rest, table), j < sec.size() ? 1U : 0U);
                EXPECT_EQ(g_behind, j < sec.size() ? 5U : 0U);
                // The rest stands before the pointer's target, where another section starts.
                EXPECT_EQ(give(true, first, table), 0U);
                EXPECT_EQ(give(false, cut(sec, i, j), table), j == sec.size() ? 1U : 0U);
                EXPECT_EQ(give(true, ts::pointed(PAT, cut(sec, j, sec.size())), table),
                          j < sec.size() ? 2U : 1U);
                EXPECT_EQ(g_taken, (sections{sec, sec, PAT}));
            }
    EXPECT_EQ(log.human(), "");
}

TEST_F(section_test, refused_and_dropped) {
    ts::bytes bad_crc = PAT;
    bad_crc.back() ^= 1;
    const ts::bytes huge = sized(1025);
    const ts::bytes full = sized(1024);
    const ts::bytes other = sized(30, 0x42);
    const ts::bytes last255 = ts::pat_section({{1, 100}}, {.last = 255});
    using packets = std::vector<std::pair<bool, ts::bytes>>;
    const struct {
        const char* name;
        packets given;
        std::size_t taken;
        lines said;
    } rows[] = {
        {"bad CRC in one packet", {{true, ts::pointed(bad_crc)}}, 1, {}},
        {"no unit start, whole", {{false, PAT}}, 1, {}},
        {"no unit start, beginning only",
         {{false, cut(PAT, 0, 10)}, {false, cut(PAT, 10, 24)}},
         0,
         {}},
        {"only the first that starts", {{true, ts::pointed(PAT, PAT)}}, 1, {}},
        {"pointer beyond the packet", {{true, ts::bytes(184, 200)}, {true, {0}}}, 0, {}},
        {"pointer to the last byte",
         {{true, ts::pointed({0}, ts::bytes(182))}, {false, cut(PAT, 1, PAT.size())}},
         1,
         {}},
        {"bad CRC, collected; what follows is skipped up to a unit start",
         {{true, ts::pointed(cut(bad_crc, 0, 9))},
          {false, cut(bad_crc, 9, bad_crc.size())},
          {false, PAT},
          {true, ts::pointed(PAT)}},
         1,
         {dbg("[src] PAT section dropped (pid0): bad CRC at ")}},
        {"other table, collected",
         {{true, ts::pointed(cut(other, 0, 9))}, {false, cut(other, 9, 30)}, {false, PAT}},
         0,
         {dbg("[src] PAT section dropped (pid0): other table id at ")}},
        {"cut short, the next one counts",
         {{true, ts::pointed(cut(PAT, 0, 2))}, {true, ts::pointed(PAT, {9})}},
         1,
         {dbg("[src] PAT section dropped (pid0): cut short at ")}},
        {"too long",
         {{true, ts::pointed(cut(huge, 0, 183))},
          {false, cut(huge, 183, 367)},
          {false, PAT},
          {true, ts::pointed(PAT)},
          {false, PAT}},
         2,
         {wrn("[src] PAT section of 1025 bytes refused (pid0) at ")}},
        {"just not too long",
         {{true, ts::pointed(cut(full, 0, 183))},
          {false, cut(full, 183, 367)},
          {false, cut(full, 367, 551)},
          {false, cut(full, 551, 735)},
          {false, cut(full, 735, 919)},
          {false, cut(full, 919, 1024)}},
         1,
         {}},
        {"too short",
         {{true, ts::pointed({0, 0xb0, 8, 0, 1, 0xc1, 0, 0, 1, 2, 3})}},
         0,
         {wrn("[src] PAT section of 11 bytes refused (pid0) at ")}},
        {"just not too short", {{true, ts::pointed(sized(12))}}, 1, {}},
        {"section 255",
         {{true, ts::pointed(last255)}, {false, last255}},
         0,
         {wrn("[src] PAT with last section 255 refused (pid0) at "),
          wrn("[src] PAT with last section 255 refused (pid0) at ")}},
    };
    log.set_level(DEBUG_level);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        collector = {};
        g_taken.clear();
        for (const auto& [pusi, payload] : row.given)
            give(pusi, payload);
        EXPECT_EQ(g_taken.size(), row.taken);
        expect_lines(row.said, {});
    }
    EXPECT_EQ(give(true, ts::pointed(sized(15, 2)), table_kind::pmt, 100), 0U);
    EXPECT_EQ(give(true, ts::pointed(sized(16, 2)), table_kind::pmt, 100), 1U);
    expect_lines({wrn("[src] PMT section of 15 bytes refused (pid100) at ")}, {});
    EXPECT_EQ(give(true, ts::pointed(ts::make_section(2, 1, {.last = 255}, ts::bytes(9))),
                   table_kind::pmt, 100),
              1U);
}

TEST_F(section_test, a_slot_that_changes_its_pid_starts_afresh) {
    EXPECT_EQ(give(true, ts::pointed(cut(PMT_SECTION, 0, 9)), table_kind::pmt, 100), 0U);
    const ts::bytes rest = cut(PMT_SECTION, 9, PMT_SECTION.size());
    EXPECT_EQ(give(false, rest, table_kind::pmt, 200), 0U);
    EXPECT_EQ(give(false, rest, table_kind::pmt, 100), 0U);
}

} // namespace
