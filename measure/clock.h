// The stream clock: turns packet numbers into times, from the PCRs of one pid, else from arrival,
// else from a given bit rate.
//
// Points (packet, clock value) come in as packets are looked at; intervals between them go out
// about 0.6 s later, when it is known what broke in them, with their verdict: steady, a gap, a
// jump, a loss. From then on place() knows the time of every packet up to their end.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "finding.h"
#include "packet.h"
#include "programs.h"
#include "rate.h"
#include "summary.h"

namespace quarn {

/// A PCR, where it came and what happened in its program since the one before it.
struct PcrPoint {
    std::uint16_t pid = null_pid;
    At at;
    std::int64_t value = 0;  // 27 MHz, below pcr_wrap
    bool flagged = false;    // discontinuity_indicator
    Ticks arrival = no_time; // 27 MHz ticks where known
    std::optional<Ticks>
        frames;      // time of the frames that began since, of the busiest stream of its program
    Ticks frame = 0; // of one of them
};

/// What lies between two points of the stream clock.
enum class Stretch : std::uint8_t {
    steady,
    gap,     // further apart than usual, the stream went on
    lost,    // further apart than usual, packets are missing in it
    jump,    // the clock jumped, not flagged
    flagged, // the clock jumped, flagged
    moved,   // another pid's clock from here on
    bridged, // its end is no PCR but an estimate or an arrival
    anew,    // nothing is known of what was before its end
};

struct ClockInterval {
    PcrPoint from;
    PcrPoint to;
    Stretch stretch = Stretch::steady;
    Ticks distance = 0; // of the two values
    Ticks step = 0;     // jumps: how far, signed
    double error = 0;   // ticks of `distance` beyond what the packets account for at the rate
    std::uint64_t packets = 0;
    std::uint64_t added = 0; // copies among them
    bool disturbed = false;  // something broke in it
    bool swapped = false;    // a PCR at its ends changed places with other packets
    bool nulls = false;      // there is a run of null packets in it
    bool constant = false;   // the rate was constant
    Ticks begin_time = 0;    // on the stream clock
    Ticks end_time = 0;
};

class StreamClock {
  public:
    /// `live`: nothing waits for longer than it may by the host's clock.
    StreamClock(std::uint64_t bitrate, Ticks pcr_limit, bool live);

    // First look, in the order of packets.
    void pcr(const PcrPoint& point);
    void programs(const ProgramsPtr& programs, const At& at);
    /// Something broke between two packets of that pid (null_pid: of all); `packets`: the fewest
    /// that are missing.
    void disturbed(std::uint16_t pid, std::uint64_t from, std::uint64_t to, unsigned packets);
    /// Packets between these two came in another order than they were sent in.
    void out_of_order(std::uint64_t from, std::uint64_t to);
    /// Copies that a network may have added.
    void added(const At& at, unsigned packets);
    /// Nothing but null packets from one to the other.
    void nulls(std::uint64_t from, std::uint64_t to);
    /// To be called now and then (some hundred packets) with the last packet so far, its arrival,
    /// and the time of the frames of its program that began since the last PCR, where known.
    void tick(const At& at, Ticks arrival, Ticks frames);

    /// Live: the arrival clock has come so far.
    void arrived(Ticks now) { now_arrival_ = now; }
    /// Live: nothing has come for a while; the time goes on up to the last packet.
    void pause(const At& last, Ticks arrival);
    /// Nothing is known of what was before this packet; `standing`: the time stood still as well.
    void anew(const At& at, Ticks arrival, bool standing);

    /// Nothing comes behind that packet: the time goes on up to it.
    void finish(const At& last, Ticks arrival, Ticks frames);

    /// The next interval that is decided; `at_end`: nothing more comes. In order, each once.
    std::optional<ClockInterval> next(const At& last, bool at_end);

    /// The time of a packet. Known up to the end of the last interval that next() gave.
    Place place(const At& at) const;

    std::uint64_t added_between(std::uint64_t from, std::uint64_t to) const;
    bool disturbed_between(std::uint64_t from, std::uint64_t to) const;
    /// Packets in that stretch or a datagram beside it changed places.
    bool swapped_beside(std::uint64_t from, std::uint64_t to) const;
    /// Packets in that many ticks at the rate so far (a variable one: the highest of late); for
    /// looking ahead, when times are not known yet.
    std::uint64_t packets_in(Ticks ticks) const;
    /// At least that much time passed from one packet to `now`, by PCRs or by the number of
    /// packets.
    bool passed(std::uint64_t since, const At& now, Ticks time) const;
    bool has_clock() const { return source_ != ClockSummary::Source::none; }
    const Rate& rate() const { return rate_; }
    std::optional<std::uint16_t> pid() const;
    ClockSummary summary() const;
    /// From the first packet to the last, where there is a clock.
    std::optional<Ticks> duration() const;
    std::uint64_t known_to() const { return known_to_; }
    /// The last packet whose time is no estimate.
    const std::optional<At>& known_for_sure() const { return sure_; }

