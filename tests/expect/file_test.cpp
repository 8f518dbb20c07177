// Files of what is expected: whatever is written is read as it was meant, and what is wrong in one
// is named with line and key.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "settings/expect_file.h"
#include "settings/words.h"

namespace quarn::settings {
namespace {

class File : public testing::Test {
  protected:
    void TearDown() override { std::filesystem::remove(path_); }
    Expectation read(const std::string& text) const {
        std::ofstream(path_, std::ios::binary) << text;
        return read_expectation(path_);
    }
    const std::string path_ = "file_test." + std::to_string(::getpid()) + ".expect";
};

// A service of that name, with a stream of each kind and codec, and rates of all sizes.
Summary summary_of(const std::string& name) {
    Summary s;
    s.packets = 1;
    ProgramSummary p;
    p.number = 65535;
    p.name = name;
    p.pmt_pid = 8190;
    p.pcr_pid = 8190;
    for (int i = 0; i <= static_cast<int>(Codec::private_data); ++i) {
        StreamSummary stream;
        stream.pid = static_cast<std::uint16_t>(i);
        stream.kind = static_cast<StreamKind>(i % 7);
        stream.codec = static_cast<Codec>(i);
        stream.language = i % 2 == 0 ? "" : "deu";
        p.streams.push_back(stream);
    }
    s.programs = {p, ProgramSummary{1, std::nullopt, std::nullopt, 32, std::nullopt, {}}};
    return s;
}

Observed observed_of() {
    Observed o;
    o.rates.over = 3 * ticks_per_second;
    o.rates.windows = 30;
    std::int64_t bits = 40'000;
    for (std::uint16_t pid = 0; pid < 12; ++pid, bits *= 7)
        o.rates.pids[pid] = {bits, bits + bits / 3};
    o.rates.programs[65535] = {123'456'789'012, 123'456'789'012};
    o.rates.all = {0, 1};
    o.tables[{0, 0}] = {1, 2, 0};
    o.tables[{17, 0x42}] = {7 * ticks_per_second + 1, 2, 0};
    o.tables[{18, 0xFF}] = {7, 1, 0};
    o.pmts[65535] = {400 * ticks_per_ms, 9, 0};
    o.scrambled = {{0, true}, {1, false}};
    o.constant_rate = false;
    return o;
}

TEST_F(File, SaysWhatWasMeant) {
    for (const std::string name : {"News", "\"; services = (); #", "a\\x41\\\\\"",
                                   "\xC3\xA9\xEF\xBF\xBD", "@include \"x\""}) {
        const Summary summary = summary_of(name);
        const Observed observed = observed_of();
        const std::string text = expectation_text("x\ny", summary, observed);
        EXPECT_TRUE(read(text) == expectation_of(summary, observed)) << text;
    }
    Summary none;
    EXPECT_THROW(expectation_text("x", none, {}), WrongValue);
}

TEST_F(File, TakesWhatPeopleWrite) {
    const Expectation e = read(R"(
        services = ( { number = 7; name = ("A", "B"); pmt_pid = "0x64 - 200"; bitrate = "-2.5M";
                       streams = ( { language = [ "DEU", "none" ]; } ); } );
        tables = ( { table_id = 0x42; interval = "1.5s"; optional = true; } );
        bitrate = "3M-3000001"; rate = "any"; bitrate_over = "500 ms";)");
    ASSERT_EQ(e.services.size(), 1U);
    EXPECT_EQ(e.services[0].names, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(e.services[0].pmt_pid, (Range{100, 200}));
    EXPECT_EQ(e.services[0].bitrate, (Range{0, 2'500'000}));
    EXPECT_EQ(e.services[0].streams.at(0).languages, (std::vector<std::string>{"deu", ""}));
    EXPECT_EQ(e.bitrate, (Range{3'000'000, 3'000'001}));
    EXPECT_EQ(e.tables[0].interval, 1500 * ticks_per_ms);
    EXPECT_EQ(e.bitrate_over, 500 * ticks_per_ms);
    EXPECT_TRUE(e.leaves_out(8));
    EXPECT_FALSE(e.leaves_out(7));
    // A file that was cut short must not pass for one that expects nothing.
    for (const std::string& nothing :
         {std::string(), std::string("# x"), std::string("rate = \"any\";"),
          std::string("services = ( { number = 1; } );\0", 32)})
        EXPECT_THROW(read(nothing), WrongValue) << nothing;
}

TEST_F(File, NamesWhatIsWrong) {
    // What stands in a file of several lines, and what is said of it.
    const char* const cases = R"(servces = ();
= line 1, servces: there is no such key; did you mean services?
services = ( { name = "x"; } );
= line 1, services[1]: has no number, such as number = 1;
services = ( { number = 0; } );
= line 1, services[1].number: must be a whole number from 1 to 65535
services = ( { number = 1; },
  { number = 1; } );
= line 2, services[2].number: there is a service 1 already; give each number once
services = ( { number = 1; streams = ( { pid = 8191; } ); } );
= line 1, services[1].streams[1].pid: must be a pid from 0 to 8190, a range such as "256-300", or "any"
services = ( { number = 1; pmt_pid = "300-256"; } );
= line 1, services[1].pmt_pid: "300-256" must be a pid from 0 to 8190
services = ( { number = 1; pmt_pid = "-5"; } );
= line 1, services[1].pmt_pid: "-5" must be a pid from 0 to 8190, a range such as "256-300", or "any"; below 16 there are only tables
services = ( { number = 1; pcr_pid = "-"; } );
= line 1, services[1].pcr_pid: "-" must be a pid
services = ( { number = 1; pcr_pid = [ 1, 2 ]; } );
= line 1, services[1].pcr_pid: must be a pid
services = ( { number = 1; bitrate = "2Mbit"; } );
= line 1, services[1].bitrate: "2Mbit" must be a range of bits a second such as "2M-3.5M"
services = ( { number = 1; bitrate = "nan"; } );
= line 1, services[1].bitrate: "nan" must be a range
bitrate = "99999999999999999999G";
= line 1, bitrate: "99999999999999999999G" must be a range
bitrate = -1;
= line 1, bitrate: must be a range
bitrate = "2M";
= line 1, bitrate: is one exact rate, which no stream keeps; must be a range of bits a second such as "2M-3.5M"
services = ( { number = 1; streams = ( { language = "german"; } ); } );
= line 1, services[1].streams[1].language: "german" must be the three letters of a language (ISO 639)
services = ( { number = 1; streams = ( { language = [ ]; } ); } );
= line 1, services[1].streams[1].language: has 0 words; give one to 64, or "any"
services = ( { number = 1; name = "Z\xFCrich"; } );
= line 1, services[1].name: "Z\xFCrich" must be UTF-8 without control characters
services = ( { number = 1; streams = ( { kind = "vido"; } ); } );
= line 1, services[1].streams[1].kind: "vido" is none of video, audio, subtitles, teletext, scte35, data, unknown; did you mean video?
services = ( { number = 1; streams = ( { codec = 7; } ); } );
= line 1, services[1].streams[1].codec: must be a text in quotes
services = ( { number = 1; streams = ( { } ); } );
= line 1, services[1].streams[1]: says nothing; give a pid, a kind or a language
services = ( { number = 1; streams = ( { pid = 1; scrambled = "yes"; } ); } );
= line 1, services[1].streams[1].scrambled: must be true, false or "any"
services = ( { number = 1; pmt_interval = "2"; } );
= line 1, services[1].pmt_interval: "2" must be a time such as "500 ms" or "2 s", from 1 ms to 86400 s, or "any"
tables = ( { table_id = 256; } );
= line 1, tables[1].table_id: must be a whole number from 0 to 255
tables = ( { table_id = 1; interval = "2 d"; } );
= line 1, tables[1].interval: "2 d" must be a time
rate = "fast";
= line 1, rate: "fast" must be "constant", "variable" or "any"
bitrate_over = "2000000 s";
= line 1, bitrate_over: "2000000 s" must be a time such as "500 ms" or "2 s", from 100 ms to 3600 s
other_services = "some";
= line 1, other_services: "some" must be "any" or "none"
services = ( { number = 1; optional = "yes"; } );
= line 1, services[1].optional: must be true or false
services = { };
= line 1, services: must be a list of groups
services = ( {
= line 2: syntax error
)";
    std::istringstream in(cases);
    std::string text;
    int count = 0;
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("= ")) {
            text += line + "\n";
            continue;
        }
        try {
            read(text);
            ADD_FAILURE() << text << "was taken";
        } catch (const WrongValue& wrong) {
            const std::string said = wrong.what();
            EXPECT_TRUE(said.starts_with(path_ + ", " + line.substr(2))) << text << said;
        }
        text.clear();
        ++count;
    }
    EXPECT_EQ(count, 30);
    const std::string long_name(252, 'x');
    EXPECT_NO_THROW(read("services = ( { number = 1; name = \"" + long_name + "\"; } );"));
    EXPECT_THROW(read("services = ( { number = 1; name = \"" + long_name + "x\"; } );"),
                 WrongValue);
}

} // namespace
} // namespace quarn::settings
