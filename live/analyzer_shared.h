// What an analyzer's process shares with the process that feeds it: settings, the ring of
// datagrams, wishes, and what is being analysed. It is the first page of the shared memory, the
// ring's bytes stand behind it. Both are the same executable, so they agree on the layout.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <sys/types.h>

#include "live/ring.h"
#include "log.h"
#include "tsanalyze.h"

namespace quarn::live {

/// The option by which the executable becomes an analyzer's process.
inline constexpr const char* worker_option = "--analyzer";

/// Descriptors that the process gets besides the standard ones; its standard error is a pipe to the
/// feeding process.
inline constexpr int worker_memory_fd = 3;
inline constexpr int worker_bell_fd = 4; // eventfd: there is more to do than its nap allows

/// Exit statuses of the process.
inline constexpr int worker_done = 0;
inline constexpr int worker_lost_sync = 10;  // too many losses of synchronisation: it gave up
inline constexpr int worker_cannot_run = 11; // no memory, a log that cannot be opened

/// Set before the process starts, not changed while it runs.
struct WorkerSettings {
    pid_t parent;
    bool datagrams;             // false: blocks of bytes
    std::uint64_t first_packet; // packets that were before the first one that it gets
    std::size_t log_size, log_files;
    bool log_daily;
    std::uint32_t log_time;
    int syslog;
    std::array<char, MAX_STAG_LEN> tag;
    std::array<char, LOG_PATHNAME_MAX> alert_log, text_log; // empty: none
    tsan_config analyzer;
};
static_assert(std::is_trivially_copyable_v<WorkerSettings>);

struct WorkerShared {
    WorkerSettings settings;
    RingState ring;
    std::atomic<std::uint32_t> end_wanted;    // not 0: analyse what waits, then end
    std::atomic<std::uint32_t> reopen_wanted; // times that the logs were to be opened again

    // Written by the analyzer's process for each packet, read when it is gone.
    bool in_packet; // `packet` is being analysed
    std::array<std::uint8_t, 188> packet;
    std::uint64_t packet_index; // number of the last packet
    std::size_t usual_packets;  // of a datagram
};

} // namespace quarn::live
