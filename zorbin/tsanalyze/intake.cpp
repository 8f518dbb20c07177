// intake.cpp - the road of one packet, in order: where its pid belongs, its index, its tag, its
// sync byte, then what it is for the analysis (upsert_pkt_info), the packet counters and the checks
// of its stream (analyze_pkt). The road stands at the end of the file, its steps before it.
// tsan_process is called by hosts for every packet. A packet of a stream allocates nothing and
// formats nothing but what is reported and the tags of PCR packets; tables may do both. Owned here:
// the time of the last idle notice.
#include <cassert>
#include <ctime>

#include "checks.h"
#include "context.h"
#include "tables.h"
#include "timeop.h"

LOG_MODULE(0);

static constexpr int RES_OUT_OF_SYNC = -1;
static constexpr int RES_IDLE = -16;
static constexpr time_t MAX_IDLE_SEC = 10; // idle notices are more than this apart

// The steps below are part of every packet's road. The compiler alone would call them, which costs
// more than most of them do.
#define PER_PACKET [[gnu::always_inline]] static inline

// ---- what every packet meets -------------------------------------------------------------------

// (An index of the entry's own narrow type would be widened anew at each use.)
PER_PACKET program_info* program_of(tsan_ctx* tc, pid_entry entry) {
    const std::size_t ipg = entry.ipg;
    return &tc->pg[ipg];
}
PER_PACKET stream_info* stream_of(tsan_ctx* tc, pid_entry entry) {
    const std::size_t istm = entry.istm;
    return &program_of(tc, entry)->stm[istm];
}

PER_PACKET void setup_stream(tsan_ctx* tc, pid_entry entry) {
    tc->dat = {entry.ipg, entry.istm, false, false, program_of(tc, entry), stream_of(tc, entry)};
}

// Fills `dat` from the pid.
PER_PACKET void setup_dat(tsan_ctx* tc, unsigned pid) {
    const pid_entry entry = tc->pid_map[pid];
    if (entry.kind == PID_IS_STREAM) [[likely]]
        setup_stream(tc, entry);
    else if (entry.kind == PID_IS_PMT)
        tc->dat = {entry.ipg, -1, false, true, program_of(tc, entry), nullptr};
    else
        tc->dat = {-1, -1, pid == PAT_PID_NUM, false, nullptr, nullptr};
}

// Lets go of the last packet's tag. The new packet's is made when something quotes it, see
// ptag.cpp.
PER_PACKET void drop_ptag(tsan_ctx* tc) {
    tc->ptag[0] = '\0';
}

// Counts in a pair of counters, packets processed and packets analysed. They are always equal, but
// the statistics show both.
PER_PACKET void inc_pkt_stat(u64& processed, u64& analysed) {
    processed++;
    analysed++;
}

// Counts a packet of the current program's stream `si`, analysed or not: in the stream, in the
// program and in the program's kind of stream.
PER_PACKET void mark_processed(tsan_ctx* tc, stream_info* si) {
    sa_stats& stat = prog(tc)->stat;
    const char stype = si->stype;
    tc->atotal++;
    inc_pkt_stat(si->pcount, si->acount);
    inc_pkt_stat(stat.pcount, stat.acount);
    if (stype == 'V')
        inc_pkt_stat(stat.v_pcount, stat.v_acount);
    else if (stype == 'A')
        inc_pkt_stat(stat.a_pcount, stat.a_acount);
    else if (stype == 'S')
        inc_pkt_stat(stat.s_pcount, stat.s_acount);
}

// ---- what the packet is for the analysis -------------------------------------------------------

// Whether a packet of a stream carries the PCR of its program.
PER_PACKET bool pkt_has_pcr(const tsan_ctx* tc, unsigned pid, ts_packet pkt) {
    return pid == prog(tc)->pcr_pid && ts_has_pcr(pkt);
}

static void sdt_packet(tsan_ctx* tc) {
    if (tc->cfg.trk.sdt_ignore)
        LOG(&g_log, INFO_level, "[%s] disregarding SDT at %s\n", source(tc), ptag(tc));
}

static void unknown_packet(tsan_ctx* tc, unsigned pid) {
    if (tc->cfg.trk.misc_ignore)
        LOG(&g_log, INFO_level, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", source(tc), pid,
            ptag(tc));
}

// Takes from the packet what the analysis keeps: a table goes to tables, a PCR to pcr, the start of
// a PES packet to pts.
// intended: a stream on the SDT's pid is counted and its continuity checked, but its clocks are
// passed over, as everything on that pid is.
PER_PACKET void upsert_pkt_info(tsan_ctx* tc, unsigned pid, ts_packet pkt) {
    if (pid == SDT_PID_NUM) [[unlikely]] {
        sdt_packet(tc);
    } else if (tc->dat.stream) [[likely]] {
        if (pkt_has_pcr(tc, pid, pkt))
            new_pcr(tc, pkt);
        if (ts_unit_start(pkt) && ts_has_payload(pkt))
            new_pes(tc, pkt);
    } else if (tc->dat.is_pat || tc->dat.is_pmt) {
        table_packet(tc, pid, pkt);
    } else {
        unknown_packet(tc, pid);
    }
}

// ---- the checks of a stream --------------------------------------------------------------------

// The rule of continuity: the counter goes up by one and wraps.
PER_PACKET bool cc_follows(int last, int cc) {
    return cc == ((last + 1) & MAX_CC);
}

