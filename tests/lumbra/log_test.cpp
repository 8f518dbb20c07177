// Which lines are written and where they go; log files and pipes; rotation; programming errors.
#include "lumbra_test.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
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

    string open(const string& name = "log", const string& before = "", std::uint32_t flags = 0) {
        const timespec mtimes[2] = {{1000, 0}, {1000, 0}};
        std::ofstream(name) << before;
        utimensat(AT_FDCWD, name.c_str(), mtimes, 0);
        file = {};
        log_timefmt(&file, TMF_NONE);
        return outcome([&] { return log_open_ex(&file, name.c_str(), flags); });
    }
    // Writes a line for each letter, at times that follow each other.
    string put(const string& letters, time_t from = 0) {
        return outcome([&] {
            for (const char letter : letters) {
                clock.set_real({from++, 0});
                log_machine(&file, "%c\n", letter);
            }
            return "";
        });
    }

    const std::function<int()> rotate = [this] { return log_rotate(&file); };
    const std::function<string()> close_file = [this] {
        return log_close(&file), file.fp = nullptr, "closed";
    };
    log_ctx file = {};
};

TEST_F(log_test, long_and_empty_messages) {
    const string line = "(ERR)  " + string(2039, 'x'), longest = line.substr(7);
    EXPECT_EQ(logbuf_prepare(&g_log, ERR_level, "%s", longest.c_str()), 2039);
    EXPECT_EQ(g_outbuf, line);
    EXPECT_EQ(logbuf_prepare(&g_log, ERR_level, "%sx", longest.c_str()), -1);
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
                 [](void*) { told += "destroyed"; }};
    int evaluated = 0;
    LOG(&g_log, INFO_level, "%d\n", ++evaluated); // nobody wants it
    EXPECT_EQ(log_set_lard(&g_log, &ring), nullptr);
    for (const int level : {DEBUG_level, NORM_level, WARN_level, ERR_level})
        LOG(&g_log, level, "%d\n", ++evaluated);
    log_machine(&g_log, "no ring\n");
    EXPECT_EQ(log.human(), "(NRM)  2\n(WRN)  3\n(ERR)  4\nno ring\n");
    EXPECT_EQ(open(), "0");
    log_set_lard(&file, log_set_lard(&g_log, nullptr));
    EXPECT_EQ(outcome(close_file) << told,
              "closed (DBG)  1\n(NRM)  2\n(WRN)  3\n+1 (ERR)  4\n+3 destroyed");
    EXPECT_FALSE(lard_enabled(&file));
}

TEST_F(log_test, syslog_takes_warnings_and_worse) {
    EXPECT_EQ(open(), "0");
    log_set_modules(&g_log, SECTION_level);
    config_syslog(&file, "me", 2, 8);
    for (const int level : {-127, -77, -4, -3, -2, -1, 0, 64})
        LOG(&file, level, "x\n");
    g_sigctx = 1;
    LOG(&file, ERR_level, "from a signal handler\n");
    g_sigctx = 0;
    EXPECT_EQ(outcome(close_file), "closed");
    disable_syslog(&g_log);
    glog_enable_syslog("app");
    EXPECT_EQ(syslog_told, "me 2 8 15 %s 15 %s 9 %s 11 %s 10 %s 12 %s closed closed app 3 128");
}

TEST_F(log_test, outputs_and_their_mirror) {
    ASSERT_EQ(open("a"), "0");
    for (FILE* mirror : {fdopen(fileno(file.fp), "w"), fopen("b", "w")}) {
        log_mirror(&file, mirror);
        put("x");
    }
    close_file(); // and null, which takes nothing
    EXPECT_EQ(put("y") << files(), "|a=x\nx\n|b=x\ny\n");
}

TEST_F(log_test, opening) {
    const string deep(126, 'n'), longest(128, 'x');
    const auto opened = [&](const string& name, const string& before, std::uint32_t flags) {
        const string result = open(name, before, flags)
                              << put("x") << files() << outcome(close_file);
        renew_directory();
        return result;
    };
    EXPECT_EQ(opened("log", "", 0), "0 |log=x\n closed");
    EXPECT_EQ(opened("log", "old", 0), "0 |log=x\n|log.1000=old closed");
    EXPECT_EQ(opened("log", "old", F_APPEND_OLD), "0 |log=oldx\n closed");
    EXPECT_EQ(opened(deep, "old", 0), "0 |" + deep + "=oldx\n closed"); // the new name is too long
    EXPECT_EQ(opened(longest, "", 0), "0 |" + longest + "=x\n closed");
    EXPECT_EQ(open(longest + "x"), "-1 Log pathname/command is too long, 128 bytes allowed\n");
    EXPECT_THAT(open("no/log"), testing::EndsWith(" ERROR(2): No such file or directory\n"));
    std::filesystem::create_directories("log.1000/x");
    EXPECT_EQ(open("log", "old"), "0 Cannot rename(log, log.1000): ERROR(21): Is a directory\n");
    close_file();
    EXPECT_EQ(outcome([&] { return log_open_ex(&file, "missing", 0); }), "0");
    close_file();
    EXPECT_EQ(string() << log_open_ex(&file, nullptr, 0) << put("x"), "0 x\n");
}

