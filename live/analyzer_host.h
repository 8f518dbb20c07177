// Feeds the analyzer as a host of live streams does: every datagram is a segment, a lost sync byte
// is reported and the next packet looked for, and what was dropped on the way here is told.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

#include "inputs/rtp.h"
#include "live/analyzer_shared.h"

namespace quarn::live {

class AnalyzerHost : private inputs::RtpOrder::Target {
  public:
    /// Notes in `shared` what is being analysed. Throws std::bad_alloc.
    explicit AnalyzerHost(WorkerShared& shared);
    ~AnalyzerHost() override;
    AnalyzerHost(const AnalyzerHost&) = delete;
    AnalyzerHost& operator=(const AnalyzerHost&) = delete;

    /// The next datagram as it came, `now` in 27 MHz ticks. Those of RTP are put in order first,
    /// what else comes on their port is passed over. False: the analyzer has lost synchronisation
    /// too often to go on.
    bool datagram(const DatagramHead& head, std::span<const std::uint8_t> bytes, std::int64_t now);
    /// Analyses what waits for an RTP datagram that does not come.
    bool expire(std::int64_t now);
    /// Writes statistics when they are due; those for people to `text`. To be called at least once
    /// a second. True: they were written.
    bool statistics(std::FILE* text);
    /// Nothing comes any more: looks for silent streams, writes the last statistics.
    void end(std::FILE* text);

  private:
    void in_order(const inputs::Payload& payload) override;
    void event(inputs::DatagramEvent::Kind, std::int64_t) override {}

    void not_here(std::uint32_t datagrams);
    void datagram_of_any_kind(std::span<const std::uint8_t> bytes, std::int64_t now);
    void segment(std::span<const std::uint8_t> bytes);
    std::size_t finish_cut_packet(std::span<const std::uint8_t> bytes);
    void walk(std::span<const std::uint8_t> bytes);
    bool take(const std::uint8_t* packet);

    WorkerShared& shared_;
    tsan_t analyzer_;
    inputs::RtpOrder order_;
    bool rtp_ = false;
    std::uint8_t payload_type_ = 0;
    std::size_t size_ = 188;        // of a packet: 188, 192, 204
    std::vector<std::uint8_t> cut_; // the first bytes of a packet that the next block goes on with
    std::uint64_t stray_bytes_ = 0; // bytes in no packet since the last statistics
    bool gave_up_ = false;
};

} // namespace quarn::live
