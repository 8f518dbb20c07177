// The first look at every packet: counters, sections, PES headers, PCRs. What the rules need to
// know goes into a queue, in the order of packets, until the clock knows the time.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "clock.h"
#include "continuity.h"
#include "events.h"
#include "pes.h"
#include "recorder.h"
#include "stream.h"
#include "tables.h"

namespace quarn {

/// Packets of some pids since the last look at the clock.
struct SpansItem {
    struct Span {
        std::uint16_t pid = 0;
        At first;
        At last;
        std::uint32_t packets =
            0; // that keep a stream alive: with payload, any on a pid that has only those
        std::uint32_t scrambled = 0;
    };
    std::vector<Span> spans;
};
/// A PCR that can be trusted.
struct PcrItem {
    PcrPoint point;
};
/// Only null packets from `from` on; the item's packet is the first other one (the last one where
/// open).
struct NullsItem {
    At from;
    bool open = false;
    bool going_on = false; // live: there may be more
};
/// Live: a run of packets with one counter goes on.
struct FrozenItem {
    FrozenRun run;
};
/// Nothing is known of what was between that packet and the item's: the host has dropped it, or
/// nothing came for a while.
struct AnewItem {
    At before;
};
/// A counter broke: packets may be missing between that one and the item's.
struct BrokenItem {
    std::uint16_t pid = null_pid;
    At before;
};
/// A packet with transport_error_indicator.
struct DamagedItem {
    std::uint16_t pid = 0;
};
/// The sync byte alone is wrong.
struct SyncByteItem {
    std::uint16_t pid = 0;
    bool garbled = false; // one of several, told as such
};
struct SyncLossItem {
    SyncLoss loss;
    At begin;
    At before; // the last packet that was in step
};
struct TruncatedItem {
    std::int64_t bytes = 0;
};
/// A scrambled packet on a pid that carries tables.
struct ScrambledTableItem {
    std::uint16_t pid = 0;
};
/// A PES packet begins, with what the first look knows of its stream.
struct PesItem {
    PesEvent event;
    double packets_per_second = 0;
    double ticks_per_start = 0;
};

struct Item {
    At at;
    std::variant<SectionEvent, ProgramsEvent, TableChangedEvent, PesItem, ScramblingEvent,
                 NamesEvent, SpansItem, PcrItem, NullsItem, BrokenItem, DamagedItem, SyncByteItem,
                 SyncLossItem, TruncatedItem, ScrambledTableItem, OrderFault, CopyFault, FrozenRun,
                 DatagramEvent, CountsItem, FrozenItem, AnewItem>
        body;
};

class FirstLook final : EventSink, ContinuitySink {
  public:
    /// `breaks` is told of breaks as soon as they are decided; both must outlive this.
    FirstLook(StreamClock& clock, ContinuitySink& breaks, bool live);

    /// From now on the packets of each pid are told now and then.
    void count() { counting_ = true; }
    /// From now on names of services are told.
    void tell_names() { tables_.tell_names(); }

    /// One packet in step; `right`: its sync byte is right.
    void packet(const std::uint8_t* bytes, const At& at, Ticks arrival, bool right) {
        if (!right || !plain(Packet(bytes), at, arrival))
            any(Packet(bytes), at, arrival, right);
    }
    void sync_loss(const SyncLoss& loss, std::uint64_t index);
    void datagrams(const DatagramEvent& event, const At& at);
    void truncated(const At& at, std::int64_t bytes);
    /// Nothing is known of what was before that packet, which comes next; `standing`: time stood
    /// still meanwhile.
    void anew(const At& at, Ticks arrival, bool standing);
    /// Live: looks at what goes on, and at the clock, where no packet gave reason to.
    void look() { look_at_clock(last_, last_arrival_); }
    /// Decides counters that have waited too long, before the clock is asked.
    void settle();
    /// Live: nothing has come for a while. What waits for more packets is decided.
    void pause();
    /// Nothing comes behind the last packet.
    void finish();

    std::deque<Item>& queue() { return queue_; }
    const Tables& tables() const { return tables_; }
    const At& last() const { return last_; }
    double null_share() const;
    /// Packets of a pid so far.
    std::uint64_t packets(std::uint16_t pid) const;
    std::uint64_t scrambled(std::uint16_t pid) const;

  private:
    struct Pid {
        std::uint16_t pid = null_pid;
        // What the tables say of it.
        bool table = false;
        bool es = false;
        int type = -1; // stream_type; -1: none
        // Since the last look at the clock.
        std::uint32_t span_packets = 0;
        std::uint32_t span_scrambled = 0;
        At span_first;
        At span_last;
        // All along.
        std::uint64_t packets = 0;
        std::uint64_t counted = 0; // of them told by tell_counts()
        std::uint64_t scrambled = 0;
        std::uint8_t scrambling =
            0xFF;             // control bits of the last packet with payload; 0xFF: none yet
        bool holding = false; // in holding_
        PidCounter counter;
    };
    /// PES starts of the streams of a program at its last PCR.
    struct Starts {
        std::vector<std::pair<std::uint16_t, std::uint64_t>> of;
        std::int64_t value = -1; // of that PCR
    };

