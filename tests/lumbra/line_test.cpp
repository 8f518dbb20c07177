// Lines: their layout, which of them pass, and where they go.
#include "lumbra_env.h"

#include <cstring>
#include <syslog.h>
#include <unistd.h>

#include "timeop.h"

LOG_MODULE(9);

namespace {

class line_test : public lumbra_test {
  protected:
    void SetUp() override {
        lumbra_test::SetUp();
        g_clock.real = {1711846799, 123456789}; // the last second before summer time in Berlin
        g_clock.mono = {77, 500'000'000};
        log_timefmt(&log, TMF_NONE);
        log_default(&log, out.fp);
    }

    text_stream out;
    log_ctx log = {};
};

// A ring that remembers.
struct recorder {
    std::vector<std::string> lines;
    std::vector<int> temps;
    int destroyed = 0;
    lard ring = {this, puts, set_temp, destroy};

    static recorder* self(void* opaque) { return static_cast<recorder*>(opaque); }
    static void puts(void* opaque, const char* s) { self(opaque)->lines.emplace_back(s); }
    static void set_temp(void* opaque, int temp) { self(opaque)->temps.push_back(temp); }
    static void destroy(void* opaque) { ++self(opaque)->destroyed; }
};

constexpr loglevel_ctx plain_module = {0, -1, -1, {}};

TEST_F(line_test, layout) {
    use_zone(BERLIN);
    const struct {
        std::uint32_t flags;
        pid_t pid;
        int level;
        const char* group;
        const char* line;
    } rows[] = {
        {0, 0, WARN_level, "FSCN", "2024-03-31 01:59:59.123456 CET (WRN)  FSCN  hello\n"},
        {0, 4321, MIN_level, "", "2024-03-31 01:59:59.123456 CET 4321  hello\n"},
        {0, 1, PANIC_level, "ABCDEFG", "2024-03-31 01:59:59.123456 CET 1  (PNC)  ABCDEFG  hello\n"},
        {0, -5, ERR_level, "", "2024-03-31 01:59:59.123456 CET (ERR)  hello\n"},
        {TMF_SECONDS, 0, CRIT_level, "", "2024-03-31 01:59:59 CET (CRI)  hello\n"},
        {TMF_GMT, 0, NORM_level, "", "2024-03-31 00:59:59.123456 CET (NRM)  hello\n"},
        {TMF_RAW, 7, INFO_level, "", "1711846799.123456 7  (INF)  hello\n"},
        {TMF_RAW | TMF_MONOTONIC, 0, DEBUG_level, "", "77.500000 (DBG)  hello\n"},
        {TMF_MONOTONIC | TMF_SECONDS, 0, NORM_level, "", "1970-01-01 01:01:17 CET (NRM)  hello\n"},
        {TMF_NONE, 4321, SECTION_level, "A", "(SCT)  A  hello\n"},
        {TMF_NONE, 0, 5, "", "( ? )  hello\n"},
        {TMF_NONE, 0, -126, "", "( ? )  hello\n"},
        {TMF_NONE, 0, -128, "", "hello\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        log_ctx one = {};
        std::uint64_t group = 0;
        memcpy(&group, row.group, strlen(row.group));
        log_timefmt(&one, row.flags);
        log_set_pid(&one, row.pid);
        log_set_group(&one, group);
        logbuf_reset();
        EXPECT_EQ(logbuf_prepare(&one, row.level, "%s\n", "hello"), 6);
        EXPECT_STREQ(g_outbuf, row.line);
    }
}

TEST_F(line_test, refused_clock_gives_no_line) {
    log_timefmt(&log, 2);
    const std::string told = stderr_of([&] { log_emit(&log, plain_module, ERR_level, "lost\n"); });
    EXPECT_EQ(told, "flags2clock: unsupported timer value: 2\n");
    EXPECT_EQ(out.text(), "");
}

TEST_F(line_test, group_tag_must_be_terminated) {
    log_set_group(&log, ~0ULL);
    EXPECT_DEATH(log_emit(&log, plain_module, ERR_level, "x\n"),
                 "0 == log->group.sym8\\[sizeof\\(log->group.sym8\\)-1\\]");
}

TEST_F(line_test, long_message_is_cut_and_still_written) {
    const std::string message(5000, 'x');
    const std::string told = stderr_of([&] {
        log_emit(&log, plain_module, ERR_level, "%s\n", message.c_str());
        log_machine(&log, "%s\n", message.c_str()); // but a cut machine line is of no use
    });
    EXPECT_THAT(told, testing::StartsWith("fprintf/vfprintf: "));
    const std::string line = "(ERR)  " + message;
    EXPECT_EQ(out.text(), line.substr(0, 2046));
    // The longest message that passes whole.
    const std::string longest(2046 - 7, 'y');
    logbuf_reset();
    EXPECT_EQ(logbuf_prepare(&log, ERR_level, "%s", longest.c_str()), 2039);
    EXPECT_EQ(std::string(g_outbuf), "(ERR)  " + longest);
    stderr_of([&] {
        logbuf_reset();
        EXPECT_EQ(logbuf_prepare(&log, ERR_level, "%sz", longest.c_str()), -1);
    });
}

TEST_F(line_test, empty_message_leaves_its_prefix_only_in_human_lines) {
    stderr_of([&] {
        log_emit(&log, plain_module, ERR_level, "%s", "");
        log_machine(&log, "%s", "");
    });
    EXPECT_EQ(out.text(), "(ERR)  ");
}

TEST_F(line_test, levels_and_sections_decide) {
    const struct {
        int module_level, section, section_level, level;
        bool passes;
    } rows[] = {
        {NORM_level, -1, 0, NORM_level, true},
        {NORM_level, -1, 0, INFO_level, false},
        {NORM_level, -1, 0, PANIC_level, true},
        {DEBUG_level, -1, 0, DEBUG_level, true},
        {ERR_level, -1, 0, CRIT_level, false},
        {ERR_level, -1, 0, MIN_level, true},
        {NORM_level, 3, SECTION_level, PANIC_level, false},
        {NORM_level, 3, NORM_level, DEBUG_level, true},
        {SECTION_level, 3, SECTION_level, DEBUG_level, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.module_level << ' ' << row.section << ' '
                                        << row.section_level << ' ' << row.level);
        text_stream one;
        log_default(&log, one.fp);
        loglevel_ctx module = {7, -1, -1, {}};
        g_mod_ll[7] = row.module_level;
        if (row.section >= 0) {
            ASSERT_EQ(log_enter_section(&module, row.section), 0);
            g_sec_ll[row.section] = row.section_level;
        }
        log_emit(&log, module, row.level, "x\n");
        EXPECT_EQ(!one.text().empty(), row.passes);
    }
}

TEST_F(line_test, section_stack_is_bounded) {
    loglevel_ctx module = plain_module;
    EXPECT_EQ(log_leave_section(&module), -1);
    EXPECT_EQ(log_enter_section(&module, -1), -1);
    EXPECT_EQ(log_enter_section(&module, LL_MAX_SECTIONS), -1);
    for (int depth = 0; depth < 8; ++depth)
        EXPECT_EQ(log_enter_section(&module, 10 + depth), 0);
    EXPECT_EQ(log_enter_section(&module, 99), -1);
    for (int depth = 7; depth >= 0; --depth) {
        EXPECT_EQ(module.sec, 10 + depth);
        EXPECT_EQ(log_leave_section(&module), 0);
    }
    EXPECT_EQ(module.sec, -1);
    EXPECT_EQ(log_leave_section(&module), -1);
}

TEST_F(line_test, arguments_of_an_unwanted_line_are_not_evaluated) {
    int evaluated = 0;
    LOG(&log, INFO_level, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LOG(&log, NORM_level, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(out.text(), "(NRM)  1\n");
}

TEST_F(line_test, saved_levels_are_one_deep) {
    log_set_modules(&log, INFO_level);
    EXPECT_EQ(log.llst.mod_ll_set, 1u);
    log_push_mlevels();
    log_set_modules(&log, ERR_level);
    log_push_mlevels(); // ignored
    log_set_modules(&log, PANIC_level);
    log_pop_mlevels();
    EXPECT_THAT(g_mod_ll, testing::Each(int{INFO_level}));
    log_set_modules(&log, WARN_level);
    log_pop_mlevels(); // ignored
    EXPECT_THAT(g_mod_ll, testing::Each(int{WARN_level}));
}

TEST_F(line_test, binding_the_application_log_closes_its_sections_once) {
    log_default(&log, out.fp);
    EXPECT_THAT(g_sec_ll, testing::Each(0));
    log_default(&g_log, out.fp);
    EXPECT_THAT(g_sec_ll, testing::Each(int{SECTION_level}));
    log_set_sections(&g_log, INFO_level);
    log_default(&g_log, out.fp);
    EXPECT_THAT(g_sec_ll, testing::Each(int{INFO_level}));
}

TEST_F(line_test, level_names) {
    const struct {
        const char* text;
        int level;
    } words[] = {{"err", -3},     {"Error", -3},   {"crit", -2},  {"CRITICAL", -2}, {"warn", -1},
                 {"warning", -1}, {"norm", 0},     {"normal", 0}, {"INFO", 1},      {"debug", 2},
                 {"dbg", 2},      {"section", 64}, {"sect", 64}};
    for (const auto& row : words) {
        SCOPED_TRACE(row.text);
        int level = 999;
        EXPECT_EQ(match_log_level(row.text, &level), 0);
        EXPECT_EQ(level, row.level);
    }
    for (const char* text : {"", "erro", "errors", "panic", "0", "ctitical"}) {
        int level = 999;
        EXPECT_EQ(match_log_level(text, &level), -1) << text;
        EXPECT_EQ(level, 999) << text;
    }
    const struct {
        int level;
        const char* name;
    } names[] = {{-127, "??"},  {-4, "panic"}, {-3, "error"}, {-2, "ctitical"}, {-1, "warning"},
                 {0, "normal"}, {1, "info"},   {2, "debug"},  {64, "section"},  {3, "??"}};
    for (const auto& row : names)
        EXPECT_STREQ(log_level_str(row.level), row.name) << row.level;
}

TEST_F(line_test, level_from_the_environment) {
    const struct {
        const char* value;
        int level;
    } rows[] = {{"0", 0},    {"-3", -3}, {"2", 2},   {"64abc", 64}, {"", 17},
                {"abc", 17}, {"00", 17}, {" 0", 17}, {"0x2", 17}};
    for (const auto& row : rows) {
        setenv("LUMBRA_TEST_LEVEL", row.value, 1);
        EXPECT_EQ(read_level_env("LUMBRA_TEST_LEVEL", 17), row.level) << row.value;
    }
    unsetenv("LUMBRA_TEST_LEVEL");
    EXPECT_EQ(read_level_env("LUMBRA_TEST_LEVEL", 17), 17);
}

TEST_F(line_test, ring_receives_every_line) {
    recorder rec;
    EXPECT_EQ(log_set_lard(&log, &rec.ring), nullptr);
    int evaluated = 0;
    for (int level : {DEBUG_level, NORM_level, WARN_level, ERR_level})
        LOG(&log, level, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 4);
    EXPECT_THAT(rec.lines,
                testing::ElementsAre("(DBG)  1\n", "(NRM)  2\n", "(WRN)  3\n", "(ERR)  4\n"));
    EXPECT_THAT(rec.temps, testing::ElementsAre(1, 3));
    EXPECT_EQ(out.text(), "(NRM)  2\n(WRN)  3\n(ERR)  4\n");
    log_machine(&log, "no ring\n");
    EXPECT_EQ(rec.lines.size(), 4u);
    EXPECT_EQ(log_set_lard(&log, nullptr), &rec.ring);
    EXPECT_EQ(rec.destroyed, 0);
}

TEST_F(line_test, syslog_takes_warnings_and_worse) {
    config_syslog(&log, "me", LOG_CONS, LOG_LOCAL3);
    EXPECT_EQ(g_syslog.ident, "me");
    EXPECT_EQ(g_syslog.option, LOG_CONS);
    EXPECT_EQ(g_syslog.facility, LOG_LOCAL3);
    const struct {
        int level, priority; // -1: not forwarded
    } rows[] = {{PANIC_level, LOG_ALERT},  {ERR_level, LOG_ERR}, {CRIT_level, LOG_CRIT},
                {WARN_level, LOG_WARNING}, {NORM_level, -1},     {MIN_level, LOG_DEBUG},
                {-77, LOG_DEBUG},          {SECTION_level, -1}};
    log_set_modules(&log, SECTION_level);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.level);
        g_syslog.lines.clear();
        log_emit(&log, plain_module, row.level, "100%%s\n");
        ASSERT_EQ(g_syslog.lines.size(), row.priority == -1 ? 0u : 1u);
        if (row.priority != -1) {
            EXPECT_EQ(g_syslog.lines[0].first, row.priority | LOG_LOCAL3);
            EXPECT_EQ(g_syslog.lines[0].second, g_outbuf);
        }
    }
    disable_syslog(&log);
    g_syslog.lines.clear();
    log_emit(&log, plain_module, ERR_level, "x\n");
    EXPECT_EQ(g_syslog.closed, 1);
    EXPECT_TRUE(g_syslog.lines.empty());
    glog_enable_syslog("app");
    EXPECT_TRUE(g_log.syslg.enabled);
    EXPECT_EQ(g_syslog.option, 3);
    EXPECT_EQ(g_syslog.facility, 128);
}

TEST_F(line_test, signal_context_only_writes) {
    config_syslog(&log, "me", 0, LOG_USER);
    log_set_rota(&log, 1, 3, 0);
    snprintf(log.name, sizeof(log.name), "%s", path("log").c_str());
    write_file("log", "stays");
    g_sigctx = 1;
    log_emit(&log, plain_module, ERR_level, "x\n");
    EXPECT_EQ(out.text(), "(ERR)  x\n");
    EXPECT_TRUE(g_syslog.lines.empty());
    EXPECT_THAT(files(), testing::ElementsAre("log"));
}

TEST_F(line_test, mirror_gets_a_copy_unless_it_is_the_same_output) {
    FILE* file = fopen(path("a").c_str(), "w");
    FILE* same = fdopen(fileno(file), "w");
    text_stream other;
    for (FILE* mirror : {same, other.fp}) {
        log_default(&log, file);
        log_mirror(&log, mirror);
        log_emit(&log, plain_module, ERR_level, "x\n");
    }
    fflush(file);
    EXPECT_EQ(read_file(path("a")), "(ERR)  x\n(ERR)  x\n");
    EXPECT_EQ(other.text(), "(ERR)  x\n");
    fclose(file);
    EXPECT_NE(fclose(same), 0);
}

TEST_F(line_test, outputs_that_take_nothing_cost_nothing_else) {
    text_stream mirror;
    log_mirror(&log, mirror.fp);
    FILE* full = fopen("/dev/full", "w");
    FILE* dead = fopen("/dev/null", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    close(fileno(dead));
    const std::string told = stderr_of([&] {
        for (FILE* fp : {full, dead, static_cast<FILE*>(nullptr)}) {
            log_default(&log, fp);
            log_emit(&log, plain_module, ERR_level, "x\n");
        }
    });
    EXPECT_EQ(mirror.text(), "(ERR)  x\n(ERR)  x\n(ERR)  x\n");
    EXPECT_EQ(told, "");
    fclose(full);
    fclose(dead);
}

} // namespace
