// System calls that report their own failure to g_log and otherwise behave as the plain calls.
// Called wherever this tree makes such a call. Owns nothing.
#include "syswrap.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "log.h"

LOG_MODULE(2);

namespace {
// Notes errno behind a call and puts it back at the end of the scope, whatever logging did to it.
class errno_guard {
  public:
    const int err = errno;

    errno_guard() = default;
    ~errno_guard() { errno = err; }
    errno_guard(const errno_guard&) = delete;
    errno_guard& operator=(const errno_guard&) = delete;
};
} // namespace

// The line of a failed call: `fmt` and its arguments, then errno and its text.
#define REPORT(saved, fmt, ...)                                                                    \
    LOG(&g_log, ERR_level, fmt " ERROR(%d): %s\n", __VA_ARGS__, (saved).err, strerror((saved).err))

bool is_eagain(int err) {
    return err == EAGAIN || err == EWOULDBLOCK;
}

bool no_fault(int err, std::uint32_t guilty) {
    return guilty == 0 && (is_eagain(err) || err == EPIPE || err == EINTR || err == ECONNRESET);
}

// ---- memory ------------------------------------------------------------------------------------

void* W_calloc(const char* caller, std::size_t n, std::size_t size) {
    void* mem = calloc(n, size);
    if (mem == nullptr) {
        const errno_guard saved;
        REPORT(saved, "%s: calloc(%ld, %ld)", caller, static_cast<long>(n),
               static_cast<long>(size));
    }
    return mem;
}

void* W_realloc(const char* caller, void* ptr, std::size_t size) {
    const auto old = reinterpret_cast<std::uintptr_t>(ptr); // ptr itself is gone afterwards
    void* mem = realloc(ptr, size);
    if (mem == nullptr) {
        const errno_guard saved;
        REPORT(saved, "%s: realloc(%p, %ld)", caller, reinterpret_cast<const void*>(old),
               static_cast<long>(size));
    }
    return mem;
}

// ---- files -------------------------------------------------------------------------------------

int W_open(const char* caller, const char* path, int flags, mode_t mode) {
    const mode_t used = mode != 0 ? mode : 0644;
    const int fd = open(path, flags, used);
    if (fd == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: open('%s', %d, 0x%lx)", caller, path, flags,
               static_cast<unsigned long>(used));
    }
    return fd;
}

int W_close(const char* caller, int fd) {
    const int rc = close(fd);
    const errno_guard saved;
    if (rc != 0)
        REPORT(saved, "%s: close(fd%d)", caller, fd);
    else
        LOG(&g_log, DEBUG_level, "%s: CLOSED(fd%d)\n", caller, fd);
    return rc;
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence) {
    const off_t pos = lseek(fd, offset, whence);
    if (pos == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: lseek(%d, %lld, %d)", caller, fd, static_cast<long long>(offset),
               whence);
    }
    return pos;
}

int W_unlink(const char* caller, const char* path) {
    const int rc = unlink(path);
    if (rc != 0) {
        const errno_guard saved;
        REPORT(saved, "%s: unlink(%s)", caller, path);
    }
    return rc;
}

int W_ftruncate(const char* caller, int fd, off_t length) {
    const int rc = ftruncate(fd, length);
    if (rc != 0) {
        const errno_guard saved;
        REPORT(saved, "%s: ftruncate(%d, %lld)", caller, fd, static_cast<long long>(length));
    }
    return rc;
}

int W_dup2(const char* caller, int oldfd, int newfd) {
    const int fd = dup2(oldfd, newfd);
    if (fd == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: dup2(%d, %d)", caller, oldfd, newfd);
    }
    return fd;
}

int W_pipe(const char* caller, int fds[2]) {
    const int rc = pipe(fds);
    if (rc == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: pipe([%d,%d])", caller, fds[0], fds[1]);
    }
    return rc;
}

// ---- input and output --------------------------------------------------------------------------

