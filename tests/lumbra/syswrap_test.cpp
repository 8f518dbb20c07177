// Wrapped system calls on real descriptors: results, errno, and one line per failure.
#include "lumbra_test.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>

#include "syswrap.h"

// A refused allocation must reach the wrapper under test instead of ending the process.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

constexpr std::nullptr_t nil = nullptr;

struct syswrap_test : lumbra_test {
    // Compares what a call that has just returned left behind; "*" stands for the address of mem.
    void fails(long long rc, int err, const char* call, const char* end = "\n") {
        const int has = errno;
        const string code = to_string(err), error = " ERROR(" + code + "): " + strerror(err) + end;
        string line = string("(ERR)  t: ") + call + error;
        if (const std::size_t at = line.find('*'); at != string::npos)
            line.replace(at, 1, string() << static_cast<void*>(mem));
        EXPECT_EQ(string() << rc << has << log.human(), "-1 " + code + " " + line);
        log.clear();
    }

    alignas(sockaddr) char mem[64] = {};
    sockaddr* const addr = reinterpret_cast<sockaddr*>(mem);
};

TEST_F(syswrap_test, failures) {
    static constexpr int READ_ONLY[2] = {-5, -6};
    constexpr std::size_t HUGE_SIZE = SIZE_MAX - 4095; // more than any platform grants
    off_t offset = 9;
    socklen_t len = 4;
    FILE* const full = fopen("/dev/full", "w");
    log_mirror(&g_log, full); // so that logging spoils errno
    fails(W_calloc("t", HUGE_SIZE, 4) ? 0 : -1, ENOMEM, "calloc(-4096, 4)");
    fails(W_realloc("t", nil, HUGE_SIZE) ? 0 : -1, ENOMEM, "realloc((nil), -4096)");
    fails(W_open("t", "/none/x", O_RDONLY, 0), ENOENT, "open('/none/x', 0, 0x1a4)");
    fails(W_open("t", "/none/x", O_RDWR, 0600), ENOENT, "open('/none/x', 2, 0x180)");
    fails(W_close("t", -1), EBADF, "close(fd-1)");
    fails(W_lseek("t", -1, 5, SEEK_END), EBADF, "lseek(-1, 5, 2)");
    fails(W_unlink("t", "/none/x"), ENOENT, "unlink(/none/x)");
    fails(W_ftruncate("t", -1, 7), EBADF, "ftruncate(-1, 7)");
    fails(W_dup2("t", -1, 5), EBADF, "dup2(-1, 5)");
    fails(W_pipe("t", const_cast<int*>(READ_ONLY)), EFAULT, "pipe([-5,-6])");
    fails(W_write_f("t", -1, mem, 5, 0), EBADF, "write(-1, *, 5)");
    fails(W_read_f("t", -1, mem, 5, 0), EBADF, "read(-1, *, 5)");
    fails(W_pread_f("t", -1, mem, 5, 9, 0), EBADF, "pread(-1, *, 5, 9)");
    fails(W_sendfile_f("t", -1, -2, &offset, 3, 0), EBADF, "LNX sendfile(-1<--2, 9, 3)", "");
    fails(W_socket("t", -1, 2, 3), EAFNOSUPPORT, "socket(-1, 2, 3)");
    fails(W_getsockopt("t", -1, 1, 2, mem, &len), EBADF, "getsockopt(-1, 1, 2, *, 4)");
    fails(W_setsockopt("t", -1, 1, 2, mem, 4), EBADF, "setsockopt(-1, 1, 2, *, 4)");
    fails(W_bind("t", -1, addr, 16), EBADF, "bind(-1, *, 16):");
    fails(W_listen("t", -1, 4), EBADF, "listen(-1, 4)");
    fails(W_accept("t", -1, nil, nil), EBADF, "accept(-1, (nil), 0)");
    fails(W_connect("t", -1, addr, 16), EBADF, "connect(-1, *, 16)");
    fails(W_sendto("t", -1, nil, 0, 1, nil, 0), EBADF, "sendto(-1, (nil), 0, 1, ...)");
    fails(W_recvfrom("t", -1, nil, 0, 2, nil, nil), EBADF, "recvfrom(-1, (nil), 0, 2, ...)");
    fails(W_select("t", -1, nil, nil, nil, nil), EINVAL, "select(-1, (nil), (nil), (nil), (nil))");
    fails(W_poll("t", nil, INT_MAX, 0), EINVAL, "poll((nil), 2147483647, 0)");
    fails(W_kill("t", 0, 999), EINVAL, "kill(0, 999)");
    fclose(full);
}

