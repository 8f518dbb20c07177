// tsanalyze.h - the stream analyzer's public interface.
//
// A host creates one context per transport stream (ISO/IEC 13818-1) and hands it every 188-byte
// packet in order. Alerts go to the two log contexts of log.h: g_log (lines for people) and
// g_access_log (lines for machines). To analyse a file, tsan_init, tsan_process, tsan_check_ndat,
// tsan_dump_stats and tsan_free will do; the other operations serve hosts of live streams.
//
// All contexts of a process must be used from one thread at a time: they share the log's line
// buffer, the time of the last idle notice and the lost-sync period.
//
// Four kinds of table end the process: an assertion prints its expression and calls abort.
//   - a first PAT without programs
//   - a first PAT in which a program has PMT pid 0
//   - a PAT that differs from the first one, if only in its version, and leaves 32 programs or more
//   - a PMT with PCR pid 0, when it is the program's first or differs from the one before
// This holds in hosts that define NDEBUG too: the library is compiled without it. A host that must
// outlive such tables runs the analyzer in a process of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct config_setting_t; // of libconfig

inline constexpr std::size_t MAX_STAG_LEN = 64; // source tag in bytes, terminating NUL included

// What is traced in the application log beyond alerts. All false: nothing.
struct tracking_opt {
    bool sdt_ignore;  // a line for every SDT packet that is passed over
    bool misc_ignore; // a line for every packet of a pid that belongs to no program
    bool pdts_update; // a line for every new PTS and DTS
    bool pat_pmt_pkt; // lines for every PAT and PMT packet
    bool pcr_update;  // a line for every new PCR
    bool cc_track;    // a line for every continuity counter; not the check itself
    bool pmt_diff;    // PMT texts with PMT-DIFF alerts, a line for every PMT comparison
    bool pat_diff;    // PAT texts with PAT-DIFF alerts
};

// The analyzer's settings. tsan_init copies them; later changes do not reach the context.
struct tsan_config {
    bool is_enabled;               // false: neither counters nor audio PTS/DTS are checked
    char source[MAX_STAG_LEN];     // source tag quoted in alerts; must not be empty
    std::size_t max_skip_pkts;     // packets that may pass before analysis must have begun
    std::size_t max_pdts_delta;    // ms audio PTS/DTS may lie from the video's; 0: no check
    std::size_t max_pcr_delta;     // ms audio PTS/DTS may lie from the PCR; 0: no check
    std::size_t pcr_freq_ms;       // ms that may lie between two PCRs; 0: no check
    bool access_log_alerts;        // alerts are written to the access log too
    std::size_t dump_stats_period; // seconds between periodic statistics; 0: none
    std::size_t max_ndat_pcount;   // packets after which a silent stream is reported; 0: never
    bool cc_track;                 // continuity counters are checked
    long cc_max_ms0_ms;            // ms after which a jump to 0 is a reset; 0: never a reset
    tracking_opt trk;
    bool no_rlog; // alerts are not written to the application log
};

// What a host starts from: continuity is checked, everything else off, and no source tag yet.
inline constexpr tsan_config TSAN_DEFAULTS = [] {
    tsan_config cfg{};
    cfg.is_enabled = true;
    cfg.max_skip_pkts = 5000;
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 30;
    return cfg;
}();

struct tsan_ctx;
using tsan_t = tsan_ctx*; // handle of one analyzer context

// ---- settings --------------------------------------------------------------------------------

// Reads the analyzer's group `s` of a configuration file into `cfg`. Settings that the group does
// not name get the defaults of configuration files, see quarn.conf(5).
// Returns 0, or the error of the first string or size that cannot be used; the settings read
// before it keep their new values.
[[nodiscard]] int tsan_load_config(config_setting_t* s, tsan_config* cfg);

// Applies one setting of the form name=value, or "on", "enable", "off", "disable".
// An unknown name changes nothing. Returns 0, or EINVAL for a missing "=" or a negative value, or
// the errno of a failed allocation.
[[nodiscard]] int tsan_cli_opt(const char* optstr, tsan_config* cfg);

// Sets tracking switches from a list of tokens such as "pdts_u:pcr_u", or "all". The five that
// "all" turns on are turned off first. Always returns 0.
int tsan_xtrack_opt(const char* optstr, tsan_config* cfg);

// Writes the settings as text, headed by `title`.
void tsan_dump_config(FILE* fp, const char* title, const tsan_config* cfg);

// ---- one stream ------------------------------------------------------------------------------

// Creates a context with a copy of `cfg`. A non-null `source` replaces the source tag (cut to 63
// characters). Returns the handle, owned by the caller until tsan_free; or null with *err = ENOMEM
// (`err` may be null and is not written on success).
[[nodiscard]] tsan_t tsan_init(const char* source, const tsan_config* cfg, int* err);

// Analyses one packet of 188 bytes, which is only read, and only during the call.
// Returns 0 to go on; -1 when the first byte is not 0x47; -16 when no stream packet of a known
// program came within max_skip_pkts packets.
[[nodiscard]] int tsan_process(tsan_t t, const std::uint8_t* pkt);

// Reports every stream that has received no packet at all; for the end of a run.
void tsan_check_ndat(tsan_t t);

// Writes the statistics for people between the lines "tsan_stats BEGIN" and "tsan_stats END". `out`
// must not be null.
void tsan_dump_stats(FILE* out, tsan_t t);

// Releases the context. Free it once, and do not touch it afterwards: its memory is gone. It is
// cleared before it goes. An empty source tag is therefore the mark of a context released before,
// and tsan_free leaves one that has it alone, with a warning. So a context that was created with
// an empty tag is never released.
void tsan_free(tsan_t t);

// ---- live hosts ------------------------------------------------------------------------------

// Counts and reports a loss of synchronisation; the line for machines is always written.
// Cases are counted over a period that a case more than 2 seconds after its start begins anew. All
// contexts share period and count. The tenth case of a period returns -1, else the result is 0: the
// host should stop. From then on the period stays, and every further case in this process, of any
// context, returns -1.
[[nodiscard]] int tsan_alert_lostsync(tsan_t t);

// Ends an input segment (a datagram): reports losses grouped in it and opens the next one. Acts on
// the program of the last packet; without one it does nothing.
void tsan_next_seg(tsan_t t);

// Starts a new local period of the three aggregates of every program.
void tsan_reset_local_stats(tsan_t t);

// The 1-based index of the last packet; setting it makes the next packet idx + 1.
[[nodiscard]] std::uint64_t tsan_get_pidx(tsan_t t);
void tsan_set_pidx(tsan_t t, std::uint64_t idx);

// Writes statistics when dump_stats_period seconds have passed since the last dump: those for
// people to `out`, then the STAT lines to the access log. Call it between packets. The first call
// only starts the period. Returns 1 when it wrote, else 0.
// With a null `out` only the STAT lines are written, and the period does not start anew: once it is
// over, every call writes them and returns 1.
int tsan_check_dump_stats(FILE* out, tsan_t t);

// Writes the STAT lines to the access log now.
void tsan_alog_stats(tsan_t t);