ssize_t W_write_f(const char* caller, int fd, const void* buf, std::size_t len,
                  std::uint32_t guilty) {
    const ssize_t n = write(fd, buf, len);
    if (n == -1 && !no_fault(errno, guilty)) {
        const errno_guard saved;
        REPORT(saved, "%s: write(%d, %p, %ld)", caller, fd, buf, static_cast<long>(len));
    }
    return n;
}

ssize_t W_read_f(const char* caller, int fd, void* buf, std::size_t len, std::uint32_t guilty) {
    const ssize_t n = read(fd, buf, len);
    if (n == -1 && !no_fault(errno, guilty)) {
        const errno_guard saved;
        REPORT(saved, "%s: read(%d, %p, %ld)", caller, fd, buf, static_cast<long>(len));
    }
    return n;
}

ssize_t W_pread_f(const char* caller, int fd, void* buf, std::size_t len, off_t offset,
                  std::uint32_t guilty) {
    const ssize_t n = pread(fd, buf, len, offset);
    if (n == -1 && !no_fault(errno, guilty)) {
        const errno_guard saved;
        REPORT(saved, "%s: pread(%d, %p, %ld, %lld)", caller, fd, buf, static_cast<long>(len),
               static_cast<long long>(offset));
    }
    return n;
}

ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, std::size_t count,
                     std::uint32_t guilty) {
    const ssize_t n = sendfile(out_fd, in_fd, offset, count);
    if (n == -1 && !no_fault(errno, guilty)) {
        const errno_guard saved;
        // intended: no newline, so the next line of the log follows on the same one.
        LOG(&g_log, ERR_level, "%s: LNX sendfile(%d<-%d, %lld, %ld) ERROR(%d): %s", caller, out_fd,
            in_fd, static_cast<long long>(*offset), static_cast<long>(count), saved.err,
            strerror(saved.err));
    }
    return n;
}

// ---- sockets -----------------------------------------------------------------------------------

static long length_behind(const socklen_t* len) {
    return len != nullptr ? static_cast<long>(*len) : 0L;
}

int W_socket(const char* caller, int domain, int type, int protocol) {
    const int fd = socket(domain, type, protocol);
    const errno_guard saved;
    if (fd == -1)
        REPORT(saved, "%s: socket(%d, %d, %d)", caller, domain, type, protocol);
    else
        LOG(&g_log, DEBUG_level, "%s opened socket fd=%d (%d, %d, %d)\n", caller, fd, domain, type,
            protocol);
    return fd;
}

int W_getsockopt(const char* caller, int fd, int level, int name, void* val, socklen_t* len) {
    const int rc = getsockopt(fd, level, name, val, len);
    if (rc == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: getsockopt(%d, %d, %d, %p, %ld)", caller, fd, level, name, val,
               length_behind(len));
    }
    return rc;
}

int W_setsockopt(const char* caller, int fd, int level, int name, const void* val, socklen_t len) {
    const int rc = setsockopt(fd, level, name, val, len);
    if (rc == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: setsockopt(%d, %d, %d, %p, %ld)", caller, fd, level, name, val,
               length_behind(&len));
    }
    return rc;
}

int W_bind(const char* caller, int fd, const sockaddr* addr, socklen_t len) {
    const int rc = bind(fd, addr, len);
    if (rc == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: bind(%d, %p, %ld):", caller, fd, static_cast<const void*>(addr),
               length_behind(&len));
    }
    return rc;
}

int W_listen(const char* caller, int fd, int backlog) {
    const int rc = listen(fd, backlog);
    if (rc == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: listen(%d, %d)", caller, fd, backlog);
    }
    return rc;
}

int W_accept(const char* caller, int fd, sockaddr* addr, socklen_t* len) {
    const int peer = accept(fd, addr, len);
    if (peer == -1 && !is_eagain(errno)) {
        const errno_guard saved;
        REPORT(saved, "%s: accept(%d, %p, %ld)", caller, fd, static_cast<const void*>(addr),
               length_behind(len));
    }
    return peer;
}

