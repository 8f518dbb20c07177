// syswrap.h - system calls that report their own failure.
//
// Each wrapper performs the call after which it is named and returns its result unchanged. If the
// call failed, it writes one line to g_log, like this one:
//
//     caller: close(fd7) ERROR(9): Bad file descriptor
//
// at ERR_level. What a wrapper counts as a failure is said beside it where it is not the plain one.
// So a caller tests the result as it would that of the plain call, reads errno as the call left
// it, and adds no message:
//
//     if (W_close(__func__, fd) != 0)
//         return -1;
//
// `caller` is commonly __func__. Nothing is retried and nothing is owned. Lines are tested against
// module level g_mod_ll[2]. Arguments and results not described here are those of the call itself.
#pragma once

#include <cstddef>
#include <cstdint>

#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

// ---- memory ------------------------------------------------------------------------------------

[[nodiscard]] void* W_calloc(const char* caller, std::size_t n, std::size_t size);
[[nodiscard]] void* W_realloc(const char* caller, void* ptr, std::size_t size);

// ---- files -------------------------------------------------------------------------------------

// A mode of 0 stands for 0644.
[[nodiscard]] int W_open(const char* caller, const char* path, int flags, mode_t mode);
// Success is logged at DEBUG_level.
int W_close(const char* caller, int fd);
off_t W_lseek(const char* caller, int fd, off_t offset, int whence);
int W_unlink(const char* caller, const char* path);
int W_ftruncate(const char* caller, int fd, off_t length);
int W_dup2(const char* caller, int oldfd, int newfd);
int W_pipe(const char* caller, int fds[2]);

// ---- input and output --------------------------------------------------------------------------
//
// With `guilty` 0 the failures EAGAIN, EPIPE, EINTR and ECONNRESET are expected and not logged;
// the call still returns -1. With any other value every failure is logged.

bool is_eagain(int err);                      // EAGAIN, or its synonym
bool no_fault(int err, std::uint32_t guilty); // the failure is expected

ssize_t W_write_f(const char* caller, int fd, const void* buf, std::size_t len,
                  std::uint32_t guilty);
ssize_t W_read_f(const char* caller, int fd, void* buf, std::size_t len, std::uint32_t guilty);
ssize_t W_pread_f(const char* caller, int fd, void* buf, std::size_t len, off_t offset,
                  std::uint32_t guilty);
// `offset` must not be null. The line ends without a line feed.
ssize_t W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t* offset, std::size_t count,
                     std::uint32_t guilty);

// ---- sockets -----------------------------------------------------------------------------------

// Success is logged at DEBUG_level.
[[nodiscard]] int W_socket(const char* caller, int domain, int type, int protocol);
int W_getsockopt(const char* caller, int fd, int level, int name, void* val, socklen_t* len);
int W_setsockopt(const char* caller, int fd, int level, int name, const void* val, socklen_t len);
int W_bind(const char* caller, int fd, const sockaddr* addr, socklen_t len);
int W_listen(const char* caller, int fd, int backlog);
// EAGAIN is not logged.
int W_accept(const char* caller, int fd, sockaddr* addr, socklen_t* len);
// EINPROGRESS is logged at INFO_level only.
int W_connect(const char* caller, int fd, const sockaddr* addr, socklen_t len);
// Only the result -1 (EAI_BADFLAGS) is logged; every other resolver error is the caller's to tell.
int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints,
                  addrinfo** res);
// A result of 0 is logged as a failure too, with whatever errno holds.
ssize_t W_sendto(const char* caller, int fd, const void* buf, std::size_t len, int flags,
                 const sockaddr* to, socklen_t tolen);
ssize_t W_recvfrom(const char* caller, int fd, void* buf, std::size_t len, int flags,
                   sockaddr* from, socklen_t* fromlen);

// ---- waiting -----------------------------------------------------------------------------------

// EINTR is logged only while module 2 logs at DEBUG_level or is in a section above level 1.
int W_select(const char* caller, int nfds, fd_set* rd, fd_set* wr, fd_set* ex, timeval* tmout);
// A time-out (result 0) is logged at WARN_level. `tmout_ms` in milliseconds, negative: for ever.
int W_poll(const char* caller, pollfd* fds, nfds_t nfds, int tmout_ms);

// ---- processes ---------------------------------------------------------------------------------

pid_t W_fork(const char* caller);
int W_kill(const char* caller, pid_t pid, int sig);
