// The lines themselves: those that quarn and the example host write for the same packets.
#include <algorithm>
#include <cstdio>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inputs.h"

namespace alert_lines {
namespace {

using testing::ElementsAreArray;

/// What a command writes to standard output.
std::string output_of(const std::string& command) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string text;
    char room[4096];
    while (const std::size_t size = std::fread(room, 1, sizeof room, pipe.get()))
        text.append(room, size);
    return text;
}

Bytes rtp_header(unsigned sequence) {
    return {0x80,
            33,
            static_cast<std::uint8_t>(sequence >> 8U),
            static_cast<std::uint8_t>(sequence),
            0,
            0,
            0,
            0,
            0,
            0,
            0,
            1};
}

/// Feeds the packets as the sender of a form would send them.
void send(Input& input, const Bytes& all, const std::string& form) {
    if (form == "datagrams")
        return input.feed(all);
    if (form == "pipe") // blocks that cut packets
        return input.feed(all, 1000);
    if (form == "204") {
        Bytes longer;
        for (std::size_t at = 0; at < all.size(); at += 188) {
            longer.insert(longer.end(), &all[at], &all[at] + 188);
            longer.insert(longer.end(), 16, 0);
        }
        return input.feed(longer, 7 * 204);
    }
    // RTP: neighbours change places, some come twice, and there are reports between them.
    std::vector<Bytes> sent;
    for (std::size_t at = 0; at < all.size(); at += datagram_size) {
        sent.push_back(rtp_header(static_cast<unsigned>(65500 + sent.size())));
        sent.back().insert(sent.back().end(), &all[at],
                           all.data() + std::min(at + datagram_size, all.size()));
    }
    for (std::size_t i = 10; i + 1 < sent.size(); i += 10)
        std::swap(sent[i], sent[i + 1]);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        input.feed(sent[i], sent[i].size());
        if (i % 7 == 3)
            input.feed(sent[i], sent[i].size());
        if (i % 50 == 20)
            input.feed({0x80, 200, 0, 1, 0, 0, 0, 1}, 8);
    }
}

class Forms : public StartsPrograms<testing::TestWithParam<const char*>> {};
INSTANTIATE_TEST_SUITE_P(, Forms, testing::Values("datagrams", "pipe", "204", "rtp"));

TEST_P(Forms, HaveTheAlertsOfTheFile) {
    const std::string reference = output_of(
        QUARN " -C " SAMPLES "/quarn.conf -a on -S 'one_name' " SAMPLES "/demo.ts 2>/dev/null");
    AnalyzerSettings settings;
    quarn::live::load_analyzer_file(SAMPLES "/quarn.conf", settings.analyzer);
    settings.datagrams = std::string_view(GetParam()) != "pipe";
    Input input("one name", settings);
    send(input, read_bytes(SAMPLES "/demo.ts"), GetParam());
    input.analyzer->end();
    const auto expected = lines_with(reference, "ALERT ");
    ASSERT_EQ(expected.size(), 15U);
    EXPECT_THAT(input.alerts(), ElementsAreArray(expected));
    EXPECT_EQ(input.analyzer->dropped(), 0U);
}

class Lines : public StartsPrograms<> {};

TEST_F(Lines, AreThoseOfTheExampleHostStatisticsIncluded) {
    Input input("live");
    input.feed(read_bytes(SAMPLES "/demo.ts"));
    input.analyzer->end();
    const std::string reference =
        output_of(LIVE_HOST " live 1000 <" SAMPLES "/demo.ts 2>/dev/null");
    const std::string log = read_file(input.folder / "alerts");
    EXPECT_THAT(input.alerts(), ElementsAreArray(lines_with(reference, "ALERT ")));
    EXPECT_THAT(lines_with(log, "STAT "), ElementsAreArray(lines_with(reference, "STAT ")));
    const std::string text = read_file(input.folder / "text");
    EXPECT_THAT(text, testing::HasSubstr("(WRN)  LIVE  ALERT CC-BRK [live] dgram:"));
    EXPECT_THAT(text, testing::HasSubstr("tsan_stats END"));
}

TEST_F(Lines, TellLostSyncAndGoOnAtTheNextPacket) {
    // A wrong sync byte; stray bytes before packets; a datagram that ends inside a packet.
    ts::stream s;
    s.section(0, ts::pat_section({{1, 4096}}))
        .section(4096, ts::pmt_section(1, 256, {{0x1b, 256}}));
    s.data(256, 12);
    Bytes all = s.flat();
    all[std::size_t{9} * 188] = 0x48;
    Input input("sync");
    input.feed(all);
    Bytes stray = s.data(256, 7).flat();
    stray.erase(stray.begin(), stray.begin() + 14 * 188 - 5);
    std::ranges::copy(Bytes{1, 2, 0x47, 4, 5}, stray.begin());
    input.feed(stray, stray.size());
    const Bytes more = s.data(256, 7).flat();
    input.feed({more.begin() + 21 * 188, more.end() - 100}, datagram_size);
    input.feed({more.end() - 188, more.end()}, datagram_size);
    input.analyzer->end();
    const std::vector<std::string> expected{
        "ALERT LOST-SYNC sync 1 [0:0[10]]",
        "ALERT CC-BRK sync 256 6 8 0:0[11]",
        "ALERT LOST-SYNC sync 2 [pkt[15]]",
    };
    EXPECT_THAT(input.alerts(), ElementsAreArray(expected));
}

TEST_F(Lines, HaveNamesThatAreOneColumn) {
    const std::vector<std::pair<std::string, std::string>> names{
        {"News", "News"},
        {" a\tb\nc", "_a_b_c"},
        {"Österreich 1", "Österreich_1"},
        {"\xFFx\xC2\x85", "_x_"},
        {"", "_"},
        {std::string(62, 'x') + "Ö", std::string(62, 'x')},
    };
    for (const auto& [name, tag] : names)
        EXPECT_EQ(quarn::live::source_tag(name), tag);
}

} // namespace
} // namespace alert_lines