int W_connect(const char* caller, int fd, const sockaddr* addr, socklen_t len) {
    const int rc = connect(fd, addr, len);
    if (rc == 0)
        return rc;
    const errno_guard saved;
    if (saved.err == EINPROGRESS) {
        LOG(&g_log, INFO_level, "%s: non-blocking connect in progress for fd%d\n", __func__, fd);
    } else {
        REPORT(saved, "%s: connect(%d, %p, %ld)", caller, fd, static_cast<const void*>(addr),
               length_behind(&len));
    }
    return rc;
}

int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints,
                  addrinfo** res) {
    const int rc = getaddrinfo(node, service, hints, res);
    // intended: a name that does not resolve is an everyday result; only wrong flags, a fault of
    // the program, are worth a line.
    if (rc == -1) {
        const errno_guard saved;
        LOG(&g_log, ERR_level, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller,
            node != nullptr ? node : "(null)", service != nullptr ? service : "(null)",
            static_cast<const void*>(hints), static_cast<const void*>(res), rc, saved.err,
            rc == EAI_SYSTEM ? strerror(saved.err) : gai_strerror(rc));
    }
    return rc;
}

ssize_t W_sendto(const char* caller, int fd, const void* buf, std::size_t len, int flags,
                 const sockaddr* to, socklen_t tolen) {
    const ssize_t n = sendto(fd, buf, len, flags, to, tolen);
    // intended: 0 is reported too, with whatever errno holds, because nothing was sent.
    if (n <= 0) {
        const errno_guard saved;
        REPORT(saved, "%s: sendto(%d, %p, %lu, %d, ...)", caller, fd, buf,
               static_cast<unsigned long>(len), flags);
    }
    return n;
}

ssize_t W_recvfrom(const char* caller, int fd, void* buf, std::size_t len, int flags,
                   sockaddr* from, socklen_t* fromlen) {
    const ssize_t n = recvfrom(fd, buf, len, flags, from, fromlen);
    // intended: 0 is reported too, with whatever errno holds, because the peer is gone.
    if (n <= 0) {
        const errno_guard saved;
        REPORT(saved, "%s: recvfrom(%d, %p, %lu, %d, ...)", caller, fd, buf,
               static_cast<unsigned long>(len), flags);
    }
    return n;
}

// ---- waiting -----------------------------------------------------------------------------------

// An interrupted wait is an everyday event, of interest to somebody who debugs.
static bool tells_interrupts() {
    return g_mod_ll[g_llctx.mod] >= DEBUG_level ||
           (g_llctx.sec >= 0 && g_sec_ll[g_llctx.sec] > INFO_level);
}

int W_select(const char* caller, int nfds, fd_set* rd, fd_set* wr, fd_set* ex, timeval* tmout) {
    const int n = select(nfds, rd, wr, ex, tmout);
    if (n == -1 && (errno != EINTR || tells_interrupts())) {
        const errno_guard saved;
        const void* sets[] = {rd, wr, ex, tmout};
        REPORT(saved, "%s: select(%d, %p, %p, %p, %p)", caller, nfds, sets[0], sets[1], sets[2],
               sets[3]);
    }
    return n;
}

int W_poll(const char* caller, pollfd* fds, nfds_t nfds, int tmout_ms) {
    const int n = poll(fds, nfds, tmout_ms);
    const errno_guard saved;
    if (n == -1) {
        REPORT(saved, "%s: poll(%p, %ld, %d)", caller, static_cast<const void*>(fds),
               static_cast<long>(nfds), tmout_ms);
    } else if (n == 0) {
        LOG(&g_log, WARN_level, "%s: poll() has timed out after %d ms\n", caller, tmout_ms);
    }
    return n;
}

// ---- processes ---------------------------------------------------------------------------------

pid_t W_fork(const char* caller) {
    const pid_t pid = fork();
    if (pid == -1) {
        const errno_guard saved;
        REPORT(saved, "%s: fork()", caller);
    }
    return pid;
}

int W_kill(const char* caller, pid_t pid, int sig) {
    const int rc = kill(pid, sig);
    if (rc != 0) {
        const errno_guard saved;
        REPORT(saved, "%s: kill(%ld, %d)", caller, static_cast<long>(pid), sig);
    }
    return rc;
}
