// Numbers with suffixes, line ends, names of facilities and time formats, single settings.
#include "lumbra_env.h"

#include "appcfg.h"
#include "config.h"
#include "strops.h"

namespace {

TEST(strops, numbers) {
    const std::string digits62 = "1" + std::string(61, '0');
    const struct {
        std::string text;
        double value;
        std::int64_t value64;
        int rc, rc64, rc_size;
    } rows[] = {
        {"1.5K", 1536, 1536, 0, 0, 0},
        {"2kb", 2048, 2048, 0, 0, 0},
        {"10 Kb", 10240, 10240, 0, 0, 0},
        {"3g", 3221225472.0, 3221225472, 0, 0, -2},
        {"1MB", 1048576, 1048576, 0, 0, 0},
        {"-2Gb", -2147483648.0, -2147483648LL, 0, 0, 0},
        {"", 0, 0, 0, 0, 0},
        {"K", 0, 0, 0, 0, 0},
        {"  12", 12, 12, 0, 0, 0},
        {"7.9", 7.9, 7, 0, 0, 0},
        {"-7.9", -7.9, -7, 0, 0, 0},
        {"2147483647", 2147483647.0, 2147483647, 0, 0, 0},
        {"2147483648", 2147483648.0, 2147483648LL, 0, 0, -2},
        {"9223372036854775808", 9223372036854775808.0, INT64_MAX, 0, 0, -2},
        {"9223372036854777856", 9223372036854777856.0, 0, 0, -2, -2},
        {"-9223372036854775808", -9223372036854775808.0, INT64_MIN, 0, 0, -2},
        {"-8589934593G", -9223372037928517632.0, 0, 0, -2, -2},
        {"12KiB", 0, 0, -5, -5, -5},
        {"12K ", 0, 0, -5, -5, -5},
        {"1e3", 0, 0, -5, -5, -5},
        {"0x10", 0, 0, -5, -5, -5},
        {"nan", 0, 0, -5, -5, -5},
        {std::string(400, '9'), 0, 0, -4, -4, -4},
        {digits62 + ".K", 1024e61, 0, 0, -2, -2},
        {digits62 + ".0K", 0, 0, -3, -3, -3},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        double value = 777;
        std::int64_t value64 = 777;
        std::size_t size = 777;
        EXPECT_EQ(a2double(row.text.c_str(), &value), row.rc);
        EXPECT_DOUBLE_EQ(value, row.rc == 0 ? row.value : 777);
        EXPECT_EQ(a2int64(row.text.c_str(), &value64), row.rc64);
        EXPECT_EQ(value64, row.rc64 == 0 ? row.value64 : 777);
        EXPECT_EQ(a2size(row.text.c_str(), &size), row.rc_size);
        EXPECT_EQ(static_cast<ssize_t>(size), row.rc_size == 0 ? row.value64 : 777);
        EXPECT_EQ(a2double(row.text.c_str(), nullptr), row.rc);
        EXPECT_EQ(a2int64(row.text.c_str(), nullptr), row.rc64);
        EXPECT_EQ(a2size(row.text.c_str(), nullptr), row.rc_size);
    }
    EXPECT_DEATH((void)a2double(nullptr, nullptr), "str");
}

TEST(strops, line_ends) {
    const struct {
        std::string before, after;
    } rows[] = {{"abc\r\n", "abc"}, {"abc\n\n\n", "abc\n"}, {"abc\n\r", "abc"}, {"abc", "abc"},
                {"a\nb", "a\nb"},   {"abc\n ", "abc\n "},   {"\n", ""},         {"", ""}};
    for (const auto& row : rows) {
        std::string text = row.before;
        chomp(text.data());
        EXPECT_STREQ(text.c_str(), row.after.c_str());
    }
}

TEST(appcfg, facilities) {
    const struct {
        const char* name;
        int code;
    } rows[] = {{"local0", 128}, {"local1", 136}, {"local2", 144}, {"local3", 152}, {"local4", 160},
                {"local5", 168}, {"local6", 176}, {"local7", 184}, {"user", 8}};
    for (const auto& row : rows) {
        EXPECT_EQ(str2fac(row.name), row.code) << row.name;
        EXPECT_STREQ(fac2str(row.code), row.name);
    }
    EXPECT_EQ(str2fac("USER"), 8);
    EXPECT_EQ(str2fac("local07"), 184);
    for (const char* name : {"local8", "LOCAL3", "local", "local-1", "local 1", "users", "daemon",
                             "", "local99999999999999999999"})
        EXPECT_EQ(str2fac(name), -1) << name;
    EXPECT_STREQ(fac2str(0), "#unknown#");
    EXPECT_STREQ(fac2str(192), "#unknown#");
}

TEST(appcfg, time_formats) {
    const struct {
        const char* name;
        std::uint32_t flags;
    } rows[] = {{"raw", 0x400}, {"raw_mono", 0x401}, {"no_time", 0x100},
                {"gmt", 0x200}, {"local", 0},        {"#error#", 0x40000000}};
    for (const auto& row : rows) {
        EXPECT_EQ(str_to_timefmt(row.name), row.flags) << row.name;
        EXPECT_STREQ(timefmt_str(row.flags), row.name);
    }
    EXPECT_EQ(str_to_timefmt("RAW_Mono"), 0x401u);
    EXPECT_EQ(str_to_timefmt("rawer"), 0x40000000u);
    EXPECT_STREQ(timefmt_str(0x40000401), "#error#");
    EXPECT_STREQ(timefmt_str(0x711), "raw_mono");
    EXPECT_STREQ(timefmt_str(0x700), "raw");
    EXPECT_STREQ(timefmt_str(0x311), "no_time");
    EXPECT_STREQ(timefmt_str(0x211), "gmt");
    EXPECT_STREQ(timefmt_str(0x11), "local");
}

class config_test : public lumbra_test {
  protected:
    void SetUp() override {
        lumbra_test::SetUp();
        log_timefmt(&g_log, TMF_NONE);
        log_default(&g_log, out.fp);
        config_init(&conf);
        ASSERT_EQ(config_read_string(&conf, "g: { name = \"1234567\"; empty = \"\"; flag = true;"
                                            " num = 42; big = 5000000000L; size = \"64M\";"
                                            " bad = \"12KiB\"; frac = 1.5;"
                                            " long = \"00000000000000000000000000000001\"; };"),
                  CONFIG_TRUE);
        group = config_lookup(&conf, "g");
    }
    void TearDown() override {
        config_destroy(&conf);
        lumbra_test::TearDown();
    }

