// Rotation of real files under a clock that the tests set.
#include "lumbra_env.h"

#include <unistd.h>

#include "timeop.h"

LOG_MODULE(0);

namespace {

class rotate_test : public lumbra_test {
  protected:
    void SetUp() override {
        lumbra_test::SetUp();
        glog_init("tests");
        g_clock.real = {1000, 0};
        log_timefmt(&g_log, TMF_NONE);
        log_default(&g_log, told.fp);
        log_timefmt(&log, TMF_NONE);
        name = path("log");
        ASSERT_EQ(log_open_ex(&log, name.c_str(), 0), 0);
    }
    void write_line(int n) { LOG(&log, NORM_level, "line %03d\n", n); } // 16 bytes
    static std::string lines(int from, int till) {
        std::string text;
        for (int n = from; n <= till; ++n)
            text += "(NRM)  line " + std::string(n < 10 ? "00" : "0") + std::to_string(n) + "\n";
        return text;
    }

    text_stream told; // what goes to g_log
    log_ctx log = {};
    std::string name;
};

TEST_F(rotate_test, numbers_of_files) {
    for (const auto& [asked, kept] : {std::pair<std::size_t, std::size_t>{0, 16},
                                      {1, 1},
                                      {127, 127},
                                      {128, 16},
                                      {~std::size_t{0}, 16}}) {
        log_set_rota(&log, 5, asked, 0);
        EXPECT_EQ(log_rota_maxfiles(&log), kept) << asked;
        EXPECT_EQ(log_rota_maxsize(&log), 5u);
        EXPECT_EQ(log_rota_eod(&log), 0);
    }
    log_set_eod(&log, 1234);
    EXPECT_EQ(log_rota_eod(&log), 1234);
}

TEST_F(rotate_test, by_size_and_the_oldest_goes) {
    log_set_modules(&g_log, DEBUG_level);
    log_set_rota(&log, 32, 3, 0);
    for (int n = 1; n <= 11; ++n) {
        g_clock.real->tv_sec = 1000 + n;
        write_line(n);
    }
    // Two lines fill a file: rotated at 1002, 1004, 1006, 1008, 1010; three are kept.
    EXPECT_THAT(files(), testing::ElementsAre("log", "log.1006", "log.1008", "log.1010"));
    EXPECT_EQ(read_file(path("log.1006")), lines(5, 6));
    EXPECT_EQ(read_file(path("log.1008")), lines(7, 8));
    EXPECT_EQ(read_file(path("log.1010")), lines(9, 10));
    EXPECT_EQ(read_file(name), lines(11, 11));
    EXPECT_EQ(log.rota.next_idx, 2);
    const std::string expected = "(NRM)  [tests]: previous log rotated to [" + name +
                                 ".1008] tm=1008, idx=0\n" + "(DBG)  handle_rotation: replaced " +
                                 name + ".1002 with " + name + ".1008\n";
    EXPECT_THAT(told.text(), testing::HasSubstr(expected));
    // A kept file that somebody else removed is told and forgotten.
    unlink(path("log.1006").c_str());
    EXPECT_EQ(log_rotate(&log), 0);
    EXPECT_THAT(told.text(), testing::HasSubstr("(ERR)  handle_rotation: unlink(" + name +
                                                ".1006) ERROR(2) : No such file or directory\n"));
    EXPECT_EQ(log.rota.next_idx, 0);
    log_close(&log);
}

TEST_F(rotate_test, without_bookkeeping_nothing_is_deleted) {
    ASSERT_EQ(log.rota.max_idx, 0u);
    for (int n = 1; n <= 4; ++n) {
        g_clock.real->tv_sec = 1000 + n;
        write_line(n);
        EXPECT_EQ(log_rotate(&log), 0);
    }
    EXPECT_EQ(files().size(), 5u);
    EXPECT_EQ(told.text(), "");
    log_close(&log);
}

TEST_F(rotate_test, size_of_an_old_file_counts) {
    log_close(&log);
    write_file("log", lines(1, 2));
    ASSERT_EQ(log_open_ex(&log, name.c_str(), F_APPEND_OLD), 0);
    log_set_rota(&log, 48, 3, 0);
    write_line(3);
    EXPECT_EQ(read_file(path("log.1000")), lines(1, 3));
    EXPECT_EQ(read_file(name), "");
    log_close(&log);
}

TEST_F(rotate_test, at_the_end_of_the_day) {
    use_zone(BERLIN);
    const time_t midnight = 1711922400; // 2024-04-01 00:00:00 CEST
    log_set_rota(&log, 0, 3, midnight - 72000);
    EXPECT_EQ(log_rota_eod(&log), midnight - 1);
    g_clock.real->tv_sec = midnight - 1;
    write_line(1); // the last second of the day still belongs to it
    EXPECT_THAT(files(), testing::ElementsAre("log"));
    g_clock.real->tv_sec = midnight;
    write_line(2);
    EXPECT_EQ(read_file(path("log." + std::to_string(midnight))), lines(1, 2));
    EXPECT_EQ(log_rota_eod(&log), midnight + 86399);
    g_clock.real->tv_sec = midnight + 5;
    write_line(3);
    EXPECT_EQ(read_file(name), lines(3, 3));
    log_close(&log);
}

TEST_F(rotate_test, failed_rename_keeps_writing) {
    log_set_rota(&log, 32, 3, 0);
    std::filesystem::create_directories(name + ".1000/x");
    write_line(1);
    const std::string why = "log_rotate: failed to rename [" + name + "] to [" + name +
                            ".1000], ERROR(21): Is a directory";
    EXPECT_EQ(stderr_of([&] { write_line(2); }), why + " - rotation is to be stopped\n");
    EXPECT_EQ(told.text(), "(ERR)  log_rotate: " + why + " - rotation cancelled this time\n");
    EXPECT_EQ(log.total_out, 0u);
    EXPECT_EQ(log.rota.next_idx, 0);
    EXPECT_EQ(log.rota.tm[0], 0);
    EXPECT_EQ(stderr_of([&] { write_line(3); }), ""); // waits for another full measure
    g_clock.real->tv_sec = 1001;
    write_line(4);
    EXPECT_EQ(read_file(path("log.1001")), lines(1, 4));
    log_close(&log);
}

TEST_F(rotate_test, lost_stream_is_survived) {
    const std::string before = path("sub/log");
    std::filesystem::create_directory(dir / "sub");
    log_ctx moved = {};
    ASSERT_EQ(log_open_ex(&moved, before.c_str(), 0), 0);
    std::filesystem::rename(dir / "sub", dir / "elsewhere");
    const std::string texts = stderr_of([&] { EXPECT_EQ(log_rotate(&moved), -1); });
    EXPECT_THAT(texts, testing::HasSubstr("failed to rename"));
    EXPECT_THAT(texts, testing::HasSubstr("do_open: uid/gig="));
    EXPECT_EQ(log_fp(&moved), nullptr);

    const std::string told_of_close = stderr_of([&] {
        close(fileno(log_fp(&log)));
        EXPECT_EQ(log_rotate(&log), -1);
    });
    EXPECT_EQ(told_of_close,
              "log_rotate: failed to close [" + name + "], ERROR(9): Bad file descriptor\n");
    EXPECT_EQ(log_fp(&log), nullptr);
    for (log_ctx* lost : {&moved, &log}) {
        log_emit(lost, g_llctx, ERR_level, "goes nowhere\n");
        log_close(lost);
    }
}

TEST_F(rotate_test, what_cannot_be_rotated) {
    const struct {
        const char* name;
        FILE* fp;
        bool is_pipe;
        int rc;
        const char* told;
    } rows[] = {
        {"", stderr, false, 0, "log_rotate: nothing to rotate.\n"},
        {"x", stdout, false, -1, "log_rotate: stdout and stderr cannot be rotated.\n"},
        {"x", stderr, false, -1, "log_rotate: stdout and stderr cannot be rotated.\n"},
        {"x", told.fp, true, -1, "log_rotate: not supported for pipe-based streams.\n"},
        {"|x", told.fp, false, -1, "log_rotate: not supported for pipe-based streams.\n"},
    };
    for (const auto& row : rows) {
        log_ctx one = {};
        snprintf(one.name, sizeof(one.name), "%s", row.name);
        one.fp = row.fp;
        one.is_pipe = row.is_pipe;
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(log_rotate(&one), row.rc); }), row.told);
        EXPECT_EQ(one.fp, row.fp);
    }
    log_close(&log);
}

// Its own line about a rotation fills the file again.
TEST_F(rotate_test, application_log_with_a_tiny_limit_comes_to_rest) {
    const std::string own = path("own");
    ASSERT_EQ(log_open_ex(&g_log, own.c_str(), 0), 0);
    log_set_rota(&g_log, 1, 4, 0);
    for (int n = 1; n <= 3; ++n) {
        g_clock.real->tv_sec = 1000 + n;
        LOG(&g_log, NORM_level, "line\n");
    }
    EXPECT_THAT(files(), testing::ElementsAre("log", "own", "own.1001", "own.1002", "own.1003"));
    EXPECT_EQ(read_file(path("own.1001")), "(NRM)  line\n");
    EXPECT_EQ(read_file(path("own.1003")), "(NRM)  [tests]: previous log rotated to [" + own +
                                               ".1002] tm=1002, idx=1\n" + "(NRM)  line\n");
    log_close(&g_log);
    log_close(&log);
}

} // namespace