  private:
    struct Point {
        PcrPoint pcr;
        bool bridge = false; // no PCR: an estimate, an arrival
        bool moved = false;  // the first of another pid
        bool anew = false;   // nothing is known of what was before
        Ticks flow = 0;      // clock time to here without jumps; only differences mean something
    };
    struct Segment {
        std::uint64_t from = 0;
        std::uint64_t to = 0;
        Ticks begin = 0;
        Ticks end = 0;
        std::uint64_t torn = 0; // the packet before which time went on without packets; 0: nowhere
        double ticks_per_packet = 0;
        bool estimated = false;
    };
    struct Disturbance {
        std::uint16_t pid = null_pid;
        std::uint64_t from = 0;
        std::uint64_t to = 0;
        unsigned packets = 0; // the fewest that are missing
    };
    struct Candidate {
        std::deque<Point> points; // before the choice all of them, behind it the last one
        std::uint64_t count = 0;
        std::uint64_t since = 0; // its PCRs came without a long pause from that packet on
    };

    void choose(const At& at, bool at_end);
    std::optional<std::uint16_t> announced_choice(bool settled) const;
    std::optional<std::uint16_t> busiest_choice() const;
    void start(std::uint16_t pid);
    void add_point(const PcrPoint& pcr);
    void append(Point point);
    void replace_or_bridge(const At& at, Ticks arrival, Ticks frames);
    void bridge(const At& at, Ticks arrival, std::optional<Ticks> value_step);
    void do_without_pcrs();
    void steady_source(const At& at, Ticks arrival, Ticks least);
    void leave_arrival(std::uint16_t pid);
    std::optional<Ticks> since_last_pcr(Ticks arrival) const;
    bool ready(const At& last, bool at_end);
    bool has_waited(const PcrPoint& point, Ticks time) const;
    void begin_anew(ClockInterval& interval) const;
    ClockInterval measure(const PcrPoint& from, const PcrPoint& to) const;
    void decide(ClockInterval& interval) const;
    void decide_constant(ClockInterval& interval) const;
    void decide_variable(ClockInterval& interval) const;
    Ticks elapsed(const ClockInterval& interval) const;
    bool even() const;
    bool usual_gap(Ticks distance) const;
    void keep(ClockInterval& interval, const Point& from, const Point& to);
    bool mostly_broken(const ClockInterval& interval) const;
    bool has_hole(const ClockInterval& interval) const;
    unsigned missing_between(std::uint64_t from, std::uint64_t to) const;
    std::uint64_t torn_at(std::uint64_t from, std::uint64_t to) const;
    Ticks longest_nulls(std::uint64_t from, std::uint64_t to) const;
    void forget_before(std::uint64_t index);

    std::uint64_t bitrate_;
    Ticks pcr_limit_;
    ClockSummary::Source source_ = ClockSummary::Source::none;
    std::uint16_t pid_ = null_pid;
    bool announced_ = false; // by a PMT
    bool held_ = true;       // the first intervals wait for the rate
    bool moving_ = false;    // the next point of pid_ begins the clock of another pid
    bool afresh_ = false;    // what was before the next point of pid_ is not known
    bool live_ = false;
    Ticks now_arrival_ = no_time;
    Ticks first_arrival_ = no_time;    // of the first look
    Ticks last_pcr_arrival_ = no_time; // of the last PCR of pid_
    ProgramsPtr programs_;
    std::map<std::uint16_t, Candidate> candidates_;
    std::deque<Point> points_; // the first begins the next interval
    PcrPoint last_real_;       // the last PCR before the bridges at the front of points_
    Ticks last_real_time_ = 0;
    bool bridged_ = false; // the front of points_ is a bridge
    std::deque<Disturbance> disturbances_;
    std::deque<std::pair<std::uint64_t, std::uint64_t>> swaps_;
    std::deque<std::pair<std::uint64_t, unsigned>> added_;
    std::deque<std::pair<std::uint64_t, std::uint64_t>> nulls_;
    std::deque<std::pair<At, Ticks>>
        early_; // looks at the clock while there is none: packet, arrival
    std::deque<Segment> segments_;
    std::deque<Ticks> gaps_; // the last ones
    Rate rate_;
    Ticks now_ = 0; // the end of the last segment
    std::uint64_t known_to_ = 0;
    std::optional<At> sure_;
    Ticks bridged_time_ = 0; // of the bridges since the last PCR
    Ticks owed_ = 0;         // by PCRs that changed places, until the next that did not
};

} // namespace quarn