    text_stream out;
    config_t conf;
    config_setting_t* group = nullptr;
};

TEST_F(config_test, strings) {
    const struct {
        const char* name;
        std::size_t buflen;
        const char* dflt;
        int rc;
        const char* text;
    } rows[] = {
        {"name", 8, "other", 0, "1234567"}, {"name", 7, "other", -1, "untouched"},
        {"empty", 8, "other", 0, ""},       {"none", 8, "other", 0, "other"},
        {"none", 4, "other", 0, "oth"},     {"none", 8, "", 0, ""},
        {"none", 8, nullptr, 0, ""},        {"num", 8, "other", 0, "other"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        char buf[16] = "untouched";
        EXPECT_EQ(load_config_setting_str(group, row.name, buf, row.buflen, row.dflt), row.rc);
        EXPECT_STREQ(buf, row.text);
    }
    EXPECT_EQ(out.text(), "(ERR)  load_config_setting_str: name value is too long (7), max = 7 "
                          "characters.\n");
}

TEST_F(config_test, sizes) {
    const struct {
        const char* name;
        int rc;
        std::int64_t value;
    } rows[] = {{"num", 0, 42},   {"big", 0, 5000000000}, {"size", 0, 67108864},
                {"bad", -5, 777}, {"empty", 0, 9},        {"none", 0, 9},
                {"flag", 0, 9},   {"frac", 0, 9},         {"long", -1, 777}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::int64_t value = 777;
        EXPECT_EQ(load_config_setting_size(group, row.name, &value, 9), row.rc);
        EXPECT_EQ(value, row.value);
    }
}

} // namespace
