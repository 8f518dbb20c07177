// What a live input hands over: packets in step, as every input does, and what a host must know
// besides.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "input_state.h"
#include "sink.h"

namespace quarn::inputs {

/// A moment on both clocks. `ticks` has the origin of PacketInfo::arrival: CLOCK_MONOTONIC in 27
/// MHz ticks, the same for all live inputs of a machine; it is not moved by steps of the wall
/// clock.
struct Arrival {
    Ticks ticks = no_time;
    std::int64_t utc_us = no_time; // microseconds since 1970-01-01 UTC, as the wall clock had it
};

/// Gets one live input. All calls come from the one thread that owns the input, one at a time; they
/// must neither wait nor throw, since other inputs share the thread. Bytes are only valid during a
/// call. Arrivals in packet() and tick() together never run backwards.
///
/// Packets come by packet() alone, never by packets(), with their arrival and at byte 188 *
/// (packets before it). Files have the time at which a packet was due as its arrival.
class Consumer : public Sink {
  public:
    /// Every datagram as it came, RTP header included; every message of SRT; up to seven packets of
    /// 188 bytes of a file or pipe. Told before its packets, which RTP may hold back.
    virtual void raw(std::span<const std::uint8_t> datagram, const Arrival& when) = 0;
    /// So many more datagrams were dropped by this machine, in front of what comes next: a full
    /// receive buffer, or what SRT gave up. 0: they were counted before, but are missing here.
    virtual void own_drops(std::uint64_t datagrams) = 0;
    /// Told whenever it changes, and first of all. `text` is for people: why, how long it was away;
    /// without secrets, one line.
    virtual void state(InputState state, std::string_view text) = 0;
    /// At least every 250 ms, also when nothing comes. What comes later is not older than `now`.
    virtual void tick(const Arrival& now) = 0;
    /// A file without loop or standard input is over: nothing comes any more, not even ticks.
    virtual void ended() = 0;
    /// What comes next is not the continuation of what came: a file that is played again from its
    /// start. Counters, clocks and tables may jump without any fault.
    virtual void restarted() { own_drops(0); }
};

} // namespace quarn::inputs
