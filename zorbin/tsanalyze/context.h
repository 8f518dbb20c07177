// context.h - the analyzer's context and its records, shared by the files of this folder.
//
// Every structure is valid when all of it is zero; the few other start values (-1 indexes) are set
// in tsan_init, and for streams in add_stream. The context is one block: nothing in it points into
// another context, and only `pat`, `new_pat` and the PMT texts own memory besides.
//
// What an assertion of this folder asserts is printed when a stream breaks it: its wording stays.
#pragma once

#include <ctime>
#include <sys/types.h>
#include <type_traits>

#include "log.h"
#include "misc.h"
#include "mpegts.h"
#include "tsanalyze.h"

inline constexpr std::size_t MAX_PMTS = 32;     // programs
inline constexpr std::size_t MAX_NSTREAMS = 64; // streams per program
inline constexpr std::size_t PKTIDX_LEN = 64;   // packet tag in bytes, NUL included
inline constexpr unsigned MPEG_TS_SYNC = 71;    // 0x47

// ---- counters ----------------------------------------------------------------------------------

struct gen_alert_count {
    u64 lost_sync, pat_diff, cc_mlr;
};

struct pg_alert_count {
    u64 av_delta0, av_deltaplus, pcr_delta, pcr_freq, cc_break, cc_reset, pmt_diff, pid_ndat;
};

// Packets processed (p) and analysed (a): all, video, audio, subtitles.
struct sa_stats {
    u64 pcount, acount, v_pcount, v_acount, a_pcount, a_acount, s_pcount, s_acount;
};

// ---- sections ----------------------------------------------------------------------------------

inline constexpr std::size_t MAX_SECTION = 1024;  // bytes of a PAT or PMT section, header included
inline constexpr std::size_t SECTION_WORK = 8192; // a section and all that a printer may run into

// A table's worth of sections, in the form that bitstream's psi_table_ calls take.
struct psi_block {
    std::uint8_t* sec[256]; // section n, allocated with malloc, or null
    bool is_complete;       // all sections from 0 to the last are there
};

// A section as it stands in the stream, with the bytes behind it in the packet that ended it.
struct section_view {
    ts_bytes bytes;
    ts_bytes behind;
};

enum class table_kind : std::uint8_t { pat, pmt };

// Collects a section of one pid that spans packets.
struct section_collector {
    unsigned pid;  // pid that the rest belongs to
    unsigned used; // bytes held, 0: nothing pending
    bool skipping; // pass over the rest of a refused section
    std::uint8_t bytes[MAX_SECTION];
};

// The last section of a table that changed nothing, so that its repetitions need no work.
struct seen_section {
    unsigned len;      // bytes of the section, 0: none noted
    unsigned behind;   // bytes that followed in its packet
    std::size_t count; // entries found in it
    std::uint8_t bytes[MAX_SECTION + TS_PACKET_LEN];
};

// ---- streams and programs ----------------------------------------------------------------------

struct cc_info {
    int value;       // last continuity counter, -1: none seen
    timespec ms0_tm; // monotonic time of the last unexpected 0; zero: none yet
};

struct stream_info {
    unsigned pid;
    char stype;               // 'V', 'A' or 'S'
    std::uint8_t scode;       // stream_type of the PMT
    u64 last_pts, pts_pktnum; // 90 kHz; index of the packet that carried it
    u64 last_dts, dts_pktnum;
    cc_info cc;
    bool pts_updated, dts_updated; // changed, and not checked yet
    u64 pcount, acount;            // packets processed and analysed
};

