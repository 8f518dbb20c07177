// Configuration files: what stands in one is taken at its limits, and what cannot be taken is named
// with file, line and key.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "settings/config_file.h"

namespace quarn::settings {
namespace {

/// "F", "G" and "H" in texts and complaints stand for files.
class Config : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory(folder_); }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string put(char file, std::string text) const {
        const std::string path = folder_ + "/" + file;
        std::ofstream(path, std::ios::binary) << with_paths(std::move(text));
        return path;
    }
    std::string with_paths(std::string text) const {
        for (const char file : {'F', 'G', 'H'})
            for (std::size_t at = 0; (at = text.find(file, at)) != std::string::npos;) {
                const std::string path = folder_ + "/" + file;
                text.replace(at, 1, path);
                at += path.size();
            }
        return text;
    }
    /// The complaint when F is opened and `read`; empty without one.
    std::string complaint(const std::string& text,
                          const std::function<void(const Group&)>& read) const {
        try {
            read(ConfigFile(put('F', text)).root());
        } catch (const WrongValue& wrong) {
            return wrong.what();
        }
        return "";
    }
    const std::string folder_ = "config." + std::to_string(::getpid());
};

void text(const Group& g) {
    g.text("a");
}
void flag(const Group& g) {
    g.flag("a");
}
void port(const Group& g) {
    g.number("a", 1, 65535);
}
void share(const Group& g) {
    g.amount("a", 0, 0.5);
}
void texts(const Group& g) {
    g.texts("a");
}
void group(const Group& g) {
    g.group("a");
}
void groups(const Group& g) {
    g.groups("a");
}
void known(const Group& g) {
    g.only({"url", "name"});
}
void nothing(const Group&) {}

TEST_F(Config, NamesFileLineAndKeyOfWhatCannotBeTaken) {
    const std::string no_port = "F, line 1, a: must be a whole number from 1 to 65535";
    const std::string no_share = "F, line 1, a: must be a number from 0 to 0.5";
    const std::string no_text = "F, line 1, a: must be a text in quotes";
    const std::string no_flag = "F, line 1, a: must be true or false";
    const std::string no_group = "F, line 1, a: must be a group: a = { ... };";
    const std::string no_groups = "F, line 1, a: must be a list of groups: a = ( { ... } );";
    const struct {
        const char* text;
        std::function<void(const Group&)> read;
        std::string complaint; // empty: it is taken
    } rows[] = {
        {"\n# a\n  a = 5;", text, "F, line 3, a: must be a text in quotes"},
        {"a = ( \"b\" );", text, no_text},
        {"a = true;", text, no_text},
        {"a = 1;", flag, no_flag},
        {"a = \"true\";", flag, no_flag},
        {"a = 0;", port, no_port},
        {"a = 1;", port, ""},
        {"a = 65535;", port, ""},
        {"a = 65536;", port, no_port},
        {"a = -1;", port, no_port},
        {"a = 4294967297L;", port, no_port}, // 1 in 32 bits
        {"a = 80.0;", port, no_port},
        {"a = \"80\";", port, no_port},
        {"a = true;", port, no_port},
        {"a = 0;", share, ""},
        {"a = 0.5;", share, ""},
        {"a = 0.500001;", share, no_share},
        {"a = 1;", share, no_share},
        {"a = -0.1;", share, no_share},
        {"a = 1e999;", share, no_share},
        {"a = true;", share, no_share},
        {"a = \"0.1\";", share, no_share},
        {"a = ( \"b\",\n 5 );", texts, no_text},
        {"a = [ 5 ];", texts, no_text},
        {"a = { };", texts, no_text},
        {"a = ( ( \"b\" ) );", texts, no_text},
        {"a = 5;", group, no_group},
        {"a = ( { } );", group, no_group},
        {"a = { };", groups, no_groups},
        {"a = [ ];", groups, no_groups},
        {"a = ( { }, 5 );", groups, no_groups},
        {"url = 1; nam = 2;", known, "F, line 1, nam: there is no such key; did you mean name?"},
        {"name = 1;\nvolume = 2;", known,
         "F, line 2, volume: there is no such key; there are url, name"},
        {"in = ( { b = { }; },\n { b = {\n a = 5; }; } );",
         [](const Group& g) { text(*g.groups("in")->at(1).group("b")); },
         "F, line 3, in[2].b.a: must be a text in quotes"},
        {"in = (\n { },\n { } );",
         [](const Group& g) { throw g.groups("in")->at(1).wrong(nullptr, "needs a name"); },
         "F, line 3, in[2]: needs a name"},
        {"", [](const Group& g) { throw g.wrong(nullptr, "needs a name"); },
         "F, line 0: needs a name"},
        {"in = {\n};", [](const Group& g) { throw g.group("in")->wrong("b", "is missing"); },
         "F, line 1, in.b: is missing"},
        {"\na = 1;", [](const Group& g) { g.taken("a", [] { throw WrongValue("is not even"); }); },
         "F, line 2, a: is not even"},
        // An included file keeps its name and lines, and the lines behind it count on.
        {"@include \"G\"\na = true;\n", text, "F, line 2, a: must be a text in quotes"},
        {"x = 1;\n @include \"G\"\n", [](const Group& g) { g.flag("of_g"); },
         "G, line 2, of_g: must be true or false"},
    };
    put('G', "\nof_g = 7;\n");
    for (const auto& row : rows)
        EXPECT_EQ(complaint(row.text, row.read), with_paths(row.complaint)) << row.text;
}

