// capture.h - a capture in memory that faults are put into, packet by packet.
//
// Items are never erased while faults are put in: what is lost is marked, so that every fault and
// its truth can name an item by its id until the capture is written.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "packet.h"
#include "section.h"

namespace inject {

// What the user has to be told: a capture that cannot be read or a fault that it has no room for.
class Refused : public std::runtime_error {
    using runtime_error::runtime_error;
};

// A request that no capture could meet.
class WrongRequest : public Refused {
    using Refused::Refused;
};

enum class StreamKind { video, audio, other };

struct Programme {
    int number = 0;
    int pmt_pid = 0;
    Pmt pmt;
};

struct Item {
    Packet bytes{};
    double time = 0; // seconds from the first packet on the stream clock of the clean capture
    std::uint32_t id = 0;
    bool gone = false;  // not written
    bool fresh = false; // was added; settle() gives it a counter
    bool taken = false; // its payload was taken out; settle() closes the counters behind it
    int taken_pid = 0;  // the pid that it had then
    Bytes before;       // written ahead of it
    Bytes raw;          // written in its place where it is no whole packet any more
};

// A section, and the items that carry it. Of several that begin in one packet only the first.
struct Unit {
    Bytes section;
    std::vector<std::size_t> items;
    bool shared = false; // other sections lie in its packets
};

class Capture {
  public:
    // Reads 188-byte packets and finds tables and clock. Throws Refused.
    explicit Capture(const std::string& path);
    void write(const std::string& path) const;

    std::vector<Item> items;
    std::vector<Programme> programmes; // by number
    Pat pat;
    int clock_pid = NULL_PID;
    bool constant = false; // constant rate: null packets fill what is taken out
    double duration = 0;   // seconds

    const Programme* programme_of(int pid) const; // by PMT, stream or PCR pid; null: none
    StreamKind kind_of(int pid) const;
    int type_of(int pid) const;          // stream_type; 0: not in a PMT
    std::vector<int> media_pids() const; // video and audio
    bool is_live(std::size_t i, int pid) const;
    std::size_t at(double seconds) const; // first item not before
    std::vector<std::size_t> of(int pid, double from = 0, double to = 1e9) const;
    std::vector<std::size_t> payloads(int pid, double from = 0, double to = 1e9) const;
    std::vector<std::size_t> pes_starts(int pid, double from = 0, double to = 1e9) const;
    std::vector<std::size_t> pcrs(int pid, double from = 0, double to = 1e9) const;
    std::vector<Unit> units(int pid) const;
    int unused_pid() const;
    std::size_t index_of(std::uint32_t id) const;
    // Seconds between the clock of a pid's programme at its item and its own stamp: what is
    // negative is late. At a variable rate against the last PCR before it.
    double margin_at(std::size_t pes_item) const;

    // Takes an item out as if it had never been sent: a null packet at a constant rate. A PCR
    // stays if it is wanted. The counters are closed by settle().
    void take_out(std::size_t i, bool keep_pcr = false);
    // Throws Refused where other sections would go with it.
    void take_out(const Unit& unit);
    // Adds packets at an item or, at a constant rate, in the next null packets from there on, at
    // the end where there are none. Indexes from `i` on become invalid. Returns the ids.
    std::vector<std::uint32_t> add(std::size_t i, const std::vector<Packet>& packets);
    // Adds a copy straight behind an item, in a slot of no plan: what a network does.
    std::uint32_t add_copy(std::size_t i, std::size_t behind);
    // Puts another section into the items of a unit, with more or fewer packets where needed. At a
    // constant rate a unit that grows and finds no null packets before the next one is left out.
    // Throws Refused where other sections lie in these packets.
    void replace(const Unit& unit, const Bytes& section);
    // Counters of a pid go on without a break over what was added and taken out.
    void settle(int pid);
    void shift_counters(int pid, std::size_t from, int by);

  private:
    static void refuse_shared(const Unit& unit);
    void survey();
    bool has_room(std::size_t i, int pid, std::size_t packets) const;
    const Stream* stream_of(int pid) const; // null: not in a PMT
    void learn_times();
    Item fresh_item(const Packet& p, double time);
    std::vector<std::size_t> index_by_id_;
};

StreamKind kind_of(const Stream& stream);

} // namespace inject
