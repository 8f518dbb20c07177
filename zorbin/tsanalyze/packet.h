// packet.h - the steps that every packet takes, inline: where its pid belongs, its counters, its
// continuity counter, and which of the checks it meets. Part of internal.h; tsan_process puts the
// steps in order. What is rare is called out of line.
#pragma once

#include <cassert>

// The compiler alone would call these, which costs more than most of them do.
#define PER_PACKET [[gnu::always_inline]] inline

inline constexpr int MIN_CC = 0;
inline constexpr int MAX_CC = 15; // the counter is 4 bits wide

// Fills `dat` from the pid.
PER_PACKET void setup_dat(tsan_ctx* tc, unsigned pid) {
    dgram_info& dat = tc->dat;
    const pid_entry entry = tc->pid_map[pid];
    dat.is_pat = pid == PAT_PID_NUM;
    dat.is_pmt = entry.kind == PID_IS_PMT;
    if (entry.kind == PID_IS_STREAM) [[likely]] {
        dat.ipg = entry.ipg;
        dat.istm = entry.istm;
        dat.program = &tc->pg[entry.ipg];
        dat.stream = &dat.program->stm[entry.istm];
    } else {
        dat.ipg = dat.is_pmt ? ssize_t{entry.ipg} : -1;
        dat.istm = -1;
        dat.program = dat.is_pmt ? &tc->pg[entry.ipg] : nullptr;
        dat.stream = nullptr;
    }
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

// Runs the checks on a packet of stream `si` of the current program.
PER_PACKET void analyze_pkt(tsan_ctx* tc, ts_packet pkt, stream_info* si) {
    if (!tc->cfg.is_enabled) [[unlikely]]
        return;
    const bool has_payload = ts_has_payload(pkt);
    if (tc->cfg.cc_track && has_payload) [[likely]]
        cc_track(tc, si, ts_cc(pkt));
    if (si->stype == 'A' && (si->pts_updated || si->dts_updated) && has_payload) [[unlikely]]
        check_audio(tc, si);
}