// The lines about a rotation go to the file that has just been rotated, and fill it again.
TEST_F(log_test, rotation_by_size) {
    ASSERT_EQ(open("log", "a\n", F_APPEND_OLD), "0");
    log_set_rota(&file, 4, 2, 0);
    log_set_modules(&file, DEBUG_level);
    std::swap(file, g_log);
    for (const time_t now : {1001, 1002, 1003}) {
        clock.set_real({now, 0});
        log_machine(&g_log, "x\n");
    }
    EXPECT_EQ(files(),
              "|log=(NRM)  [tests]: previous log rotated to [log.1003] tm=1003, idx=0\n"
              "(DBG)  handle_rotation: replaced log.1001 with log.1003\n"
              "|log.1002=(NRM)  [tests]: previous log rotated to [log.1001] tm=1001, idx=0\nx\n"
              "|log.1003=(NRM)  [tests]: previous log rotated to [log.1002] tm=1002, idx=1\nx\n");
    unlink("log.1002"); // a kept file that somebody else removed is forgotten
    EXPECT_EQ(string() << log_rotate(&g_log) << g_log.rota.next_idx, "0 0");
    EXPECT_THAT(files(), testing::HasSubstr("(ERR)  handle_rotation: unlink(log.1002) ERROR(2) :"));
    std::swap(file, g_log);
    string kept;
    for (const unsigned asked : {0u, 127u, 128u}) {
        log_set_rota(&file, 5, asked, 0);
        kept = kept << log_rota_maxfiles(&file) << log_rota_eod(&file);
    }
    EXPECT_EQ(kept, "16 0 127 0 16 0");
}

TEST_F(log_test, rotation_at_the_end_of_the_day) {
    use_zone("Berlin");
    ASSERT_EQ(open(), "0");
    const time_t midnight = 1711922400; // 2024-04-01 00:00:00 CEST
    log_set_rota(&file, 0, 3, midnight - 72000);
    put("abc", midnight - 1); // the last second of the day still belongs to it
    EXPECT_EQ(files() << log_rota_eod(&file), "|log=c\n|log.1711922400=a\nb\n 1712008799");
    log_set_eod(&file, 5);
    EXPECT_EQ(log_rota_eod(&file), 5);
}

TEST_F(log_test, failed_rotation) {
    const string why = "log_rotate: failed to rename [log] to [log.1], ERROR(21): Is a directory";
    std::filesystem::create_directories("log.1/x");
    ASSERT_EQ(open(), "0");
    log_set_rota(&file, 4, 0, 0);
    EXPECT_EQ(put("ab"), why + " - rotation is to be stopped\n");
    EXPECT_EQ(log.human(), "(ERR)  log_rotate: " + why + " - rotation cancelled this time\n");
    EXPECT_EQ(put("c", 1), ""); // waits for another full measure
    EXPECT_EQ(put("d", 2) << files() << file.rota.next_idx, "|log=|log.1=|log.2=a\nb\nc\nd\n 1");
    file.rota.max_idx = 0; // no bookkeeping
    EXPECT_EQ(outcome(rotate) << file.rota.next_idx, "0 1");
    std::filesystem::remove_all(dir);
    EXPECT_THAT(outcome(rotate) << put("e"), testing::ContainsRegex("^-1 .*\ndo_open: uid/gig="));
    renew_directory();
    ASSERT_EQ(open(), "0");
    EXPECT_EQ(outcome([&] { return close(fileno(file.fp)) + log_rotate(&file); }) << put("f"),
              "-1 log_rotate: failed to close [log], ERROR(9): Bad file descriptor\n");
    file.fp = stdout;
    EXPECT_EQ(outcome(rotate), "-1 log_rotate: stdout and stderr cannot be rotated.\n");
    file.name[0] = '\0';
    EXPECT_EQ(outcome(rotate), "0 log_rotate: nothing to rotate.\n");
}

TEST_F(log_test, pipes_and_closing) {
    for (const int reaped : {WNOWAIT, 0}) { // the reader is gone; the host may have reaped it
        siginfo_t info;
        ASSERT_EQ(log_popen(&file, "exit 3"), 0);
        EXPECT_EQ(outcome(rotate), "-1 log_rotate: not supported for pipe-based streams.\n");
        waitid(P_ALL, 0, &info, WEXITED | reaped);
        EXPECT_EQ(put("abc") << outcome(close_file), "closed");
    }
    ASSERT_EQ(log_popen(&file, "cat > piped"), 0);
    log_timefmt(&file, TMF_NONE);
    EXPECT_EQ(put("a") << outcome(close_file) << files(), "closed |piped=a\n");
    ASSERT_EQ(open(), "0");
    EXPECT_EQ(outcome([&] { return close(fileno(file.fp)), log_close(&file), "closed"; }),
              "closed log_close: fclose error(9) for the application log: Bad file descriptor\n");
    file.fp = nullptr;
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
    ASSERT_EQ(open(), "0");
    EXPECT_EXIT((log_machine(&file, "a\n"), raise(SIGKILL)), testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(files(), "|log=a\n");
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
