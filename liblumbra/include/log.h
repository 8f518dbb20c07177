// log.h - log contexts, levels and the line format.
//
// Every message leaves through a log context: one output stream (file, pipe, stderr, stdout), an
// optional mirror, optional syslog forwarding, optional rotation and an optional ring of lines.
// One process-wide buffer of 2048 bytes holds the line under construction, so the module belongs
// to one thread.
//
// A source file that logs says which module it is, once, and then uses LOG:
//
//     LOG_MODULE(0);
//     ...
//     log_default(&g_log, stderr);
//     LOG(&g_log, WARN_level, "%s: only %d bytes left\n", __func__, n);
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <sys/types.h>

#include "timeop.h" // the TMF_ flags of a time stamp

// ---- levels ------------------------------------------------------------------------------------

// Smaller is more severe. Any other int is a legal level too; it prints the tag "( ? )".
enum log_level : int {
    MIN_level = -127, // no level tag, for machine lines
    PANIC_level = -4,
    ERR_level = -3,
    CRIT_level = -2,
    WARN_level = -1,
    NORM_level = 0,
    INFO_level = 1,
    DEBUG_level = 2,
    SECTION_level = 64
};

inline constexpr std::size_t LL_MAX_MODULES = 128;
inline constexpr std::size_t LL_MAX_SECTIONS = 128;
inline constexpr std::size_t LL_STACK_DEPTH = 8;

// What a module's lines are tested against; every logging source file owns one named g_llctx.
struct loglevel_ctx {
    int mod;                       // index into g_mod_ll
    int sec;                       // index into g_sec_ll of the active section, -1: none
    int sec_sp;                    // top of sec_stack, -1: empty
    int sec_stack[LL_STACK_DEPTH]; // sections that were active before
};

extern int g_mod_ll[LL_MAX_MODULES];  // level of each module, NORM_level at start
extern int g_sec_ll[LL_MAX_SECTIONS]; // level of each section, 0 at start
extern int g_sigctx;                  // non-zero while inside a signal handler

// Defines the level context of the source file.
#define LOG_MODULE(index) static loglevel_ctx g_llctx = {(index), -1, -1, {}}

// ---- contexts ----------------------------------------------------------------------------------

inline constexpr std::size_t LOG_PATHNAME_MAX = 128;
inline constexpr std::size_t MAX_CYCLIC_ROTATIONS = 128;
inline constexpr std::size_t D_CYCLIC_ROTATIONS = 16; // rotated files kept by default
inline constexpr std::uint32_t F_APPEND_OLD = 1;      // log_open_ex: append, move nothing aside

// A ring of log lines that a host may supply; none is shipped.
struct lard {
    void* opaque;                                   // handed to the three calls
    void (*lard_puts)(void* opaque, const char* s); // append one line (NUL-terminated)
    void (*lard_set_temp)(void* opaque, int temp);  // raise the alarm temperature
    void (*lard_destroy)(void* opaque);             // release the ring
};
using lard_t = lard*;

struct ll_status {
    unsigned mod_ll_set : 1; // log_set_modules was called
    unsigned sec_ll_set : 1; // log_set_sections was called
};

struct rotation_ctx {
    time_t tm[MAX_CYCLIC_ROTATIONS]; // time that names each rotated file kept, 0: empty slot
    ssize_t next_idx;                // slot that the next rotation fills
    std::size_t max_idx;             // rotated files kept, 0: none are counted or deleted
    std::size_t max_total;           // size trigger in bytes, 0: none
    time_t max_log_tm;               // end-of-day deadline in Unix seconds, 0 or less: none
};

union n64_tag {
    char sym8[8]; // text of at most 7 characters and a NUL
    std::uint64_t num64;
};

struct syslog_cfg {
    bool enabled;
    int option;   // openlog options
    int facility; // syslog facility code
};

// One log destination. All zero is a valid, unopened context.
struct log_ctx {
    char name[LOG_PATHNAME_MAX]; // path or pipe command, empty for stderr and stdout
    unsigned is_pipe : 1;        // fp comes from popen
    std::uint32_t time_format;   // time-stamp flags
    FILE* fp;                    // main output, null: unopened
    FILE* mirror_fp;             // second output, null: none
    std::size_t total_out;       // bytes in fp since it was opened, a file's old size included
    ll_status llst;
    rotation_ctx rota;
    pid_t pid;     // printed when 1 or more
    n64_tag group; // printed when not 0
    lard_t lh;     // ring of lines, null: none
    syslog_cfg syslg;
};

extern log_ctx g_log;        // human lines of every module
extern log_ctx g_access_log; // machine lines
extern log_ctx g_stats_log;  // reserved for statistics, unopened

inline bool lard_enabled(const log_ctx* log) {
    return log->lh != nullptr;
}

