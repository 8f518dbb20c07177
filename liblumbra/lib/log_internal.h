// log_internal.h - what the files of the logging module share among themselves.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>

#include "log.h"

// Opens, or opens again, the file or pipe `name` according to is_pipe; null: stderr.
// Returns 0, or -1 with a line on stderr and `fp` null or unchanged.
int do_open(log_ctx* log, const char* name);

// Renames a non-empty regular file out of the way of a new one. Returns 0 if the way is free.
int move_if_present(const char* path);

// Rotates a context that writes to a file, if its size or the time of day asks for it.
void rotate_if_due(log_ctx* log);

const char* level_tag(int level);
int syslog_priority(int level);

inline bool is_std_stream(const FILE* fp) {
    return fp == stdout || fp == stderr;
}

// While it lives, a write to a pipe whose reader is gone fails with EPIPE and raises nothing: the
// death of a log reader must not be that of the process. A signal that was pending before stays.
class sigpipe_guard {
  public:
    explicit sigpipe_guard(bool wanted) : active(wanted) {
        if (!active)
            return;
        sigset_t pending;
        sigpending(&pending);
        was_pending = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&pipe_only);
        sigaddset(&pipe_only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_only, &old_mask);
    }
    ~sigpipe_guard() {
        if (!active)
            return;
        const int saved = errno;
        const timespec at_once = {};
        if (!was_pending) {
            while (sigtimedwait(&pipe_only, nullptr, &at_once) == -1 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        errno = saved;
    }
    sigpipe_guard(const sigpipe_guard&) = delete;
    sigpipe_guard& operator=(const sigpipe_guard&) = delete;

  private:
    bool active;
    bool was_pending = false;
    sigset_t pipe_only;
    sigset_t old_mask;
};
