// pids.cpp - where a pid belongs: the table that intake looks every packet up in. Called by the
// tables when they change; owns nothing.
#include <cstring>

#include "tables.h"

// The program slot of a PMT's pid, or -1. Of several equal pids the first counts.
static ssize_t get_pmt_pg(const tsan_ctx* tc, unsigned pid) {
    for (std::size_t i = 0; i < MAX_PMTS && tc->pmt_pid[i] != 0; i++)
        if (tc->pmt_pid[i] == pid)
            return static_cast<ssize_t>(i);
    return -1;
}

// PMT pids go before streams, and of several equal pids the first counts.
void map_pids(tsan_ctx* tc) {
    std::memset(tc->pid_map, 0, sizeof tc->pid_map);
    for (std::size_t i = 0; i < MAX_PMTS && tc->pmt_pid[i] != 0; i++) {
        const unsigned pid = tc->pmt_pid[i];
        tc->pid_map[pid % PID_COUNT] = {PID_IS_PMT, static_cast<std::uint8_t>(get_pmt_pg(tc, pid)),
                                        0};
    }
    for (std::size_t i = 0; i < tc->nprogs; i++) {
        for (std::size_t j = 0; j < tc->pg[i].nstreams; j++) {
            pid_entry& entry = tc->pid_map[tc->pg[i].stm[j].pid % PID_COUNT];
            if (!entry.kind)
                entry = {PID_IS_STREAM, static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(j)};
        }
    }
    tc->pid_map[PAT_PID_NUM] = {}; // the PAT's own, whatever a PMT lists
}
