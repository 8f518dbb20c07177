// The one class that a host of the library needs: feed packets, get findings, ask for the summary.
//
//     struct Print : quarn::Sink {
//         void finding(const quarn::Finding& f) override {
//             std::cout << quarn::info(f.rule).id << " at packet " << f.begin.packet << '\n';
//         }
//     } sink;
//     quarn::Stream stream({}, sink);
//     stream.packets(bytes, count, 188, 0);
//     stream.end();
//     bool good = stream.summary().verdict == quarn::Verdict::healthy;
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "counters.h"
#include "finding.h"
#include "observed.h"
#include "options.h"
#include "summary.h"
#include "time_series.h"

namespace quarn {

/// Where and when a single packet came in.
struct PacketInfo {
    std::uint64_t byte = 0;        // offset of its sync byte in the input
    Ticks arrival = no_time;       // 27 MHz ticks from any origin, never running backwards
    std::int64_t utc_us = no_time; // microseconds since 1970-01-01 UTC
    bool sync_right = true;        // false: the first byte is not 0x47 but the packet is in step
};

/// Packets out of step, told of before the first packet behind them.
struct SyncLoss {
    Kind kind = Kind::missing;    // missing, inserted, garbled
    std::uint64_t begin_byte = 0; // first wrong sync byte
    std::uint64_t end_byte = 0;   // first sync byte in step again
    std::int64_t bytes = 0;       // missing or inserted, modulo the packet size; 0 for garbled
};

/// What datagrams around the packets tell (RTP sequence numbers).
struct DatagramEvent {
    Kind kind = Kind::loss; // loss, order, duplicate
    std::int64_t datagrams = 0;
    std::int64_t packets = 0; // as many as a datagram usually has, times datagrams
};

/// Measures one transport stream. No globals: any number of streams in any number of threads, one
/// thread a stream at a time. Memory is bounded whatever the input. Findings go to the sink as they
/// are decided, about a second of stream time behind the packets; the sink must outlive the stream.
///
/// With Options::live a host also calls tick(), at least four times a second. Then what is decided
/// by a packet or a moment is handed over within two seconds of arrival, intervals are raised and
/// cleared, and an input from which nothing comes for silence_limit() is told of (q.9).
class Stream {
  public:
    Stream(const Options& options, Sink& sink);
    ~Stream();
    Stream(Stream&&) noexcept;
    Stream& operator=(Stream&&) noexcept;

    /// `count` packets of 188 bytes in step, all with the right sync byte, the next one `stride`
    /// bytes behind the first; `byte` is the offset of the first in the input.
    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte);
    /// One packet of 188 bytes.
    void packet(const std::uint8_t* packet, const PacketInfo& info);
    void sync_loss(const SyncLoss& loss);
    void datagrams(const DatagramEvent& event);
    /// The input ends inside a packet, of which `bytes` bytes are there from offset `byte` on.
    void truncated(std::uint64_t byte, std::int64_t bytes);
    /// Live: the arrival clock stands at `now` (27 MHz ticks of the same origin as
    /// PacketInfo::arrival, never running backwards; packets without an arrival came now), UTC at
    /// `utc_us` (microseconds since 1970-01-01, or no_time).
    void tick(Ticks now, std::int64_t utc_us);
    /// The host has dropped packets before the next one: what breaks there is no fault of the
    /// stream. Counters, sections, stamps and clocks begin anew, and nothing is found or counted.
    void own_drops();
    /// The input is over: decides what is pending. Nothing may be fed behind it.
    void end();
    /// What was found so far; complete behind end(). Takes some microseconds a program.
    Summary summary() const;
    /// With Options::series and behind end(): hands over what was recorded, once.
    TimeSeries series();
    /// With Options::observe: what expectation_of() needs beside the summary.
    Observed observed() const;
    Counters counters() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn
