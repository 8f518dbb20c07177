// Continuity counters (ISO/IEC 13818-1, 2.4.3.3): tells copies, wrong order, frozen counters and
// breaks apart, looking a few packets of the pid ahead. How many packets a break lost is decided
// elsewhere.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "packet.h"

namespace quarn {

/// A counter that does not go on, and no copy, order or flag explains it.
struct CounterBreak {
    std::uint16_t pid = 0;
    At before; // the last packet with payload before it
    At at;     // the first one behind it
    unsigned expected = 0;
    unsigned got = 0;
    bool unit_start = false; // of the packet behind it

    unsigned distance() const { return (got - expected) & 15; }
};

/// Packets of a pid that came in another order than they were sent in.
struct OrderFault {
    std::uint16_t pid = 0;
    At begin;             // the first packet that came too early
    At end;               // the last one that came too late
    unsigned packets = 0; // how many lie between, both included
};

/// Packets of a pid that came once more than is lawful.
struct CopyFault {
    std::uint16_t pid = 0;
    At at;
    At end;
    unsigned packets = 0;
};

/// Packets with payload and different bytes that all have the same counter.
struct FrozenRun {
    std::uint16_t pid = 0;
    At begin; // the second of them
    At end;
    unsigned packets = 0; // from begin to end
    unsigned counter = 0;
};

/// Takes what Continuity decides.
class ContinuitySink {
  public:
    virtual ~ContinuitySink() = default;
    virtual void counter_break(const CounterBreak& fault) = 0;
    virtual void order(const OrderFault& fault) = 0;
    virtual void copies(const CopyFault& fault) = 0;
    virtual void frozen(const FrozenRun& run) = 0;
    /// Packets of that pid are the same again and again: it carries tables.
    virtual bool repeats(std::uint16_t pid) const = 0;
    /// Packets that the network may have added, lawful or not: they need no slot of a constant
    /// rate.
    virtual void added(const At& at, unsigned packets) = 0;
};

/// A fingerprint of all bytes of a packet but those of its PCR, which may differ in copies.
inline std::uint64_t fingerprint(const Packet& packet) {
    // Everything behind byte 12 in two sums of vectors, the second of which knows their order: much
    // of the time that a packet takes is spent here.
    using Lanes = std::uint64_t __attribute__((vector_size(16)));
    static_assert((packet_size - 12) % sizeof(Lanes) == 0);
    const std::uint8_t* p = packet.data();
    Lanes plain{};
    Lanes ordered{};
#pragma GCC unroll 11
    for (std::size_t at = 12; at < packet_size; at += sizeof(Lanes)) {
        Lanes part;
        std::memcpy(&part, p + at, sizeof part);
        plain += part;
        ordered += plain;
    }
    std::uint8_t front[8];
    std::memcpy(front, p + 4, sizeof front);
    if (packet.has_pcr()) // bytes 6 to 11
        std::memset(front + 2, 0, 6);
    std::uint64_t hash = 0;
    std::memcpy(&hash, front, sizeof hash);
    std::uint32_t header = 0;
    std::memcpy(&header, p, sizeof header);
    const auto add = [&hash](std::uint64_t lane) {
        hash = std::rotl(hash * 0x9E3779B97F4A7C15u, 27) + lane;
    };
    add(header);
    add(plain[0]);
    add(plain[1]);
    add(ordered[0]);
    add(ordered[1]);
    return hash;
}

/// The counter of one pid.
class PidCounter {
  public:
    /// What the packet is to those that read its payload.
    enum class Step : std::uint8_t {
        next,     // goes on where the last one ended
        broken,   // new data, but not what should have come
        copy,     // the packet before it once more
        doubtful, // its header may be damaged and its counter does not fit: leave it out
    };

