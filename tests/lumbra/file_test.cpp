// Log files and pipes: opening, moving aside, closing, survival; and call-stack dumps.
#include "lumbra_env.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

LOG_MODULE(0);

namespace {

class file_test : public lumbra_test {
  protected:
    void SetUp() override {
        lumbra_test::SetUp();
        glog_init("tests");
        log_timefmt(&log, TMF_NONE);
    }
    void write_line(const char* text) { log_emit(&log, g_llctx, NORM_level, "%s\n", text); }

    log_ctx log = {};
};

TEST_F(file_test, module_must_be_ready) {
    g_logmod = {};
    EXPECT_DEATH((void)log_open_ex(&log, path("log").c_str(), 0), "g_logmod.is_ready");
    EXPECT_DEATH(glog_init(nullptr), "app_tag");
}

TEST_F(file_test, what_stands_in_the_way_is_moved_aside) {
    const std::string deep(126 - path("").size(), 'n');
    const struct {
        const char* title;
        std::string name, before;
        std::uint32_t flags;
        bool blocked; // a directory has the name the old file would get
        std::string old_file, told;
    } rows[] = {
        {"nothing in it", "log", "", 0, false, "", ""},
        {"old lines", "log", "old\n", 0, false, "log.1000", ""},
        {"old lines, kept", "log", "old\n", F_APPEND_OLD, false, "log", ""},
        {"cannot be moved", "log", "old\n", 0, true, "log",
         "Cannot rename(%, %.1000): ERROR(21): Is a directory\n"},
        {"new name too long", deep, "old\n", 0, false, deep, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        const std::string name = path(row.name);
        write_file(row.name, row.before);
        const timespec mtime[2] = {{1000, 0}, {1000, 0}};
        utimensat(AT_FDCWD, name.c_str(), mtime, 0);
        if (row.blocked)
            std::filesystem::create_directories(name + ".1000/x");
        std::string told = row.told;
        for (std::size_t at; (at = told.find('%')) != std::string::npos;)
            told.replace(at, 1, name);
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&log, name.c_str(), row.flags), 0); }),
                  told);
        EXPECT_EQ(log.total_out, row.old_file == row.name ? row.before.size() : 0);
        write_line("new");
        log_close(&log);
        EXPECT_EQ(read_file(name), row.old_file == row.name ? "old\n(NRM)  new\n" : "(NRM)  new\n");
        const bool moved = !row.old_file.empty() && row.old_file != row.name;
        EXPECT_EQ(files().size(), moved || row.blocked ? 2u : 1u);
        if (moved) {
            EXPECT_EQ(read_file(path(row.old_file)), "old\n");
        }
    }
}

TEST_F(file_test, what_cannot_be_opened) {
    const std::string longest = path(std::string(128 - path("").size(), 'x'));
    ASSERT_EQ(longest.size(), 128u);
    const std::string uids =
        "do_open: uid/gig=" + std::to_string(geteuid()) + "/" + std::to_string(getegid());
    const struct {
        std::string name;
        int rc;
        std::string told;
    } rows[] = {
        {path("none/log"), -1,
         uids + " fopen(" + path("none/log") + ") ERROR(2): No such file or directory\n"},
        {path(""), -1, uids + " fopen(" + path("") + ") ERROR(21): Is a directory\n"},
        {longest + "x", -1, "Log pathname/command is too long, 128 bytes allowed\n"},
        {longest, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log = {};
        log_timefmt(&log, TMF_NONE);
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_open_ex(&log, row.name.c_str(), 0), row.rc); }),
                  row.told);
        write_line("no harm done");
        log_close(&log);
    }
    EXPECT_EQ(log_open_ex(&log, nullptr, 0), 0);
    EXPECT_EQ(log_fp(&log), stderr);
    EXPECT_EQ(stderr_of([&] { write_line("x"); }), "(NRM)  x\n");
    log_close(&log); // not ours to close
    EXPECT_EQ(stderr_of([] { fputs("alive", stderr); }), "alive");
}

TEST_F(file_test, killed_process_loses_no_line) {
    const std::string name = path("log");
    const pid_t child = fork();
    if (child == 0) {
        if (log_open_ex(&log, name.c_str(), 0) != 0)
            _exit(1);
        for (int i = 0; i < 50; ++i)
            LOG(&log, NORM_level, "line %d\n", i);
        raise(SIGKILL);
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    std::string expected;
    for (int i = 0; i < 50; ++i)
        expected += "(NRM)  line " + std::to_string(i) + "\n";
    EXPECT_EQ(read_file(name), expected);
}

TEST_F(file_test, pipe_hands_lines_on_and_survives_its_reader) {
    ASSERT_EQ(log_popen(&log, ("cat > " + path("piped")).c_str()), 0);
    write_line("one");
    log_close(&log);
    EXPECT_EQ(read_file(path("piped")), "(NRM)  one\n");

    log_ctx dead = {};
    ASSERT_EQ(log_popen(&dead, "exit 3"), 0);
    siginfo_t info;
    waitid(P_ALL, 0, &info, WEXITED | WNOWAIT); // the reader is gone but not yet reaped
    for (int i = 0; i < 3; ++i)
        log_emit(&dead, g_llctx, ERR_level, "nobody reads this\n");
    EXPECT_EQ(stderr_of([&] { log_close(&dead); }), "");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_F(file_test, closing_reports_only_real_failures) {
    ASSERT_EQ(log_popen(&log, "true"), 0);
    siginfo_t info;
    waitid(P_ALL, 0, &info, WEXITED); // the host reaped the child itself
    EXPECT_EQ(stderr_of([&] { log_close(&log); }), "");

    ASSERT_EQ(log_open_ex(&log, path("log").c_str(), 0), 0);
    config_syslog(&log, "me", 0, 8);
    const std::string told = stderr_of([&] {
        close(fileno(log_fp(&log)));
        log_close(&log);
    });
    EXPECT_EQ(told, "log_close: fclose error(9) for the application log: Bad file descriptor\n");
    EXPECT_EQ(g_syslog.closed, 1);
}

TEST_F(file_test, closing_destroys_the_ring) {
    int destroyed = 0;
    lard ring = {&destroyed, nullptr, nullptr, [](void* n) { ++*static_cast<int*>(n); }};
    log_set_lard(&log, &ring);
    log_close(&log); // unopened: nothing at all
    EXPECT_EQ(destroyed, 0);
    ASSERT_EQ(log_open_ex(&log, path("log").c_str(), 0), 0);
    log_close(&log);
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(lard_enabled(&log));
}

TEST(btrace, dumps_into_the_room_there_is) {
    char buf[8192];
    ASSERT_EQ(snprintf_btrace(buf, sizeof(buf), "at %s\n", "here"), 0);
    EXPECT_THAT(buf, testing::StartsWith("at here\n#0: "));
    EXPECT_THAT(buf, testing::HasSubstr("\n#1: "));
    ASSERT_EQ(snprintf_btrace(buf, sizeof(buf), nullptr), 0);
    EXPECT_THAT(buf, testing::StartsWith("#0: "));
    char guarded[32];
    memset(guarded, '!', sizeof(guarded));
    ASSERT_EQ(snprintf_btrace(guarded, 16, "at\n"), 0);
    EXPECT_EQ(strnlen(guarded, sizeof(guarded)), 15u);
    EXPECT_EQ(guarded[16], '!');
    EXPECT_EQ(snprintf_btrace(buf, 7, "at %s", "here"), -1);
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "%s", ""), -1);
}

} // namespace
