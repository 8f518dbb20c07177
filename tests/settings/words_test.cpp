// What people write as a value or mistype, and what they are told then.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/command_line.h"
#include "settings/nearest.h"
#include "settings/words.h"

namespace quarn::settings {
namespace {

/// What `take` returns or complains about, as text.
template <class F>
std::string outcome(F&& take) {
    try {
        return take();
    } catch (const WrongValue& wrong) {
        return wrong.what();
    }
}

TEST(Words, FindRulesByNumberAndName) {
    const struct {
        const char* text;
        const char* outcome;
    } rows[] = {
        {"1.4", "1.4"},
        {"Q.11", "q.11"},
        {"1.3.A", "1.3.a"},
        {"PAT_error_2", "1.3.a"},
        {"pat_ERROR_2", "1.3.a"},
        {"2.3", "there is no rule \"2.3\"; did you mean 2.3.a, 2.3.b?"},
        {"3.1", "there is no rule \"3.1\"; did you mean 3.1.a, 3.1.b?"}, // not 3.10
        {"pts_eror", "there is no rule \"pts_eror\"; did you mean PTS_error?"},
        {"PCR_repitition_error",
         "there is no rule \"PCR_repitition_error\"; did you mean PCR_repetition_error?"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(outcome([&] { return std::string(info(rule_of(row.text)).id); }), row.outcome);
    for (const char* const far : {"", "9.9", " 1.4", "1.4 ", "."})
        EXPECT_NE(outcome([&] {
                      return std::string(info(rule_of(far)).id);
                  }).find("there are 1.1, 1.2, 1.3.a, "),
                  std::string::npos)
            << far;
}

TEST(Words, FindListsOfRules) {
    const struct {
        const char* text;
        std::set<Rule> rules; // empty: refused
    } rows[] = {
        {"1.4", {Rule::continuity_count_error}},
        {"1.4,q.1,1.4", {Rule::continuity_count_error, Rule::late_stamp}},
        {"", {}},
        {"1.4,", {}},
        {",1.4", {}},
        {"1.4, q.1", {}},
    };
    for (const auto& row : rows) {
        std::set<Rule> rules;
        const std::string wrong = outcome([&] {
            add_rules(row.text, rules);
            return std::string();
        });
        EXPECT_EQ(wrong.empty(), !row.rules.empty()) << row.text;
        EXPECT_TRUE(!wrong.empty() || rules == row.rules) << row.text;
    }
    Options both;
    both.require = {Rule::pts_error, Rule::cat_error};
    both.ignore = {Rule::late_stamp};
    EXPECT_NO_THROW(check_rules(both));
    both.ignore.insert(Rule::cat_error);
    EXPECT_THROW(check_rules(both), WrongValue);
}

TEST(Words, FindSizes) {
    constexpr std::uint64_t least = 1536, most = std::uint64_t{1} << 40;
    const std::string range = " is no size from 1536 to 1024G, such as 200M";
    const struct {
        const char* text;
        std::uint64_t bytes; // 0: refused
    } rows[] = {
        {"1536", least},
        {"1535", 0},
        {"2K", 2048},
        {"1K", 0},
        {"200M", 200 << 20},
        {"1024G", most},
        {"1025G", 0},
        {"1099511627776", most},
        {"1099511627777", 0},
        {"17179869184G", 0}, // 0 in 64 bits
        {"17179869185G", 0},
        {"18446744073709551616", 0},
        {"", 0},
        {"M", 0},
        {"2k", 0},
        {"2KK", 0},
        {"2KM", 0},
        {"2 K", 0},
        {"-2K", 0},
        {"+2K", 0},
        {"2.5K", 0},
        {"0x800", 0},
        {"2K ", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(outcome([&] { return std::to_string(size_of(row.text, least, most)); }),
                  row.bytes != 0 ? std::to_string(row.bytes) : in_quotes(row.text) + range);
    // Limits are told as people write them.
    EXPECT_EQ(outcome([] { return std::to_string(size_of("x", 0, 188 * 1024)); }),
              "\"x\" is no size from 0 to 188K, such as 200M");
}

TEST(Words, FindNumbersAndSeconds) {
    const struct {
        const char* text;
        const char* whole;   // -1 to 255, of a type with more room; null: refused
        const char* seconds; // 0.5 to 600
    } rows[] = {
        {"-1", "-1", nullptr},        {"255", "255", "255.000000"},  {"256", nullptr, "256.000000"},
        {"0.5", nullptr, "0.500000"}, {"0.499", nullptr, nullptr},   {"600", nullptr, "600.000000"},
        {"600.1", nullptr, nullptr},  {"6e1", nullptr, "60.000000"}, {"70000", nullptr, nullptr},
        {"", nullptr, nullptr},       {"7s", nullptr, nullptr},      {" 7", nullptr, nullptr},
        {"7 ", nullptr, nullptr},     {"+7", nullptr, nullptr},      {"1,5", nullptr, nullptr},
        {"nan", nullptr, nullptr},    {"inf", nullptr, nullptr},     {"1e999", nullptr, nullptr},
    };
    for (const auto& row : rows) {
        const std::string quoted = in_quotes(row.text);
        EXPECT_EQ(outcome([&] { return std::to_string(number<std::int16_t>(row.text, -1, 255)); }),
                  row.whole ? row.whole : quoted + " is no whole number from -1 to 255");
        EXPECT_EQ(outcome([&] { return std::to_string(seconds_of(row.text, 0.5, 600)); }),
                  row.seconds ? row.seconds : quoted + " is no number of seconds from 0.5 to 600");
    }
}

TEST(Words, FindWhatWasMeant) {
    const std::vector<std::string> words = {"name", "url",   "--quiet", "--query",
                                            "http", "https", "a"};
    const struct {
        const char* text;
        std::vector<std::string> near;
    } rows[] = {
        {"nmae", {}}, // two exchanged
        {"nam", {"name"}},
        {"NAME", {"name"}},
        {"namee", {"name"}},
        {"mame", {"name"}},
        {"http", {"http"}}, // the nearest only
        {"htts", {"http", "https"}},
        {"httpss", {"https"}},
        {"--quixy", {"--quiet", "--query"}},
        {"", {}},
        {"b", {}},
        {"xyz", {}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(nearest(row.text, words), row.near) << row.text;
    EXPECT_EQ(nearest(std::string(65, 'x'), {std::string(65, 'x')}), std::vector<std::string>());
}

TEST(Words, SayWhatIsWrongWithACommandLine) {
    const struct {
        std::vector<std::string> arguments; // the last one first, as CLI11 takes them
        std::string complaint;              // how it begins
    } rows[] = {
        {{"--quite"}, "The following argument was not expected: --quite; did you mean --quiet?"},
        {{"--limt=1.4=2"},
         "The following argument was not expected: --limt=1.4=2; did you mean "
         "--limit?"},
        {{"-v"}, "The following argument was not expected: -v; did you mean --verbose, --version?"},
        {{"--frobnicate"}, "The following argument was not expected: --frobnicate; options are "},
        {{"5", "--size", "5", "--size"}, "--size may be given only once"},
        {{"x", "--size"}, "--size: \"x\" is no whole number from 1 to 9"},
        {{"--size"}, "--size: 1 required SIZE missing"},
    };
    for (const auto& row : rows) {
        CLI::App app;
        std::vector<std::string> limits;
        int size = 0;
        app.add_flag("--quiet,-q");
        app.add_flag("--verbose");
        app.add_flag("--version");
        repeated(app, "--limit", "LIMIT", "", limits);
        with_value(app, "--size", "SIZE", "",
                   [&](const std::string& text) { size = number<int>(text, 1, 9); });
        try {
            app.parse(std::vector<std::string>(row.arguments));
            ADD_FAILURE() << row.complaint;
        } catch (const CLI::ParseError& error) {
            const std::string text = complaint(app, error, "FILE");
            EXPECT_TRUE(text.starts_with(row.complaint)) << text;
        }
    }
    CLI::App app;
    std::vector<std::string> limits;
    repeated(app, "--limit", "LIMIT", "", limits);
    app.parse(std::vector<std::string>{"2.4=9us", "--limit", "1.4=1", "--limit"});
    EXPECT_EQ(limits, (std::vector<std::string>{"1.4=1", "2.4=9us"}));
}

} // namespace
} // namespace quarn::settings