// A packet in order, of whatever pid, ends the group of losses.
PER_PACKET void end_loss_group(tsan_ctx* tc) {
    tc->last_cca.nmlr = -1;
}

// Follows the continuity counter of the current packet's stream `si`, if cfg.cc_track asks for it;
// cfg.trk.cc_track is about the trace line alone.
PER_PACKET void cc_track(tsan_ctx* tc, stream_info* si, int cc) {
    const ssize_t i = tc->dat.istm;
    assert(i >= 0 && i < (ssize_t)prog(tc)->nstreams);
    const int last = si->cc.value;
    if (last != -1) [[likely]] {
        if (cc_follows(last, cc)) [[likely]]
            end_loss_group(tc);
        else
            cc_jump(tc, si, cc);
    }
    si->cc.value = cc;
    if (tc->cfg.trk.cc_track) [[unlikely]]
        trace_cc(tc, si->pid, cc);
}

// Whether an audio stream has a time stamp that has not been held against the PCR and the video.
PER_PACKET bool audio_is_due(const tsan_ctx* tc, const stream_info* si) {
    return tc->checks_audio && si->stype == 'A' && (si->pts_updated || si->dts_updated);
}

// Runs the checks on a packet of the current program's stream `si`.
PER_PACKET void analyze_pkt(tsan_ctx* tc, ts_packet pkt, stream_info* si) {
    if (!tc->cfg.is_enabled) [[unlikely]]
        return;
    const bool has_payload = ts_has_payload(pkt);
    if (tc->cfg.cc_track && has_payload) [[likely]]
        cc_track(tc, si, ts_cc(pkt));
    if (audio_is_due(tc, si) && has_payload) [[unlikely]]
        check_audio(tc, si);
}

// ---- the road ----------------------------------------------------------------------------------

// intended: every program's first analysed packet sets this anew, the last one stays.
static void analysis_begins(tsan_ctx* tc) {
    tc->pre_skipped = tc->ptotal - 1;
    LOG(&g_log, INFO_level, "%s: %llu skipped before analysis\n", "analyze_pkt", tc->pre_skipped);
}

static int out_of_sync(tsan_ctx* tc) {
    LOG(&g_log, ERR_level, "%s: [%s] out of sync at %s\n", "tsan_process", source(tc), ptag(tc));
    return RES_OUT_OF_SYNC;
}

// Analysis has not started within max_skip_pkts packets. The notice is rare, the result is not.
static int idle(tsan_ctx* tc) {
    static time_t last_notice = 0; // shared by all contexts of the process
    const time_t now = std::time(nullptr);
    if (now - last_notice <= MAX_IDLE_SEC)
        return RES_IDLE;
    LOG(&g_log, ERR_level, "[%s] has been idling for too long (%llu/%zu packets)\n", source(tc),
        tc->last_pkt_idx, tc->cfg.max_skip_pkts);
    last_notice = now;
    return RES_IDLE;
}

// The road of every packet that is not plain.
[[gnu::noinline]] static int take_any_packet(tsan_ctx* tc, ts_packet pkt) {
    const unsigned pid = ts_pid(pkt);
    setup_dat(tc, pid);
    if (tc->start_tm.tv_sec == 0 && tc->start_tm.tv_nsec == 0) [[unlikely]]
        set_now(&tc->start_tm);
    tc->last_pkt_idx++;
    tc->ptotal++;
    drop_ptag(tc);
    if (pkt[0] != MPEG_TS_SYNC) [[unlikely]]
        return out_of_sync(tc);
    upsert_pkt_info(tc, pid, pkt);
    if (stream_info* const si = tc->dat.stream) [[likely]] {
        if (prog(tc)->stat.acount == 0) [[unlikely]]
            analysis_begins(tc);
        mark_processed(tc, si);
        analyze_pkt(tc, pkt, si);
        if (tc->ndat_pcount != 0) [[unlikely]]
            check_pcount(tc, false);
    }
    if (tc->atotal != 0 || tc->last_pkt_idx < tc->cfg.max_skip_pkts) [[likely]]
        return 0;
    return idle(tc);
}

// The short road, for most packets: payload of a stream in order, no PES start, no adaptation
// field, and no settings or pending checks that want more than counting. Takes such a packet; false
// for any other, which is left as it was. (A stream whose counter is known is one whose program's
// analysis has begun.)
PER_PACKET bool take_plain_packet(tsan_ctx* tc, ts_packet pkt) {
    const std::uint32_t header = ts_header(pkt); // first, so that it is read as one number
    const pid_entry entry = tc->pid_map[ts_pid(pkt)];
    if ((header & TS_PLAIN_MASK) != TS_PLAIN || entry.kind != PID_IS_STREAM)
        return false;
    stream_info* const si = stream_of(tc, entry);
    const int cc = ts_cc(pkt);
    if (!tc->counts_only || tc->ndat_pcount != 0 || si->cc.value < 0)
        return false;
    if (!cc_follows(si->cc.value, cc) || audio_is_due(tc, si))
        return false;
    setup_stream(tc, entry);
    tc->last_pkt_idx++;
    tc->ptotal++;
    drop_ptag(tc);
    mark_processed(tc, si);
    end_loss_group(tc);
    si->cc.value = cc;
    return true;
}

int tsan_process(tsan_t tc, const std::uint8_t* data) {
    const ts_packet pkt(data, TS_PACKET_LEN);
    return take_plain_packet(tc, pkt) ? 0 : take_any_packet(tc, pkt);
}
