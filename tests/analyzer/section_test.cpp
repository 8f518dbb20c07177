// section_test.cpp - sections found in packets, split at every place.
#include "analyzer_test.h"

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

class section_test : public analyzer_test {
  protected:
    // Hands over one packet with exactly this payload; returns how many sections came of it.
    std::size_t give(bool start, const ts::bytes& payload, table_kind table) {
        const std::size_t before = g_taken.size();
        collect_sections(t, &collector, table, ts::filled(0, start, payload), take);
        return g_taken.size() - before;
    }
    section_collector collector{};
};

const ts::bytes PAT = ts::pat_section({{1, 100}, {2, 200}, {3, 300}});
const ts::bytes PMT = ts::pmt_section(1, 101, {{0x1b, 101}, {0x0f, 102}, {0x06, 103}});

// Three pieces, empty ones included: handed on once, with the last byte.
TEST_F(section_test, split_anywhere) {
    start();
    log.set_level(DEBUG_level);
    for (const auto& [sec, table] :
         {std::pair{PAT, table_kind::pat}, std::pair{PMT, table_kind::pmt}})
        for (std::size_t i = 1; i < sec.size(); i++)
            for (std::size_t j = i; j <= sec.size(); j++) {
                SCOPED_TRACE(testing::Message() << i << " " << j);
                g_taken.clear();
                const std::size_t early = j == sec.size() ? 1 : 0, late = 1 - early;
                const ts::bytes first = ts::pointed(cut(sec, 0, i));
                EXPECT_EQ(give(true, first, table), 0U);
                EXPECT_EQ(give(false, cut(sec, i, j), table), early);
                ts::bytes rest = cut(sec, j, sec.size());
                rest.resize(rest.size() + 5, 0xff); // stuffing
                EXPECT_EQ(give(false, rest, table), late);
                EXPECT_EQ(g_behind, 5 * late);
                // The rest stands before the pointer's target, where another section starts.
                EXPECT_EQ(give(true, first, table), 0U);
                EXPECT_EQ(give(false, cut(sec, i, j), table), early);
                EXPECT_EQ(give(true, ts::pointed(PAT, cut(sec, j, sec.size())), table), 1 + late);
                EXPECT_EQ(g_taken, (sections{sec, sec, PAT}));
            }
    EXPECT_EQ(log.human(), "");
}

} // namespace