// Everyday failures are told to those who ask, by "guilty" or by the level of the module.
TEST_F(syswrap_test, expected_failures) {
    int fds[2];
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    dup2(fds[0], 60); // a number for the lines
    fails(W_read_f("t", 60, mem, 1, 2), EAGAIN, "read(60, *, 1)");
    EXPECT_EQ(string() << W_read_f("t", 60, mem, 1, 0) << errno
                       << W_sendto("t", 60, "x", 1, 0, nil, 0) << W_close("t", fds[1])
                       << W_read_f("t", 60, mem, 1, 0) << errno << W_write_f("t", 60, "x", 1, 0)
                       << errno << log.human(),
              "-1 11 1 0 -1 104 -1 32");
    fails(W_write_f("t", 60, mem, 1, 1), EPIPE, "write(60, *, 1)");
    errno = 0;
    EXPECT_EQ(W_recvfrom("t", 60, nil, 0, 0, nil, nil), 0);
    EXPECT_EQ(W_poll("t", nil, 0, 1), 0);
    EXPECT_EQ(log.human(), "(ERR)  t: recvfrom(60, (nil), 0, 0, ...) ERROR(0): Success\n"
                           "(WRN)  t: poll() has timed out after 1 ms\n");
    log.clear();

    const auto tcp = [] { return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0); };
    const int listener = tcp();
    socklen_t len = sizeof(mem);
    EXPECT_EQ(string() << W_listen("t", listener, 1) << W_accept("t", listener, nil, nil) << errno
                       << getsockname(listener, addr, &len) << W_connect("t", tcp(), addr, len)
                       << errno << log.human(),
              "0 -1 11 0 -1 115");
    g_mod_ll[2] = INFO_level;
    dup2(tcp(), 61);
    EXPECT_EQ(W_connect("t", 61, addr, len), -1);
    EXPECT_EQ(log.human(), "(INF)  W_connect: non-blocking connect in progress for fd61\n");
    log.clear();

    addrinfo hints = {}, *res = nullptr; // of the resolver only wrong flags are told
    hints.ai_flags = INT_MAX;
    EXPECT_EQ(string() << W_getaddrinfo("t", nil, nil, nil, &res) << log.human(), "-2");
    EXPECT_EQ(W_getaddrinfo("t", "a", nil, &hints, &res), -1);
    EXPECT_THAT(log.human(),
                testing::MatchesRegex("\\(ERR\\)  t: getaddrinfo\\(a, \\(null\\), 0x.*, 0x.*\\): "
                                      "ERROR\\(-1:.*\\): Bad value for ai_flags\n"));
    log.clear();

    signal(SIGALRM, [](int) {});
    ualarm(20'000, 20'000);
    EXPECT_EQ(string() << W_select("t", 0, nil, nil, nil, nil) << log.human(), "-1");
    g_mod_ll[2] = DEBUG_level;
    fails(W_select("t", 0, nil, nil, nil, nil), EINTR, "select(0, (nil), (nil), (nil), (nil))");
    ualarm(0, 0);
    EXPECT_TRUE(no_fault(EINTR, 0));
}

TEST_F(syswrap_test, results) {
    struct stat st;
    umask(0);
    const int fd = W_open("t", "new", O_CREAT | O_RDWR, 0);
    umask(022);
    EXPECT_EQ(string() << fstat(fd, &st) << (st.st_mode & 07777) << W_write_f("t", fd, "abcd", 4, 0)
                       << W_lseek("t", fd, -1, SEEK_END) << W_pread_f("t", fd, mem, 2, 1, 0) << mem
                       << W_ftruncate("t", fd, 3) << files() << log.human(),
              "0 420 4 3 2 bc 0 [new]abc");
    g_mod_ll[2] = DEBUG_level;
    W_close("t", fd);
    const string num = to_string(W_socket("t", AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_EQ(log.human(),
              "(DBG)  t: CLOSED(fd" + num + ")\n(DBG)  t opened socket fd=" + num + " (1, 2, 0)\n");
}

} // namespace