TEST_F(Config, HandsOutWhatIsThere) {
    const ConfigFile file(put('F', R"(a = "x"; most = 9223372036854775807L; on = true; off = false;
none = (); lone = "y"; list = ( "1", "2" ); array = [ "3" ]; half = 0.5; whole = 3;)"));
    const Group root = file.root();
    using Texts = std::vector<std::string>;
    EXPECT_EQ(root.text("a"), "x");
    EXPECT_EQ(root.number("most", 0, INT64_MAX), INT64_MAX);
    EXPECT_EQ(root.flag("on"), true);
    EXPECT_EQ(root.flag("off"), false);
    EXPECT_EQ(root.texts("none"), Texts());
    EXPECT_EQ(root.texts("lone"), Texts{"y"});
    EXPECT_EQ(root.texts("list"), (Texts{"1", "2"}));
    EXPECT_EQ(root.texts("array"), Texts{"3"});
    EXPECT_EQ(root.amount("half", 0, 1), 0.5);
    EXPECT_EQ(root.amount("whole", 0, 3), 3);
    EXPECT_FALSE(root.text("z") || root.flag("z") || root.number("z", 0, 1) ||
                 root.amount("z", 0, 1) || root.texts("z") || root.group("z") || root.groups("z"));
}

TEST_F(Config, RefusesWhatIsNoConfigurationAndSaysWhere) {
    const std::string comma = "no comma may stand before the closing ) or ]";
    const std::string range =
        "is out of range; whole numbers are from -2147483648 to 2147483647, or end with L and "
        "have 64 bits";
    using namespace std::string_literals;
    const struct {
        std::string text;
        std::string complaint; // empty: it can be read
    } rows[] = {
        {"a = 1;\nb = ;\n", "F, line 2: syntax error"},
        {"a = 1;\na = 2;\n", "F, line 2: duplicate setting name"},
        {"a = \"\0\";"s, "F: is no text, there are bytes of 0 in it"},
        {"", ""},
        {"a = ( 1,\n 2,\n );", "F, line 3: " + comma},
        {"a = [ \"x\\\"\\\\\", ];", "F, line 1: " + comma},
        {"a = ( \"x,\n)\", # ),\n /* ,\n) */ 2 , // ,\n\t) ;", "F, line 5: " + comma},
        {"a = \"/*\"; b = ( 1, /* */ );", "F, line 1: " + comma},
        {"a = ( \",)\", \"#\" );\nb = ( 1 2 );", "F, line 2: syntax error"},
        {"a = ( 1 /*,*/ );\nb = ( 1 ) );", "F, line 2: syntax error"},
        {"@include \"none\"", "F, line 1: @include: none: No such file or directory"},
        {"\n\t@include \".\"", "F, line 2: @include: .: is a directory; name a file"},
        {"@include \"/dev/zero\"", "F, line 1: @include: /dev/zero: is no regular file"},
        {"a = {", "F, line 1: syntax error"},
        // What libconfig would make another number of, or leave out.
        {"a = 2147483647; b = -2147483648; c = ( 0x7fffffff, 1e99, 4294967297L );", ""},
        {"a4294967297 = \"4294967297\"; # 4294967297", ""},
        {"a = 1;\nb = [ 1, 4294967297 ];", "F, line 2: 4294967297 " + range},
        {"a = 2147483648", "F, line 1: 2147483648 " + range},
        {"a = -2147483649;", "F, line 1: -2147483649 " + range},
        {"a = 0x80000000;", "F, line 1: 0x80000000 " + range},
        {"a = 9223372036854775808L;", "F, line 1: 9223372036854775808L " + range},
        {"a = 1; /* x\n*/ /*\n b = 2;", "F, line 2: a comment begins there with /* and has no end"},
        {"a = 1;\n b = \"/*\\\";\n", "F, line 2: a text in quotes begins there and has no end"},
        {"\xEF\xBB\xBF# x\na = 1; # no line end", ""},
        {"@include \"H\"", "H, line 2: a comment at the end of an included file needs a line end "
                           "behind it"},
        {"@include G", "F, line 1: @include: needs a file in quotes"},
        {"@include \"G", "F, line 1: @include: needs a file in quotes"},
        {"@include \"F\"", "more than 8 files deep"},
        {"@include \"G\"", "G, line 2: syntax error"},
        {"# @include \"none\"\na = 1; # @include \"none\"", ""},
        {"@include \"G\" # not \"none\"", "G, line 2: syntax error"},
    };
    put('G', "\nb = ;\n");
    put('H', "x = 1;\ny = 2; // no line end");
    for (const auto& row : rows) {
        const std::string what = complaint(row.text, nothing);
        EXPECT_TRUE(row.complaint.empty() ? what.empty()
                                          : what.ends_with(with_paths(row.complaint)))
            << row.text << ": " << what;
    }
    EXPECT_THROW(ConfigFile(folder_ + "/none"), WrongValue);
    EXPECT_THROW(ConfigFile{folder_}, WrongValue);
}

} // namespace
} // namespace quarn::settings