    void event(const At& at, EventBody&& body) override;
    void counter_break(const CounterBreak& fault) override { breaks_.counter_break(fault); }
    void order(const OrderFault& fault) override {
        clock_.out_of_order(fault.begin.index, fault.end.index);
        put(fault.begin, fault);
    }
    void copies(const CopyFault& fault) override {
        if (fault.packets > 1) // a PCR among them was taken
            clock_.out_of_order(fault.at.index, fault.end.index);
        put(fault.at, fault);
    }
    void frozen(const FrozenRun& run) override {
        if (live_) // behind what was said while it went on
            push(last_, FrozenRun(run));
        else
            put(run.begin, run);
    }
    bool repeats(std::uint16_t pid) const override { return tables_.wants(pid); }
    void added(const At& at, unsigned packets) override { clock_.added(at, packets); }

    Pid& slot(std::uint16_t pid);
    int type_of(std::uint16_t pid) const; // stream_type; -1: none
    template <class Body>
    void push(const At& at, Body&& body) {
        queue_.push_back({at, std::forward<Body>(body)});
    }
    template <class Body>
    void put(const At& at, Body&& body);
    bool plain(const Packet& packet, const At& at, Ticks arrival);
    void any(const Packet& packet, const At& at, Ticks arrival, bool right);
    void transport_error(const Packet& packet, const At& at);
    void damaged(Pid& state, std::uint16_t pid, const At& at);
    void with_payload(Pid& state, const Packet& packet, const At& at, bool right);
    void broken(Pid& state, std::uint16_t pid, const At& before, const At& at);
    void changed_bits(Pid& state, const Packet& packet, const At& at);
    void take_pcr(const Packet& packet, const At& at, Ticks arrival);
    void count_frames(PcrPoint& point);
    Ticks frames_since_pcr() const; // 0: not known
    void alive(Pid& state, std::uint16_t pid, const At& at) {
        if (state.span_packets++ == 0) {
            state.span_first = at;
            active_.push_back(pid);
        }
        state.span_last = at;
    }
    void not_null(const At& at);
    void look_at_clock(const At& at, Ticks arrival);
    bool ripe(const At& at) const;
    void close_spans(const At& at);
    void tell_counts(const At& at, bool at_end);
    void settle_old(const At& at, Ticks grace);
    void settle_all();
    void tell_what_goes_on(const At& at);
    void new_programs(const ProgramsPtr& programs, const At& at);

    StreamClock& clock_;
    ContinuitySink& breaks_;
    std::deque<Item> queue_;
    Tables tables_;
    PesFront pes_;
    std::vector<std::uint16_t> slots_; // of pids, 0: none
    std::vector<Pid> pids_;
    std::vector<std::uint16_t> active_;      // pids with packets since the last look at the clock
    std::vector<std::uint16_t> holding_;     // pids whose counter waits for more packets
    std::map<std::uint16_t, Starts> starts_; // by PCR pid
    At last_;
    Ticks last_arrival_ = no_time;
    std::uint64_t next_look_ = 0;  // packet
    std::uint64_t spans_from_ = 0; // the packet at which the spans were closed
    At nulls_since_;
    std::uint64_t null_run_ = 0;
    std::uint64_t nulls_ = 0;
    std::uint64_t nulls_counted_ = 0;
    bool counting_ = false;
    At counted_; // the first packet that tell_counts() has not told
    bool first_ = true;
    bool live_ = false;
    std::optional<SyncLoss> garbled_; // until the packet behind it
    At garbled_at_;
    static constexpr std::uint64_t null_run_of_note = 20;
};

// The short way of most packets: of a known pid, clear payload and nothing else, with the counter
// that should come, where nothing else is due; or a null packet. Does what any() would do, or
// nothing.
[[gnu::always_inline]] inline bool FirstLook::plain(const Packet& packet, const At& at,
                                                    Ticks arrival) {
    if (at.index >= next_look_ || garbled_)
        return false;
    const std::uint16_t pid = packet.pid();
    if (pid == null_pid) {
        if (packet.transport_error())
            return false;
        ++nulls_;
        if (null_run_++ == 0)
            nulls_since_ = at;
    } else {
        Pid& state = pids_[slots_[pid]];
        if (!packet.only_payload() || state.table || state.scrambling != 0 ||
            !state.counter.is_next(packet.counter()) || null_run_ > null_run_of_note)
            return false;
        null_run_ = 0;
        ++state.packets;
        state.counter.go_on(packet, at);
        if (state.es)
            pes_.feed(at, packet);
        alive(state, pid, at);
    }
    last_ = at;
    last_arrival_ = arrival;
    return true;
}

} // namespace quarn
