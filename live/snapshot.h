// What is known of an input at one moment: what metrics, the API and the status page are made of.
// A value: it is filled in the thread that owns the input and read in any other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "live/input_state.h"
#include "measure/counters.h"
#include "measure/summary.h"

namespace quarn::live {

/// A finding that is open, or was decided within the last minute.
struct CurrentFinding {
    std::string record; // the record of the output, one JSON object (with or without line break)
    bool open = false;  // raised and not cleared
};

/// The analyzer beside an input.
struct AnalyzerState {
    bool on = false;            // alert_lines
    bool running = false;       // false while it waits to be started again
    std::uint64_t restarts = 0; // ends by an invariant (q.12)
    std::uint64_t dropped = 0;  // datagrams that it was too slow for
};

struct Snapshot {
    std::string name; // as configured: any bytes; else the URL without secrets
    std::string url;  // without secrets
    InputState state = InputState::waiting;
    std::string state_text; // for people: what it waits for, how long it is away
    bool up = false;        // a packet came in the last 2 s

    // Counters from the start of the process; packets and bytes are those that were measured.
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t datagrams = 0;    // all that came
    std::uint64_t own_drops = 0;    // datagrams that this machine dropped
    std::uint64_t rtp_lost = 0;     // datagrams, by sequence number
    std::uint64_t lost_packets = 0; // by continuity counter, without those of own drops
    double last_packet_utc_s = 0;   // seconds since 1970-01-01 UTC; 0: none yet

    FindingCounts findings; // events, whether or not a record was written
    FindingCounts open;
    std::vector<CurrentFinding> current; // newest first, at most 50

    PcrIntervals pcr_intervals;
    /// Program number and seconds, positive when sound is late; the first 32 programs.
    std::vector<std::pair<unsigned, double>> av_offset_s;
    std::vector<float> bitrate_bps; // one value a second, oldest first, at most 300
    Summary summary;
    AnalyzerState analyzer;
};

/// What concerns the whole process.
struct ProcessFigures {
    std::uint64_t commands_dropped = 0; // of --exec: too many were waiting
    std::uint64_t records_dropped = 0;  // of findings: the output was too slow
    std::uint64_t commands_failed = 0;  // of --exec: another status than 0, or ended
    std::uint64_t cuts_failed = 0;      // packets around findings: the disk was full or too slow
};

} // namespace quarn::live
