// Rotation of log files: by size, at the end of the local day and on demand, with a ring of the
// names of the files kept; and moving aside what stands in the way of a new log. Called by
// log_flush, log_open_ex and the host.
#include "log.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "log_internal.h"
#include "timeop.h"

LOG_MODULE(0);

namespace {
constexpr std::size_t LOG_ERRMSG_MAX = 384;
constexpr std::size_t ROTATED_NAME_MAX = 160;
} // namespace

// The context whose rotation is under way. Its own lines about that must not start another one,
// which a size limit of less than a line would do for ever.
static constinit const log_ctx* rotating = nullptr;

void log_set_eod(log_ctx* log, time_t max_time) {
    log->rota.max_log_tm = max_time;
}

void log_set_rota(log_ctx* log, std::size_t maxsize, std::size_t maxfiles, time_t max_time) {
    const bool usable = maxfiles >= 1 && maxfiles < MAX_CYCLIC_ROTATIONS;
    log->rota.max_total = maxsize;
    log->rota.max_idx = usable ? maxfiles : D_CYCLIC_ROTATIONS;
    log->rota.max_log_tm = max_time >= 1 ? get_endofday_utime(max_time) : 0;
}

std::size_t log_rota_maxfiles(const log_ctx* log) {
    return log->rota.max_idx;
}

std::size_t log_rota_maxsize(const log_ctx* log) {
    return log->rota.max_total;
}

time_t log_rota_eod(const log_ctx* log) {
    return log->rota.max_log_tm;
}

// ---- names -------------------------------------------------------------------------------------

// Writes the name that `path` gets when it is rotated at `tm`. Returns its length, fit or not.
static int name_at(char* out, std::size_t room, const char* path, time_t tm) {
    return snprintf(out, room, "%s.%lu", path, static_cast<unsigned long>(tm));
}

// The same for a context; tells on stderr, on behalf of `func`, if the name does not fit.
static bool rotated_name(char (&out)[ROTATED_NAME_MAX], const log_ctx* log, time_t tm,
                         const char* func) {
    const int len = name_at(out, sizeof(out), log->name, tm);
    if (len >= 0 && static_cast<std::size_t>(len) < sizeof(out))
        return true;
    const unsigned long max = sizeof(out) - 1;
    fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", func, len, max);
    return false;
}

int move_if_present(const char* path) {
    struct stat st;
    if (stat(path, &st) != 0) {
        const int err = errno;
        if (err == ENOENT)
            return 0;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", path, err, strerror(err));
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size == 0)
        return 0;
    char aside[LOG_PATHNAME_MAX];
    const int len = name_at(aside, sizeof(aside), path, st.st_mtime);
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof(aside))
        return 7;
    const int rc = rename(path, aside);
    if (rc != 0) {
        const int err = errno;
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", path, aside, err, strerror(err));
    }
    return rc;
}

// ---- the ring of files kept --------------------------------------------------------------------

static void delete_oldest(const char* oldest, const log_ctx* log, time_t now) {
    if (unlink(oldest) != 0) {
        const int err = errno;
        LOG(&g_log, ERR_level, "%s: unlink(%s) ERROR(%d) : %s\n", "handle_rotation", oldest, err,
            strerror(err));
        return;
    }
    LOG(&g_log, DEBUG_level, "%s: replaced %s with %s.%lu\n", "handle_rotation", oldest, log->name,
        static_cast<unsigned long>(now));
}

// Notes a rotation that was done, and deletes the file whose place in the ring it takes.
static void handle_rotation(log_ctx* log, time_t now, const char* new_name) {
    rotation_ctx& rota = log->rota;
    const auto slot = static_cast<std::size_t>(rota.next_idx);
    const long idx = static_cast<long>(rota.next_idx);
    LOG(&g_log, NORM_level, "[%s]: previous log rotated to [%s] tm=%lld, idx=%ld\n",
        g_logmod.app_tag, new_name, static_cast<long long>(now), idx);
    if (rota.tm[slot] != 0) {
        char oldest[ROTATED_NAME_MAX];
        if (!rotated_name(oldest, log, rota.tm[slot], __func__))
            return;
        delete_oldest(oldest, log, now);
    }
    rota.tm[slot] = now;
    rota.next_idx = slot + 1 >= rota.max_idx ? 0 : rota.next_idx + 1;
    errno = 0;
}

// ---- rotating ----------------------------------------------------------------------------------

// Whether the context writes to a file at all; `*rc` is the result if it does not.
static bool can_rotate(const log_ctx* log, int* rc) {
    *rc = -1;
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", "log_rotate");
        *rc = 0;
        return false;
    }
    if (is_std_stream(log->fp)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", "log_rotate");
        return false;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", "log_rotate");
        return false;
    }
    return true;
}

// Closes the stream, which is gone even if that fails; the context then has none.
static int close_for_rotation(log_ctx* log) {
    FILE* fp = log->fp;
    log->fp = nullptr;
    if (fp == nullptr || fclose(fp) == 0)
        return 0;
    const int err = errno;
    fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", "log_rotate", log->name, err,
            strerror(err));
    return -1;
}

// Gives the closed file its new name. On failure `errmsg` says why.
static bool rename_log(const log_ctx* log, const char* new_name, char (&errmsg)[LOG_ERRMSG_MAX]) {
    if (rename(log->name, new_name) == 0)
        return true;
    const int err = errno;
    snprintf(errmsg, sizeof(errmsg), "%s: failed to rename [%s] to [%s], ERROR(%d): %s",
             "log_rotate", log->name, new_name, err, strerror(err));
    fprintf(stderr, "%s - rotation is to be stopped\n", errmsg);
    return false;
}

static int rotate_file(log_ctx* log) {
    const time_t now = time(nullptr);
    char new_name[ROTATED_NAME_MAX];
    char errmsg[LOG_ERRMSG_MAX];
    if (!rotated_name(new_name, log, now, "log_rotate") || close_for_rotation(log) != 0)
        return -1;
    const bool renamed = rename_log(log, new_name, errmsg);
    const int rc = do_open(log, log->name);
    if (rc != 0)
        return rc;
    if (!renamed) {
        log->total_out = 0; // the next attempt waits for another full measure
        LOG(&g_log, ERR_level, "%s: %s - rotation cancelled this time\n", "log_rotate", errmsg);
    } else if (log->rota.max_idx != 0) {
        handle_rotation(log, now, new_name);
    }
    return 0;
}

int log_rotate(log_ctx* log) {
    int rc;
    if (!can_rotate(log, &rc))
        return rc;
    const log_ctx* outer = rotating;
    rotating = log;
    rc = rotate_file(log);
    rotating = outer;
    return rc;
}

void rotate_if_due(log_ctx* log) {
    if (rotating == log)
        return;
    rotation_ctx& rota = log->rota;
    bool due = rota.max_total != 0 && log->total_out >= rota.max_total;
    if (rota.max_log_tm > 0) {
        const time_t now = time(nullptr);
        if (now > rota.max_log_tm) {
            rota.max_log_tm = get_endofday_utime(now);
            due = true;
        }
    }
    if (due)
        log_rotate(log);
}
