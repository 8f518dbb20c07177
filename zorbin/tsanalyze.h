// tsanalyze.h - the stream analyzer's public interface.
//
// A host creates one context per transport stream (ISO/IEC 13818-1), hands it every 188-byte
// packet in order and reads alerts from the two log contexts of log.h: g_log (human lines) and
// g_access_log (machine lines). A file driver needs tsan_init, tsan_process, tsan_check_ndat,
// tsan_dump_stats and tsan_free; the other operations serve hosts that receive live streams.
//
// A context belongs to one thread at a time. Two contexts must not be used from two threads at
// once either: the log line buffer, the idle notice and the lost-sync period are process-wide.
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
    bool is_enabled;               // false: packets are classified and counted, never checked
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

struct tsan_ctx;
using tsan_t = tsan_ctx*; // handle of one analyzer context

// ---- settings --------------------------------------------------------------------------------

// Reads the analyzer's group `s` of a configuration file into `cfg`. Settings that the group does
// not name get the file's own defaults (which differ from a host's), see quarn.conf(5).
// Returns 0, or the error of the first string or size that cannot be used; the settings read
// before it keep their new values.
[[nodiscard]] int tsan_load_config(config_setting_t* s, tsan_config* cfg);

// Applies one setting of the form name=value, or "on", "enable", "off", "disable".
// An unknown name changes nothing. Returns 0, or EINVAL for a missing "=" or a negative value, or
// the errno of a failed allocation.
[[nodiscard]] int tsan_cli_opt(const char* optstr, tsan_config* cfg);

// Sets tracking switches from a list of tokens such as "pdts_u:pcr_u", or "all".
// Always returns 0.
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

// Writes the human statistics between the lines "tsan_stats BEGIN" and "tsan_stats END".
void tsan_dump_stats(FILE* out, tsan_t t);

// Releases the context. A context whose source tag is empty is taken for one released before: it
// is left alone, with a warning.
void tsan_free(tsan_t t);

// ---- live hosts ------------------------------------------------------------------------------

// Counts and reports a loss of synchronisation; the machine line is always written. Returns 0, or
// -1 from the tenth case on that falls into one counting period of 2 seconds: the host should stop.
[[nodiscard]] int tsan_alert_lostsync(tsan_t t);

// Ends an input segment (a datagram): reports losses grouped in it and opens the next one. Acts on
// the program of the last packet; without one it does nothing.
void tsan_next_seg(tsan_t t);

// Starts a new local period of the three aggregates of every program.
void tsan_reset_local_stats(tsan_t t);

// The 1-based index of the last packet; setting it makes the next packet idx + 1.
[[nodiscard]] std::uint64_t tsan_get_pidx(tsan_t t);
void tsan_set_pidx(tsan_t t, std::uint64_t idx);

// Writes the STAT lines to the access log, and before them the human statistics to `out` (may be
// null) when dump_stats_period seconds have passed since the last dump. Call it between packets.
// Returns 1 when it wrote, else 0.
int tsan_check_dump_stats(FILE* out, tsan_t t);

// Writes the STAT lines to the access log now.
void tsan_alog_stats(tsan_t t);