// Whether a line of level `level` from module `ll` goes to the stream. Inside a section the
// section's level decides and the line's own plays no part.
inline bool log_level_passes(const loglevel_ctx& ll, int level) {
    const int tested = ll.sec >= 0 ? g_sec_ll[ll.sec] : level;
    return tested <= g_mod_ll[ll.mod];
}

inline bool log_wanted(const log_ctx* log, const loglevel_ctx& ll, int level) {
    return log_level_passes(ll, level) || lard_enabled(log);
}

// ---- set-up -------------------------------------------------------------------------------------
//
// A log file of at most 10 MB that is also rotated at midnight and keeps its last eight rotations:
//
//     glog_init("myhost");
//     if (log_open_ex(&g_log, "/var/log/myhost.log", 0) == 0)
//         log_set_rota(&g_log, 10'000'000, 8, time(nullptr));
//     ...
//     log_close(&g_log);
//
// An operation that fails says why on stderr and goes on. Only misuse ends the process, at an
// assertion: a null `app_tag`, opening before glog_init, a group tag without its NUL.

inline constexpr std::size_t LOG_APP_TAG_MAX = 128;
inline constexpr std::size_t LOG_OUTBUF_MAX = 2048;

struct log_module_ctx {
    bool is_ready;                 // glog_init was called
    char app_tag[LOG_APP_TAG_MAX]; // names the program in "log rotated" lines
};

extern log_module_ctx g_logmod;
extern char g_outbuf[LOG_OUTBUF_MAX]; // the line under construction, NUL-terminated

// Must precede log_open_ex and log_popen. Copies at most 127 characters of `app_tag`, which must
// not be null.
void glog_init(const char* app_tag);

// Binds a context that is not open to a stream, commonly stderr or stdout. Those two stay the
// caller's; any other stream is closed by log_close. For g_log it also sets all section levels to
// SECTION_level unless log_set_sections was called before.
void log_default(log_ctx* log, FILE* fp);

// Opens a log file for appending; it is unbuffered, so every line is in the file once the call
// that wrote it returns. Unless `flags` has F_APPEND_OLD, a non-empty regular file of that name is
// first renamed to its name, a dot and its modification time in Unix seconds; it is appended to if
// that cannot be done or would have more than 127 characters. A null `filename` binds the context
// to stderr.
// A name has at most 127 characters. One of 128 is opened too, but the context keeps only 127 of
// them and rotates a file of that name; a longer one is refused.
// Returns 0, or -1 with a line on stderr. The stream belongs to the context until log_close. Close
// a context before it is opened again: its old stream would stay open and out of reach.
[[nodiscard]] int log_open_ex(log_ctx* log, const char* filename, std::uint32_t flags);

// Opens a pipe to a shell command of at most 128 characters that reads the lines on its standard
// input. A command that ends early costs its lines, never the process.
// Returns 0, or -1 with a line on stderr. What log_open_ex says of closing holds here too.
[[nodiscard]] int log_popen(log_ctx* log, const char* command);

// Copies every line to `fp` as well, which becomes line-buffered and stays the caller's.
// Null ends the copying.
void log_mirror(log_ctx* log, FILE* fp);

// Closes the stream, whoever opened it, and the connection to syslog if the context forwards, and
// destroys the ring. For a pipe it waits until the command ends, without a limit. Does nothing at
// all for a context that is bound to stderr or stdout or was never opened.
// All other fields keep their values, the stream field too, which is dead then: open or bind the
// context again before it is used. Forwarding goes on from there until disable_syslog is called.
void log_close(log_ctx* log);

FILE* log_fp(const log_ctx* log);
FILE* log_mirror_fp(const log_ctx* log);

// Time-stamp flags TMF_.
void log_timefmt(log_ctx* log, std::uint32_t flags);

// Process id printed on every line that has a time stamp; 0: none.
void log_set_pid(log_ctx* log, pid_t pid);
pid_t log_get_pid(const log_ctx* log);

// Group tag printed on every line, as the number that shares its bytes; 0: none.
// The eighth byte must be NUL.
void log_set_group(log_ctx* log, std::uint64_t group);
std::uint64_t log_get_group(const log_ctx* log);

// Attaches a ring, which belongs to the context until log_close destroys it. Null detaches.
// Returns the ring that it replaces, now the caller's.
lard_t log_set_lard(log_ctx* log, lard_t ring);

// ---- syslog ------------------------------------------------------------------------------------

// Forwards lines of WARN_level and more severe to syslog(3), and machine lines with the priority
// LOG_DEBUG. `ident` is kept, not copied. `option` and `facility` are those of openlog(3).
void config_syslog(log_ctx* log, const char* ident, int option, int facility);
void disable_syslog(log_ctx* log);

// The same for g_log, with LOG_PID | LOG_CONS and LOG_LOCAL0.
void glog_enable_syslog(const char* ident);
void glog_disable_syslog();

// ---- levels of modules and sections ------------------------------------------------------------