    /// Whether a packet with that counter and without flags is simply the next one.
    bool is_next(unsigned counter) const {
        return counter == next_ && !held_ && !frozen_ && !flagged_;
    }
    /// That packet. Only where is_next().
    void go_on(const Packet& packet, const At& at) {
        accept(packet.counter(), fingerprint(packet), at);
    }
    /// The counter of a packet with payload. `trusted` is false where the sync byte was wrong or
    /// transport_error_indicator is set: then it counts only if it fits.
    Step payload(std::uint16_t pid, const Packet& packet, const At& at, bool trusted,
                 ContinuitySink& sink) {
        const unsigned counter = packet.counter();
        const std::uint64_t print = fingerprint(packet);
        if (is_next(counter) && !packet.discontinuity()) {
            accept(counter, print, at);
            return Step::next;
        }
        return other(pid, packet, counter, print, at, trusted, sink);
    }
    /// A packet with transport_error_indicator: its counter counts only if it fits.
    void damaged(unsigned counter, const At& at) {
        if (!held_ && !frozen_ && counter == next_)
            accept(counter, 0, at);
    }
    /// The pid's packets so far may jump lawfully: discontinuity_indicator in a packet without
    /// payload.
    void flag() { flagged_ = true; }

    /// Decides what is held, for it is old enough or nothing comes behind it.
    void settle(std::uint16_t pid, bool at_end, ContinuitySink& sink);
    bool holds() const { return held_ != nullptr; }
    /// All that is held has the counter of the packet before: it may be frozen.
    bool stands() const { return held_ && same_counter(held_->packets) == held_->packets.size(); }
    /// The run of packets with one counter that goes on, if one does.
    const FrozenRun* frozen() const { return frozen_ ? &frozen_run_ : nullptr; }
    /// The first packet that is held. Only while holds().
    const At& held_since() const;
    /// The next packet sets the counter without judgement.
    void forget(std::uint16_t pid, ContinuitySink& sink);

    std::uint64_t lawful_copies() const { return lawful_copies_; }
    std::uint64_t flagged_jumps() const { return flagged_jumps_; }
    bool started() const { return next_ <= 15; }
    const At& last() const { return at_; }

  private:
    static constexpr std::size_t history = 32;
    static constexpr std::size_t look_ahead = 12;   // packets of the pid
    static constexpr std::size_t datagrams = 4 * 7; // packets of the input
    struct Waiting {
        At at;
        std::uint64_t print = 0;
        unsigned counter = 0;
        bool unit_start = false;
    };
    struct Past {
        std::uint64_t print = 0;
        std::uint64_t index = 0;
    };
    struct Held {
        std::vector<Waiting> packets;
    };

    void accept(unsigned counter, std::uint64_t print, const At& at) {
        next_ = static_cast<std::uint8_t>((counter + 1) & 15);
        copies_ = 0;
        past_[count_++ % history] = {print, at.index};
        at_ = at;
    }
    std::uint64_t print_back(std::size_t k) const { return past_[(count_ - k) % history].print; }
    std::uint64_t index_back(std::size_t k) const { return past_[(count_ - k) % history].index; }
    Step other(std::uint16_t pid, const Packet& packet, unsigned counter, std::uint64_t print,
               const At& at, bool trusted, ContinuitySink& sink);
    Step hold(std::uint16_t pid, const Waiting& packet, ContinuitySink& sink);
    Step thaw(const Waiting& packet, ContinuitySink& sink);
    bool take_copy(std::uint16_t pid, const Waiting& packet, ContinuitySink& sink);
    std::size_t decide(std::uint16_t pid, const std::vector<Waiting>& packets, bool at_end,
                       ContinuitySink& sink);
    std::size_t second_copies(const std::vector<Waiting>& packets, bool at_end,
                              std::uint64_t within) const;
    std::size_t wrong_order(const std::vector<Waiting>& packets, bool at_end) const;
    std::size_t swapped_datagrams(const std::vector<Waiting>& packets) const;
    std::size_t same_counter(const std::vector<Waiting>& packets) const;

    std::uint8_t next_ = 0xFF; // counter expected; 0xFF: none yet
    std::uint8_t copies_ = 0;  // of the last packet, up to 255
    bool flagged_ = false;     // a discontinuity_indicator since the last packet with payload
    bool frozen_ = false;
    std::uint32_t count_ = 0;
    std::unique_ptr<Held> held_;
    At at_;
    std::array<Past, history> past_{}; // packet k at k % history
    FrozenRun frozen_run_;
    std::uint64_t lawful_copies_ = 0;
    std::uint64_t flagged_jumps_ = 0;
};

} // namespace quarn
