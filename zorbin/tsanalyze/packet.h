// packet.h - the steps that every packet takes, inline: where its pid belongs, its counters, its
// continuity counter, and which of the checks it meets. Part of internal.h; tsan_process puts the
// steps in order. What is rare is called out of line.
#pragma once

#include <cassert>

// The compiler alone would call these, which costs more than most of them do.
#define PER_PACKET [[gnu::always_inline]] inline

inline constexpr int MIN_CC = 0;
inline constexpr int MAX_CC = 15; // the counter is 4 bits wide

PER_PACKET void setup_stream(tsan_ctx* tc, pid_entry entry) {
    program_info* const pg = &tc->pg[entry.ipg];
    tc->dat = {entry.ipg, entry.istm, false, false, pg, &pg->stm[entry.istm]};
}

// Fills `dat` from the pid.
PER_PACKET void setup_dat(tsan_ctx* tc, unsigned pid) {
    const pid_entry entry = tc->pid_map[pid];
    if (entry.kind == PID_IS_STREAM) [[likely]]
        setup_stream(tc, entry);
    else if (entry.kind == PID_IS_PMT)
        tc->dat = {entry.ipg, -1, false, true, &tc->pg[entry.ipg], nullptr};
    else
        tc->dat = {-1, -1, pid == PAT_PID_NUM, false, nullptr, nullptr};
}

// A new packet: nothing of its tag has been made yet.
PER_PACKET void mk_ptag(tsan_ctx* tc) {
    tc->tag_is = tag_state::stale;
}

// Counts a stream packet as processed and as analysed: a packet that is one is the other too.
PER_PACKET void count_packet(program_info* pg, stream_info* si) {
    sa_stats& stat = pg->stat;
    const char stype = si->stype;
    si->pcount++;
    si->acount++;
    stat.pcount++;
    stat.acount++;
    if (stype == 'V') {
        stat.v_pcount++;
        stat.v_acount++;
    } else if (stype == 'A') {
        stat.a_pcount++;
        stat.a_acount++;
    } else if (stype == 'S') {
        stat.s_pcount++;
        stat.s_acount++;
    }
}

// Takes the clocks that a stream packet carries: its program's PCR, its stream's time stamps.
PER_PACKET void take_clocks(tsan_ctx* tc, ts_packet pkt, unsigned pid) {
    if (pid == tc->dat.program->pcr_pid && ts_has_pcr(pkt))
        new_pcr(tc, pkt);
    if (ts_unit_start(pkt) && ts_has_payload(pkt))
        unit_start(tc, pkt);
}

// Follows the continuity counter of the current packet's stream `si`.
PER_PACKET void cc_track(tsan_ctx* tc, stream_info* si, int cc) {
    const ssize_t i = tc->dat.istm;
    assert(i >= 0 && i < (ssize_t)prog(tc)->nstreams);
    const int last = si->cc.value;
    if (last != -1) [[likely]] {
        if (cc == ((last + 1) & MAX_CC)) [[likely]]
            tc->last_cca.nmlr = -1; // a packet in order ends the group of losses
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

// Runs the checks on a packet of stream `si` of the current program.
PER_PACKET void analyze_pkt(tsan_ctx* tc, ts_packet pkt, stream_info* si) {
    if (!tc->cfg.is_enabled) [[unlikely]]
        return;
    const bool has_payload = ts_has_payload(pkt);
    if (tc->cfg.cc_track && has_payload) [[likely]]
        cc_track(tc, si, ts_cc(pkt));
    if (audio_is_due(tc, si) && has_payload) [[unlikely]]
        check_audio(tc, si);
}

// Most packets are plain: payload of a stream in order, no PES start, no adaptation field, and no
// settings or pending checks that want more than counting. Takes such a packet; false for any
// other, which is left as it was. (A stream whose counter is known is one whose program's analysis
// has begun.)
PER_PACKET bool take_plain_packet(tsan_ctx* tc, ts_packet pkt) {
    const std::uint32_t header = ts_header(pkt);
    const pid_entry entry = tc->pid_map[ts_pid(pkt)];
    if ((header & TS_PLAIN_MASK) != TS_PLAIN || entry.kind != PID_IS_STREAM)
        return false;
    program_info* const pg = &tc->pg[entry.ipg];
    stream_info* const si = &pg->stm[entry.istm];
    const int cc = ts_cc(pkt);
    if (!tc->counts_only || tc->ndat_pcount != 0 || si->cc.value < 0)
        return false;
    if (cc != ((si->cc.value + 1) & MAX_CC) || audio_is_due(tc, si))
        return false;
    setup_stream(tc, entry);
    tc->last_pkt_idx++;
    tc->ptotal++;
    tc->atotal++;
    mk_ptag(tc);
    count_packet(pg, si);
    tc->last_cca.nmlr = -1;
    si->cc.value = cc;
    return true;
}
