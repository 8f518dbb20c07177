// mpegts_test.cpp - accessors at the edges of packet and header, distances on the 33-bit clock.
#include "analyzer_test.h"

namespace {

constexpr u64 WRAP = u64{1} << 33; // the 90 kHz clock counts modulo this

TEST(mpegts, payload_and_pcr_stay_in_the_packet) {
    const struct {
        unsigned control, length, flags; // adaptation_field_control, its length, its flags
        std::size_t start, size;
        bool pcr;
    } rows[] = {
        {1, 255, 0x10, 4, 184, false}, // no adaptation field: the byte is payload
        {3, 0, 0x10, 5, 183, false},   {3, 1, 0x10, 6, 182, true},   {3, 182, 0xef, 187, 1, false},
        {3, 183, 0x10, 188, 0, true},  {3, 184, 0x10, 188, 0, true}, {3, 255, 0x10, 188, 0, true},
        {2, 7, 0x10, 188, 0, true},    {0, 7, 0x10, 188, 0, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.control << "/" << row.length);
        ts::packet p = ts::make_packet({});
        p[3] = static_cast<std::uint8_t>(row.control << 4);
        p[4] = static_cast<std::uint8_t>(row.length);
        p[5] = static_cast<std::uint8_t>(row.flags);
        const ts_bytes payload = ts_get_payload(p);
        EXPECT_EQ(payload.size(), row.size);
        EXPECT_TRUE(payload.empty() || payload.data() == p.data() + row.start);
        EXPECT_EQ(ts_has_pcr(p), row.pcr);
    }
}

TEST(mpegts, every_bit_of_a_clock_value_has_its_place) {
    for (unsigned bit = 0; bit < 33; bit++)
        for (const u64 v : {u64{1} << bit, WRAP - 1 - (u64{1} << bit)}) {
            EXPECT_EQ(ts_pcr_base(ts::make_packet({.adapt = ts::adaptation{.pcr = v}})), v);
            const ts::bytes pes = ts::pes_header(0xe0, {v, WRAP - 1 - v});
            EXPECT_EQ(pes_get_PTS(pes), v);
            EXPECT_EQ(pes_get_DTS(pes), WRAP - 1 - v);
        }
}

TEST(mpegts, pes_headers) {
    for (const unsigned id : {0x00U, 0xbbU, 0xbcU, 0xffU})
        EXPECT_EQ(is_pes_pkt(ts::pes_header(id, {})), id >= 0xbc) << id;
    for (std::size_t place = 0; place < 3; place++) {
        ts::bytes h = ts::pes_header(0xe0, {});
        h[place] = static_cast<std::uint8_t>(h[place] + 2);
        EXPECT_FALSE(is_pes_pkt(h)) << place;
    }
    const ts::bytes both = ts::pes_header(0xe0, {1, 2});
    for (std::size_t size = 0; size <= both.size(); size++) {
        const ts_bytes part = ts_bytes(both).first(size);
        EXPECT_EQ(is_pes_pkt(part), size >= 4) << size;
        EXPECT_EQ(pes_has_PTS(part), size >= 14) << size;
        EXPECT_EQ(pes_has_DTS(part), size >= 19) << size;
    }
    const ts::bytes dts_alone = ts::pes_header(0xe0, {{}, 2});
    EXPECT_FALSE(pes_has_PTS(dts_alone) || pes_has_DTS(dts_alone));
}

TEST(mpegts, distances) {
    log_capture log;
    const struct {
        u64 first, last;
        unsigned flags;
        u64 distance;
        std::string line;
    } rows[] = {
        {8589930000, 1000, 0, 5592, ""},
        {WRAP - 1, 44998, 0, 44999, ""}, // the margin
        {WRAP - 1, 44999, 0, 0,
         "(WRN)  "
         "calc_pcr_delta: PCR last=44999 < first=8589934591 diff=18446744065119662024\n"},
        {0, WRAP - 1, PCR_LOG_GAP, WRAP - 1, ""}, // from 0 nothing is too far
        {100, 50, 0, 0,
         "(WRN)  "
         "calc_pcr_delta: PCR last=50 < first=100 diff=18446744073709551566\n"},
        {100, 45100, PCR_LOG_GAP, 45000, ""},
        {100, 45101, PCR_LOG_GAP, 45001,
         "(WRN)  "
         "calc_pcr_delta: PCR gap=45001 exceeds max=45000; last=45101, first=100\n"},
        {100, 45101, 0, 45001, ""},
        {7, 7, 0, 0, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(calc_pcr_delta(row.first, row.last, row.flags), row.distance) << row.first;
        EXPECT_EQ(log.human(), row.line);
        log.clear();
    }
    EXPECT_EQ(pcr_delta_ms(0, WRAP - 1), 95443717U);
    EXPECT_EQ(pcr_delta_ms(8589930000, 1000), 62U);
    EXPECT_EQ(pcr_delta_ms(0, 90 * (u64{1} << 32) + 179), 1U); // 32 bits of milliseconds
    EXPECT_EXIT((void)calc_pcr_delta(100, 50, PCR_ABORT_BACKWARD), testing::KilledBySignal(SIGABRT),
                "");
}

} // namespace
