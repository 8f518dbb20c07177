// Opening and closing the file or pipe of a log context. Called by the host, and by rotation for
// the file that follows. The context owns the stream from here to log_close.
#include "log.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "log_internal.h"

static FILE* open_stream(const log_ctx* log, const char* name) {
    FILE* fp = log->is_pipe ? popen(name, "w") : fopen(name, "a+");
    if (fp == nullptr) {
        const long uid = geteuid();
        const int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", "do_open", uid,
                static_cast<long>(getegid()), log->is_pipe ? "popen" : "fopen", name, err,
                strerror(err));
    }
    return fp;
}

// Bytes already in the file; 0 if that cannot be told, which only delays its rotation.
static std::size_t present_size(FILE* fp, const char* name) {
    struct stat st;
    if (fstat(fileno(fp), &st) != 0) {
        const int err = errno;
        fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", "do_open", name, err, strerror(err));
        return 0;
    }
    return static_cast<std::size_t>(st.st_size);
}

int do_open(log_ctx* log, const char* name) {
    assert(g_logmod.is_ready);
    if (name == nullptr) {
        log->fp = stderr;
        return 0;
    }
    // intended: a name of 128 characters is opened, although the context keeps but 127 of them.
    if (strlen(name) > LOG_PATHNAME_MAX) {
        fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n",
                static_cast<long>(LOG_PATHNAME_MAX));
        return -1;
    }
    log->fp = open_stream(log, name);
    if (log->fp == nullptr)
        return -1;
    if (name != log->name)
        snprintf(log->name, sizeof(log->name), "%s", name);
    setvbuf(log->fp, nullptr, log->is_pipe ? _IOLBF : _IONBF, 0);
    log->total_out = log->is_pipe ? 0 : present_size(log->fp, name);
    return 0;
}

int log_open_ex(log_ctx* log, const char* filename, std::uint32_t flags) {
    log->is_pipe = 0;
    if (filename != nullptr && (flags & F_APPEND_OLD) == 0)
        move_if_present(filename); // a file that stays is appended to
    return do_open(log, filename);
}

int log_popen(log_ctx* log, const char* command) {
    log->is_pipe = 1;
    return do_open(log, command);
}

static void close_stream(const log_ctx* log) {
    const sigpipe_guard guard(log->is_pipe);
    const int rc = log->is_pipe ? pclose(log->fp) : fclose(log->fp);
    if (rc != -1) // a command's own exit status is no failure of the log
        return;
    const int err = errno;
    if (log->is_pipe && err == ECHILD) // the host reaps its children itself
        return;
    fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", "log_close",
            log->is_pipe ? "pclose" : "fclose", err, strerror(err));
}

void log_close(log_ctx* log) {
    if (log->fp == nullptr || is_std_stream(log->fp))
        return;
    close_stream(log);
    if (log->syslg.enabled)
        closelog();
    if (log->lh != nullptr) {
        log->lh->lard_destroy(log->lh->opaque);
        log->lh = nullptr;
    }
}