struct program_info {
    std::size_t nstreams;
    stream_info stm[MAX_NSTREAMS];
    u64 last_pcr;              // 90 kHz, 0: none
    u64 pcr_pktnum;            // index of the packet that carried it
    char pcr_ptag[PKTIDX_LEN]; // tag of that packet
    bool got_pcr;              // one was taken, be it 0
    unsigned pcr_pid;
    ssize_t pcr_idx; // index of the stream that last was listed with the PCR's pid, -1: none ever
    unsigned curr_pmt_pid;
    ctxt_spec txt_pmt;         // rendering of the PMT in use
    seen_section seen_pmt;     // PMT section whose rendering txt_pmt is
    ssize_t ref_idx;           // index of the stream that audio is held against, -1: none ever
    u64 last_seg_idx;          // input segment, "dgram:" in lines
    std::uint8_t skip_pmt_out; // calls since the PMT lines were last part of the STAT lines
    pg_alert_count alert;
    aggr_val av_pdts_delta, av_pcr_delta, av_pcr_freq; // ms
    sa_stats stat;
};

// What the current packet is; "dgram:" in lines is something else, see last_seg_idx.
struct dgram_info {
    ssize_t ipg, istm; // program and stream index, -1: none
    bool is_pat, is_pmt;
    program_info* program; // null: belongs to no program
    stream_info* stream;   // null: no stream packet
};

// The last continuity alert, for grouping losses that hit several pids alike. Kept by cc; intake
// ends the group at a packet in order.
struct cc_alert_ctx {
    u64 seg_idx;
    unsigned pid;
    int delta; // forward distance, 0 to 15
    int nmlr;  // losses grouped with it; -1: no grouping until the next segment
};

inline constexpr std::uint8_t PID_IS_PMT = 1;
inline constexpr std::uint8_t PID_IS_STREAM = 2;

// Where a pid belongs.
struct alignas(4) pid_entry {
    std::uint8_t kind; // PID_IS_..., 0: belongs to nothing
    std::uint8_t ipg, istm;
};

struct tsan_ctx {
    tsan_config cfg;
    bool counts_only;           // by the settings, nothing but counting awaits a packet in order
    bool checks_audio;          // by the settings, audio time stamps are held against something
    unsigned pmt_pid[MAX_PMTS]; // in PAT order; the first 0 ends the list
    program_info pg[MAX_PMTS];  // same order
    std::size_t nprogs;
    dgram_info dat;
    u64 ndat_pcount;          // packet count of the next no-data scan, 0: none due
    char ptag[PKTIDX_LEN];    // tag of the current packet, empty until something quotes it
    time_t last_stats_dumped; // 0: never
    cc_alert_ctx last_cca;
    u64 last_pkt_idx;   // 1-based
    psi_block pat;      // first complete PAT
    psi_block* new_pat; // later PAT under compilation, owned; null between compilations
    u64 pre_skipped;    // packets before the first analysed one
    gen_alert_count gac;
    timespec start_tm;  // monotonic time of the first packet; zero: none yet
    u64 ptotal, atotal; // packets handed in, packets analysed
    seen_section seen_pat;
    section_collector pat_sections;
    section_collector pmt_sections[MAX_PMTS];
    pid_entry pid_map[PID_COUNT]; // follows pmt_pid and the stream tables, see map_pids
    std::uint8_t work[SECTION_WORK];
};
static_assert(std::is_trivially_copyable_v<tsan_ctx>);
static_assert(std::is_trivially_default_constructible_v<tsan_ctx>);

// The program of the current packet, null: it belongs to none.
inline program_info* prog(tsan_ctx* tc) {
    return tc->dat.program;
}
inline const program_info* prog(const tsan_ctx* tc) {
    return tc->dat.program;
}

// The source tag that lines quote.
inline const char* source(const tsan_ctx* tc) {
    return tc->cfg.source;
}

enum class stamp : bool { dts, pts };

inline const char* stamp_name(stamp which) {
    return which == stamp::pts ? "pts" : "dts";
}
inline u64 last_stamp(const stream_info* si, stamp which) {
    return which == stamp::pts ? si->last_pts : si->last_dts;
}

// ptag.cpp: the tag of the current packet, "" before the first one. The text is the context's and
// holds until the next packet.
const char* ptag(tsan_ctx* tc);