void log_set_modules(log_ctx* log, int level);  // all modules; `log` notes that it was done
void log_set_sections(log_ctx* log, int level); // all sections; `log` notes that it was done

// Saves the module levels, one deep: a second push is ignored, and so is a pop without a push.
void log_push_mlevels();
void log_pop_mlevels();

// Makes `section` (0 to 127) the active one of a module until the matching log_leave_section.
// Sections nest to a depth of LL_STACK_DEPTH. Returns 0, or -1 with nothing changed.
int log_enter_section(loglevel_ctx* ll, int section);
int log_leave_section(loglevel_ctx* ll);

// The number with which environment variable `name` begins; `dflt` if it is unset, begins with
// none, or is a zero in any other form than "0".
int read_level_env(const char* name, int dflt);

// Level of a name such as "err", "warning" or "dbg", in any case.
// Returns 0, or -1 with `level` untouched.
int match_log_level(const char* text, int* level);

// Name of a level, "??" for any that has none. The text is static.
const char* log_level_str(int level);

// ---- rotation ----------------------------------------------------------------------------------
//
// A rotated file is named after the log, a dot and the Unix time of the rotation. Two rotations
// within one second therefore share one name, and the lines of the first are lost. When as many
// rotations as files are kept fall into one second, the last one's file is deleted as well, since
// the oldest has its name. So leave room for more than a second's lines in `maxsize`.

// Rotates when the file holds `maxsize` bytes (0: never) and, if `max_time` is 1 or more, at the
// end of that Unix time's local day and of every day after it; both are looked at when a line has
// been written. `maxfiles` rotated files are kept, 1 to 127; anything else means
// D_CYCLIC_ROTATIONS. Files that an earlier process rotated are never deleted.
void log_set_rota(log_ctx* log, std::size_t maxsize, std::size_t maxfiles, time_t max_time);

// Sets the deadline of the next time-driven rotation itself, in Unix seconds; 0: none.
void log_set_eod(log_ctx* log, time_t max_time);

std::size_t log_rota_maxfiles(const log_ctx* log);
std::size_t log_rota_maxsize(const log_ctx* log);
time_t log_rota_eod(const log_ctx* log);

// Rotates now. Returns 0 if it was done, if there is nothing to rotate, or if the file could not be
// renamed and stays in use; -1 with a line on stderr otherwise. A file that could not be closed or
// opened again leaves the context without a stream.
int log_rotate(log_ctx* log);

// ---- one line ----------------------------------------------------------------------------------
//
// LOG and log_machine are what a module uses; these are the steps they are made of.

void logbuf_reset();
bool logbuf_empty();

// Builds a line in g_outbuf: time, process id, level tag, group tag and the message, which brings
// its own newline. Returns the message's length, or -1 with a line on stderr. An empty message and
// one that does not fit are failures too, but what of the line did fit can be flushed.
[[gnu::format(printf, 3, 4)]] int logbuf_prepare(log_ctx* log, int level, const char* fmt, ...);
[[gnu::format(printf, 3, 0)]] int logbuf_vprepare(log_ctx* log, int level, const char* fmt,
                                                  va_list ap);

// Writes g_outbuf, unless it is empty, to the stream and to a mirror that is another output, and
// lines of WARN_level and more severe to syslog if that is enabled; then rotates when that is due.
// In a signal handler it leaves out syslog and rotation. The ring is log_lard's.
void log_flush(log_ctx* log, int level);

// Copies g_outbuf to the ring, and raises the ring's temperature by -level for negative levels.
void log_lard(log_ctx* log, int level);

// Writes one line: to the ring if there is one, and to the stream if the levels let it pass.
[[gnu::format(printf, 4, 5), gnu::cold]] void log_emit(log_ctx* log, const loglevel_ctx& ll,
                                                       int level, const char* fmt, ...);

// Writes one line at MIN_level whatever the levels say, and never to the ring. A line that formats
// to nothing or does not fit is not written: a program that reads fields is better off without it.
[[gnu::format(printf, 2, 3), gnu::cold]] void log_machine(log_ctx* log, const char* fmt, ...);

// One message. The arguments of a line that nobody wants are not evaluated. `log` and `level` are
// evaluated twice, so they must have no side effects.
#define LOG(log, level, ...)                                                                       \
    do {                                                                                           \
        if (log_wanted((log), g_llctx, (level)))                                                   \
            log_emit((log), g_llctx, (level), __VA_ARGS__);                                        \
    } while (false)

// ---- call stack --------------------------------------------------------------------------------

// Writes the call stack, this function first, one "#%d: %s" line per frame and at most 16, into
// `buf` of `len` bytes, cut where it is full. Returns 0, or -1 without a dump.
int btrace_to_buf(char* buf, std::size_t len);

// The same behind a heading, unless `fmt` is null. Returns -1 also if the heading is empty or too
// long.
[[gnu::format(printf, 3, 4)]] int snprintf_btrace(char* buf, std::size_t len, const char* fmt, ...);
