// multiplex.h - transport streams from words, and faults in them.
//
// A stream, words in any order but for streams, which belong to the program before them:
//   cbr=R | vbr       R packets a second, filled up with null packets; or no null packet at all and
//                     pictures of many sizes
//   ms=T              how long
//   start=MS          what the clock shows at the beginning
//   pN=PMT/PCR/MS     program N, the pids of its PMT and PCRs, from one PCR to the next
//   v=PID/N           H.264, 25 pictures a second of N packets each
//   a=PID             MPEG audio, three frames a PES packet, ten packets
//   t=PID/MS          teletext, a packet now and then
//   no=PID            video that the PMT names and that never comes
// Faults, done one behind the other. PID is that of packets with payload; "*": any packet,
// "all256": with or without payload, "pcr256": those with a PCR. MS: from the first such packet at
// that time in the clean stream on.
//   drop PID MS [N]   N of them are gone         cut MS N BYTES   so are N of all; step is lost
//   again PID MS N    N copies of it             resend MS N      N packets of all once more
//   swap PID MS       it and the next change     swap7 MS         two blocks of seven packets do
//   count PID MS D [N]   the counters are D more freeze PID MS N  N of them have one counter
//   mark PID MS N     their last byte counts up  hide PID MS TO    as stop, but the counters go on
//   flag PID MS       discontinuity_indicator    flagged PID MS   the same, in a packet of its own
//   jump PID MS D     PCRs are D ms more         nudge PID MS D   one PCR is D ticks more
//   shift PID MS D    stamps are D ms more       stop PID MS TO   null packets, or nothing, instead
//   tei PID MS N, wrong PID MS N, scramble PID MS TO   N of them: error bit, sync byte; to a time
//   zero MS N         N of all are zeros
//   away MS TO        nothing comes           own PID MS N    N of them are dropped by the host
//   datagram MS KIND N   the input tells of N datagrams (loss, order, duplicate); lost ones are
//   gone quiet MS          the host waits so long behind the last packet end MS, tail BYTES, arrive
//   US, then STREAM   the end; times of arrival; a capture behind it
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "measure/stream.h"
#include "ts_builder.h"

namespace quarn {

struct Sent {
    ts::packet bytes{};
    double ms = 0; // when, in the clean stream
    bool right = true;
    std::optional<SyncLoss> loss; // in front of it
    std::optional<DatagramEvent> datagrams;
    bool own_drops = false; // the same
};

class Multiplex {
  public:
    explicit Multiplex(const std::string& stream) { append(stream); }
    /// Throws where the words say nothing that can be done.
    void fault(const std::string& words);
    /// Feeds all of it: pieces of so many packets; 0: packet by packet.
    void feed(Stream& stream, std::size_t piece) const;
    /// The same as it comes to a live host: at the times of the clean stream, with a tick every so
    /// many ms. `told` is called with the arrival clock (ms) before each call.
    void play(Stream& stream, double tick, const std::function<void(double)>& told) const;

  private:
    struct Source;
    void append(const std::string& stream);
    std::size_t find(const std::string& pid, double ms, std::size_t from = 0) const;
    void recount(unsigned pid, std::size_t from, int by, std::size_t most = SIZE_MAX);

    std::vector<Sent> sent_;
    bool constant_ = false;
    double arrivals_us_ = 0;
    double quiet_ = 0;
    std::int64_t tail_ = 0;
};

} // namespace quarn
