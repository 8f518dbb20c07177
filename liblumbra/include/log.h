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

#ifdef NDEBUG
#error "assertions guard invariants in every build; NDEBUG must not be defined"
#endif

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <sys/types.h>

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

// Time-stamp flags (log_timefmt, mk_timestr). The two low bits choose the clock.
inline constexpr std::uint32_t TMF_REAL = 0;           // real-time clock
inline constexpr std::uint32_t TMF_MONOTONIC = 1;      // monotonic clock
inline constexpr std::uint32_t TMF_CLOCK_MASK = 3;     // 2 and 3 are refused
inline constexpr std::uint32_t TMF_SECONDS = 0x10;     // no microseconds
inline constexpr std::uint32_t TMF_NONE = 0x100;       // no time stamp, and no process id either
inline constexpr std::uint32_t TMF_GMT = 0x200;        // UTC digits; the zone name stays local
inline constexpr std::uint32_t TMF_RAW = 0x400;        // seconds and microseconds of the clock
inline constexpr std::uint32_t TMF_BAD = 0x40000000;   // a format name that cannot be parsed

// A ring of log lines that a host may supply; none is shipped.
struct lard {
    void* opaque;                                  // handed to the three calls
    void (*lard_puts)(void* opaque, const char* s); // append one line (NUL-terminated)
    void (*lard_set_temp)(void* opaque, int temp);  // raise the alarm temperature
    void (*lard_destroy)(void* opaque);             // release the ring
};
using lard_t = lard*; // owned by the host until log_close hands it to lard_destroy

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
    pid_t pid;                   // printed when 1 or more
    n64_tag group;               // printed when not 0
    lard_t lh;                   // ring of lines, null: none
    syslog_cfg syslg;
};

extern log_ctx g_log;        // human lines of every module
extern log_ctx g_access_log; // machine lines
extern log_ctx g_stats_log;  // reserved for statistics, unopened

inline bool lard_enabled(const log_ctx* log) { return log->lh != nullptr; }

// Whether a line of level `level` from module `ll` goes to the stream. Inside a section the
// section's level decides and the line's own plays no part.
inline bool log_level_passes(const loglevel_ctx& ll, int level) {
    const int tested = ll.sec >= 0 ? g_sec_ll[ll.sec] : level;
    return tested <= g_mod_ll[ll.mod];
}

inline bool log_wanted(const log_ctx* log, const loglevel_ctx& ll, int level) {
    return log_level_passes(ll, level) || lard_enabled(log);
}

// Writes one line: to the ring if there is one, and to the stream if the levels let it pass.
[[gnu::format(printf, 4, 5), gnu::cold]] void log_emit(log_ctx* log, const loglevel_ctx& ll,
                                                       int level, const char* fmt, ...);

// Writes one line at MIN_level whatever the levels say; nothing if it formats to nothing.
[[gnu::format(printf, 2, 3), gnu::cold]] void log_machine(log_ctx* log, const char* fmt, ...);

// One message. The arguments of a line that nobody wants are not evaluated.
#define LOG(log, level, ...)                                                                       \
    do {                                                                                           \
        if (log_wanted((log), g_llctx, (level)))                                                   \
            log_emit((log), g_llctx, (level), __VA_ARGS__);                                        \
    } while (false)
