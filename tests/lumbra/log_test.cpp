// Which lines are written and where they go; pipes; programming errors.
#include "lumbra_test.h"

#include <csignal>
#include <sys/wait.h>

#include "strops.h"

LOG_MODULE(0);

static string syslog_told; // calls of syslog, in place of the C library's

extern "C" {
void syslog(int priority, const char* fmt, ...) {
    syslog_told = syslog_told << priority << fmt;
}
void openlog(const char* ident, int option, int facility) {
    syslog_told = syslog_told << ident << option << facility;
}
void closelog() {
    syslog_told = syslog_told << "closed";
}
}

namespace {

struct log_test : lumbra_test {
    ~log_test() override { log_close(&file); }

    void open() {
        ASSERT_EQ(log_open_ex(&file, "log", 0), 0);
        log_timefmt(&file, TMF_NONE);
    }

    std::function<int()> rotate = [this] { return log_rotate(&file); };
    std::function<string()> shut = [this] { return log_close(&file), file.fp = nullptr, "shut"; };
    log_ctx file = {};
};

TEST_F(log_test, long_and_empty_messages) {
    const string line = "(ERR)  " + string(2039, 'x'), longest = line.substr(7);
    EXPECT_EQ(logbuf_prepare(&g_log, ERR_level, "%s", longest.c_str()), 2039);
    EXPECT_EQ(g_outbuf, line);
    const auto over = [&] { return logbuf_prepare(&g_log, ERR_level, "%sx", longest.c_str()); };
    EXPECT_THAT(outcome(over), testing::StartsWith("-1 fprintf/vfprintf: "));
    LOG(&g_log, ERR_level, "%sxyz\n", longest.c_str()); // cut and still written
    LOG(&g_log, ERR_level, "%s", "");
    log_machine(&g_log, "%sx\n", line.c_str()); // but of no use to a machine
    log_machine(&g_log, "%s", "");
    EXPECT_EQ(log.human(), line + "(ERR)  ");
}

TEST_F(log_test, sections_and_levels) {
    loglevel_ctx module = g_llctx;
    string stack = string() << log_leave_section(&module) << log_enter_section(&module, 128);
    for (int depth = 1; depth <= 9; ++depth)
        stack = stack << log_enter_section(&module, depth);
    for (int depth = 1; depth <= 9; ++depth)
        stack = stack << module.sec << log_leave_section(&module);
    EXPECT_EQ(stack, "-1 -1 0 0 0 0 0 0 0 0 -1 8 0 7 0 6 0 5 0 4 0 3 0 2 0 1 0 -1 -1");
    for (const int level : {INFO_level, ERR_level, WARN_level}) { // only the first is saved
        log_set_modules(&g_log, level);
        log_push_mlevels();
    }
    for (const int level : {INFO_level, PANIC_level}) { // only the first is brought back
        log_pop_mlevels();
        EXPECT_THAT(g_mod_ll, testing::Each(level));
        log_set_modules(&g_log, PANIC_level);
    }
    log_default(&file, stderr);
    EXPECT_THAT(g_sec_ll, testing::Each(0));
    log_default(&g_log, g_log.fp); // closes all sections, once
    EXPECT_THAT(g_sec_ll, testing::Each(64));
    log_set_sections(&g_log, INFO_level);
    log_default(&g_log, g_log.fp);
    EXPECT_THAT(g_sec_ll, testing::Each(1));
}

TEST_F(log_test, ring_receives_every_line) {
    static string told;
    lard ring = {nullptr, [](void*, const char* s) { told += s; },
                 [](void*, int temp) { told += "+" + to_string(temp) + " "; },
                 [](void*) { told += "gone"; }};
    int evaluated = 0;
    LOG(&g_log, INFO_level, "%d\n", ++evaluated); // nobody wants it
    EXPECT_EQ(log_set_lard(&g_log, &ring), nullptr);
    for (const int level : {DEBUG_level, NORM_level, WARN_level, ERR_level})
        LOG(&g_log, level, "%d\n", ++evaluated);
    log_machine(&g_log, "no ring\n");
    EXPECT_EQ(log.human(), "(NRM)  2\n(WRN)  3\n(ERR)  4\nno ring\n");
    open();
    log_set_lard(&file, log_set_lard(&g_log, nullptr));
    EXPECT_EQ(outcome(shut) << told, "shut (DBG)  1\n(NRM)  2\n(WRN)  3\n+1 (ERR)  4\n+3 gone");
    EXPECT_FALSE(lard_enabled(&file));
}

TEST_F(log_test, syslog_takes_warnings_and_worse) {
    open();
    log_set_modules(&g_log, SECTION_level);
    config_syslog(&file, "me", 2, 8);
    for (const int level : {-127, -77, -4, -3, -2, -1, 0, 64})
        LOG(&file, level, "x\n");
    g_sigctx = 1;
    LOG(&file, ERR_level, "from a signal handler\n");
    g_sigctx = 0;
    EXPECT_EQ(outcome(shut), "shut");
    disable_syslog(&g_log);
    glog_enable_syslog("app");
    EXPECT_EQ(syslog_told, "me 2 8 15 %s 15 %s 9 %s 11 %s 10 %s 12 %s closed closed app 3 128");
}

TEST_F(log_test, outputs_and_their_mirror) {
    open();
    for (FILE* mirror : {fdopen(fileno(file.fp), "w"), fopen("b", "w")}) {
        log_mirror(&file, mirror);
        log_machine(&file, "x\n");
    }
    shut(); // and null, which takes nothing
    log_machine(&file, "y\n");
    EXPECT_EQ(files(), "[b]x\ny\n[log]x\nx\n");
}

TEST_F(log_test, lost_directory) {
    open();
    std::filesystem::remove_all(dir);
    EXPECT_THAT(outcome(rotate),
                testing::ContainsRegex("^-1 .*\ndo_open: uid/gig=[0-9]+/[0-9]+ f"));
    log_machine(&file, "goes nowhere\n");
    strcpy(file.name, "|x"); // a pipe by its name
    EXPECT_EQ(outcome(rotate), "-1 log_rotate: not supported for pipe-based streams.\n");
}

TEST_F(log_test, pipes_survive_their_readers) {
    for (const int reaped : {WNOWAIT, 0}) { // the reader is gone; the host may have reaped it
        siginfo_t info;
        ASSERT_EQ(log_popen(&file, "exit 3"), 0);
        waitid(P_ALL, 0, &info, WEXITED | reaped);
        for (int n = 1; n <= 3; ++n)
            log_machine(&file, "x\n");
        EXPECT_EQ(outcome(shut), "shut");
    }
    ASSERT_EQ(log_popen(&file, "cat > piped"), 0);
    EXPECT_EQ(outcome(rotate), "-1 log_rotate: not supported for pipe-based streams.\n");
    fputs("x\n", log_fp(&file));
    EXPECT_EQ(outcome(shut) << files(), "shut [piped]x\n");
}

TEST_F(log_test, call_stack) {
    char buf[8192];
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "at %s\n", "here"), 0);
    EXPECT_THAT(buf, testing::ContainsRegex("^at here\n#0: .*\n#1: "));
    buf[16] = '!';
    EXPECT_EQ(string() << snprintf_btrace(buf, 16, "at\n") << strlen(buf) << buf[16], "0 15 !");
    EXPECT_EQ(snprintf_btrace(buf, 7, "at %s", "here"), -1);
}

using log_DeathTest = log_test;

TEST_F(log_DeathTest, killed_process_loses_no_line) {
    open();
    EXPECT_EXIT((log_machine(&file, "a\n"), raise(SIGKILL)), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(files(), "[log]a\n");
}

TEST(lumbra_DeathTest, programming_errors) {
    const timespec later = {2, 0}, earlier = {3, 0};
    timespec tms;
    log_ctx file = {};
    log_set_group(&file, ~0ULL);
    g_logmod = {};
    EXPECT_DEATH((void)a2double(nullptr, nullptr), "Assertion `str'");
    EXPECT_DEATH(glog_init(nullptr), "Assertion `app_tag'");
    EXPECT_DEATH((void)log_open_ex(&file, "log", 0), "Assertion `g_logmod.is_ready'");
    EXPECT_DEATH(log_machine(&file, "x\n"), "0 == .*sym8\\[sizeof\\(log->group.sym8\\)-1\\]'");
    EXPECT_DEATH(timespec_distance(&later, &earlier, &tms),
                 " liblumbra/include/timeop.h:.*`timespeccmp\\(delta, pb, >=\\)'");
    EXPECT_DEATH(set_clk_now(&tms, 9999), "clock_gettime: Invalid argument");
}

} // namespace
