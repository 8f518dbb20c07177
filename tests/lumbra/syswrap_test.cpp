// Wrapped system calls on real descriptors: results, errno, and one line per failure.
#include "lumbra_env.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "syswrap.h"

namespace {

class syswrap_test : public lumbra_test {
  protected:
    void SetUp() override {
        lumbra_test::SetUp();
        log_timefmt(&g_log, TMF_NONE);
        log_default(&g_log, out.fp);
    }
    // The line written since the last call of this.
    std::string line() {
        const std::string all = out.text();
        std::string latest = all.substr(seen);
        seen = all.size();
        return latest;
    }

    text_stream out;
    std::size_t seen = 0;
};

// Runs `call` with no free descriptor.
int without_descriptors(const std::function<int()>& call) {
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    const rlimit none = {0, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int rc = call();
    const int err = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    errno = err;
    return rc;
}

struct failing_call {
    std::function<long()> call;
    std::string line; // without "t: " and the error
    int err;
};

TEST_F(syswrap_test, failures_are_told_and_keep_errno) {
    constexpr std::size_t huge = SIZE_MAX - 4095; // more than any platform grants
    const std::string huge_text = "-4096";
    const std::string none = "/nonexistent/x";
    const std::string self = std::to_string(getpid());
    const sockaddr addr = {};
    char where[32];
    snprintf(where, sizeof(where), "%p", static_cast<const void*>(&addr));
    off_t offset = 9;
    int slots[2] = {-5, -6};
    const auto is_null = [](const void* p) { return p == nullptr ? -1L : 0L; };
    const failing_call rows[] = {
        {[&] { return is_null(W_calloc("t", huge, 4)); }, "calloc(" + huge_text + ", 4)", ENOMEM},
        {[&] { return is_null(W_realloc("t", nullptr, huge)); },
         "realloc((nil), " + huge_text + ")", ENOMEM},
        {[&] { return W_open("t", none.c_str(), O_RDONLY, 0); }, "open('/nonexistent/x', 0, 0x1a4)",
         ENOENT},
        {[&] { return W_open("t", none.c_str(), O_RDWR, 0600); },
         "open('/nonexistent/x', 2, 0x180)", ENOENT},
        {[] { return W_close("t", -1); }, "close(fd-1)", EBADF},
        {[] { return W_lseek("t", -1, 5, SEEK_END); }, "lseek(-1, 5, 2)", EBADF},
        {[&] { return W_unlink("t", none.c_str()); }, "unlink(/nonexistent/x)", ENOENT},
        {[] { return W_ftruncate("t", -1, 7); }, "ftruncate(-1, 7)", EBADF},
        {[] { return W_dup2("t", -1, 5); }, "dup2(-1, 5)", EBADF},
        {[&] { return without_descriptors([&] { return W_pipe("t", slots); }); }, "pipe([-5,-6])",
         EMFILE},
        {[&] { return W_write_f("t", -1, &addr, 5, 0); },
         std::string("write(-1, ") + where + ", 5)", EBADF},
        {[] { return W_read_f("t", -1, nullptr, 5, 0); }, "read(-1, (nil), 5)", EBADF},
        {[] { return W_pread_f("t", -1, nullptr, 5, 9, 0); }, "pread(-1, (nil), 5, 9)", EBADF},
        {[&] { return W_sendfile_f("t", -1, -2, &offset, 3, 0); }, "LNX sendfile(-1<--2, 9, 3)",
         EBADF},
        {[] { return W_socket("t", -1, 2, 3); }, "socket(-1, 2, 3)", EAFNOSUPPORT},
        {[] { return W_getsockopt("t", -1, 1, 2, nullptr, nullptr); },
         "getsockopt(-1, 1, 2, (nil), 0)", EBADF},
        {[] { return W_setsockopt("t", -1, 1, 2, nullptr, 4); }, "setsockopt(-1, 1, 2, (nil), 4)",
         EBADF},
        {[] { return W_bind("t", -1, nullptr, 16); }, "bind(-1, (nil), 16):", EBADF},
        {[] { return W_listen("t", -1, 4); }, "listen(-1, 4)", EBADF},
        {[] { return W_accept("t", -1, nullptr, nullptr); }, "accept(-1, (nil), 0)", EBADF},
        {[&] { return W_connect("t", -1, &addr, 16); },
         std::string("connect(-1, ") + where + ", 16)", EBADF},
        {[] { return W_sendto("t", -1, nullptr, 0, 1, nullptr, 0); },
         "sendto(-1, (nil), 0, 1, ...)", EBADF},
        {[] { return W_recvfrom("t", -1, nullptr, 0, 2, nullptr, nullptr); },
         "recvfrom(-1, (nil), 0, 2, ...)", EBADF},
        {[] { return W_select("t", -1, nullptr, nullptr, nullptr, nullptr); },
         "select(-1, (nil), (nil), (nil), (nil))", EINVAL},
        {[] { return W_poll("t", nullptr, INT_MAX, 0); }, "poll((nil), 2147483647, 0)", EINVAL},
        {[] { return W_kill("t", getpid(), 999); }, "kill(" + self + ", 999)", EINVAL},
    };
    FILE* full = fopen("/dev/full", "w"); // every line that is logged spoils errno
    log_mirror(&g_log, full);
    for (const failing_call& row : rows) {
        SCOPED_TRACE(row.line);
        errno = 0;
        EXPECT_EQ(row.call(), -1);
        EXPECT_EQ(errno, row.err);
        const bool open_end = row.line.starts_with("LNX");
        EXPECT_EQ(line(), "(ERR)  t: " + row.line + " ERROR(" + std::to_string(row.err) +
                              "): " + strerror(row.err) + (open_end ? "" : "\n"));
    }
    log_mirror(&g_log, nullptr);
    fclose(full);
}

TEST_F(syswrap_test, expected_failures_are_silent_unless_guilty) {
    signal(SIGPIPE, SIG_IGN);
    int quiet[2], broken[2], reset[2];
    char buf[8] = {};
    ASSERT_EQ(pipe2(quiet, O_NONBLOCK), 0);
    ASSERT_EQ(pipe(broken), 0);
    close(broken[0]);
    const struct {
        std::function<ssize_t(std::uint32_t)> call;
        const char* told;
        int err;
    } rows[] = {
        {[&](std::uint32_t guilty) { return W_read_f("t", quiet[0], buf, sizeof(buf), guilty); },
         "(ERR)  t: read(", EAGAIN},
        {[&](std::uint32_t guilty) { return W_write_f("t", broken[1], buf, 1, guilty); },
         "(ERR)  t: write(", EPIPE},
        {[&](std::uint32_t guilty) { // the peer goes with data unread
             socketpair(AF_UNIX, SOCK_STREAM, 0, reset);
             EXPECT_EQ(write(reset[0], "x", 1), 1);
             close(reset[1]);
             const ssize_t n = W_read_f("t", reset[0], buf, sizeof(buf), guilty);
             const int err = errno;
             close(reset[0]);
             errno = err;
             return n;
         },
         "(ERR)  t: read(", ECONNRESET},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(strerror(row.err));
        for (std::uint32_t guilty : {0u, 1u, 0x80000000u}) {
            errno = 0;
            EXPECT_EQ(row.call(guilty), -1);
            EXPECT_EQ(errno, row.err);
            EXPECT_EQ(line().substr(0, strlen(row.told)), guilty != 0 ? row.told : "");
        }
    }
    EXPECT_TRUE(no_fault(EINTR, 0));
    EXPECT_FALSE(no_fault(EINTR, 1));
    EXPECT_FALSE(no_fault(EBADF, 0));
    for (int fd : {quiet[0], quiet[1], broken[1]})
        close(fd);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(syswrap_test, successes_are_told_to_those_who_debug) {
    for (const bool debugging : {false, true}) {
        g_mod_ll[2] = debugging ? DEBUG_level : NORM_level;
        const int fd = W_socket("t", AF_UNIX, SOCK_DGRAM, 0);
        ASSERT_GE(fd, 0);
        const std::string num = std::to_string(fd);
        const std::string opened = "(DBG)  t opened socket fd=" + num + " (1, 2, 0)\n";
        EXPECT_EQ(line(), debugging ? opened : "");
        EXPECT_EQ(W_close("t", fd), 0);
        EXPECT_EQ(line(), debugging ? "(DBG)  t: CLOSED(fd" + num + ")\n" : "");
    }
}

TEST_F(syswrap_test, file_mode_of_its_own) {
    const mode_t old = umask(0);
    const int fd = W_open("t", path("new").c_str(), O_CREAT | O_WRONLY, 0);
    umask(old);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(W_write_f("t", fd, "abc", 3, 0), 3);
    EXPECT_EQ(W_lseek("t", fd, 1, SEEK_SET), 1);
    EXPECT_EQ(W_close("t", fd), 0);
}

TEST_F(syswrap_test, connecting_without_waiting_is_no_failure) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* where = reinterpret_cast<sockaddr*>(&addr);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(W_bind("t", listener, where, len), 0);
    ASSERT_EQ(W_listen("t", listener, 1), 0);
    ASSERT_EQ(getsockname(listener, where, &len), 0);
    for (const int level : {NORM_level, INFO_level}) {
        g_mod_ll[2] = level;
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        EXPECT_EQ(W_connect("t", fd, where, len), -1);
        EXPECT_EQ(errno, EINPROGRESS);
        EXPECT_EQ(line(), level == NORM_level
                              ? ""
                              : "(INF)  W_connect: non-blocking connect in progress for fd" +
                                    std::to_string(fd) + "\n");
        close(fd);
    }
    close(listener);
}

TEST_F(syswrap_test, resolver_tells_wrong_flags_only) {
    addrinfo hints = {};
    addrinfo* res = nullptr;
    hints.ai_family = -7;
    EXPECT_NE(W_getaddrinfo("t", "127.0.0.1", nullptr, &hints, &res), 0);
    EXPECT_EQ(line(), "");
    hints = {};
    hints.ai_flags = INT_MAX;
    errno = 4;
    EXPECT_EQ(W_getaddrinfo("t", "a", nullptr, &hints, &res), -1);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "(ERR)  t: getaddrinfo(a, (null), %p, %p): ERROR(-1:%d): %s\n",
             static_cast<void*>(&hints), static_cast<void*>(&res), errno, gai_strerror(-1));
    EXPECT_EQ(line(), expected);
}

TEST_F(syswrap_test, waiting) {
    EXPECT_EQ(W_poll("t", nullptr, 0, 1), 0);
    EXPECT_EQ(line(), "(WRN)  t: poll() has timed out after 1 ms\n");

    struct sigaction act = {};
    act.sa_handler = [](int) {};
    sigaction(SIGALRM, &act, nullptr);
    const itimerval again = {{0, 20'000}, {0, 20'000}};
    const itimerval never = {};
    setitimer(ITIMER_REAL, &again, nullptr);
    for (const int level : {INFO_level, DEBUG_level}) {
        g_mod_ll[2] = level;
        timeval tmout = {5, 0};
        EXPECT_EQ(W_select("t", 0, nullptr, nullptr, nullptr, &tmout), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(!line().empty(), level == DEBUG_level);
    }
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST_F(syswrap_test, nothing_received_is_a_failure) {
    int fds[2];
    char c;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    close(fds[1]);
    errno = 0;
    EXPECT_EQ(W_recvfrom("t", fds[0], &c, 1, 0, nullptr, nullptr), 0);
    EXPECT_THAT(line(), testing::EndsWith(", 1, 0, ...) ERROR(0): Success\n"));
    ASSERT_EQ(fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    close(fds[0]);

    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr local = {AF_UNIX, {}};
    ASSERT_EQ(W_bind("t", listener, &local, sizeof(sa_family_t)), 0);
    ASSERT_EQ(W_listen("t", listener, 1), 0);
    EXPECT_EQ(W_accept("t", listener, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(line(), "");
    close(listener);
}

} // namespace
