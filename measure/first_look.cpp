#include "first_look.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {
constexpr Ticks look_every = 100 * ticks_per_ms;
constexpr std::size_t few_pids = 16;
constexpr std::uint64_t look_at_least = 32; // packets
constexpr Ticks hold_at_most = 450 * ticks_per_ms;
constexpr Ticks hold_standing = 4500 * ticks_per_ms; // tables come seldom: three of up to 2 s
constexpr Ticks plain_distance = 40 * ticks_per_ms;  // the strictest limit of PCRs
constexpr std::uint64_t far_copy = 14;               // packets
} // namespace

FirstLook::FirstLook(StreamClock& clock, ContinuitySink& breaks, bool live)
    : clock_(clock), breaks_(breaks), tables_(*this), pes_(*this), slots_(pid_count, 0),
      live_(live) {
    pids_.emplace_back(); // slot 0 stands for none
}

FirstLook::Pid& FirstLook::slot(std::uint16_t pid) {
    if (slots_[pid] == 0) {
        slots_[pid] = static_cast<std::uint16_t>(pids_.size());
        pids_.emplace_back();
        Pid& state = pids_.back();
        state.pid = pid;
        state.table = tables_.wants(pid);
        state.es = pes_.follows(pid);
        state.type = type_of(pid);
    }
    return pids_[slots_[pid]];
}

int FirstLook::type_of(std::uint16_t pid) const {
    const ElementaryStream* stream = tables_.current()->stream(pid);
    return stream != nullptr ? stream->stream_type : -1;
}

// Faults that were decided late go to where they were.
template <class Body>
void FirstLook::put(const At& at, Body&& body) {
    auto before = queue_.end();
    while (before != queue_.begin() && std::prev(before)->at.index > at.index)
        --before;
    queue_.insert(before, {at, std::forward<Body>(body)});
}

/// Of a damaged packet only pid and counter are looked at.
void FirstLook::transport_error(const Packet& packet, const At& at) {
    const std::uint16_t pid = packet.pid();
    push(at, DamagedItem{pid});
    if (null_run_ > 0)
        not_null(at);
    if (pid == null_pid)
        return;
    Pid& state = slot(pid);
    damaged(state, pid, at);
    if (packet.has_payload())
        state.counter.damaged(packet.counter(), at);
    if (state.es) // damaged, but there
        alive(state, pid, at);
}

void FirstLook::any(const Packet& packet, const At& at, Ticks arrival, bool right) {
    last_ = at;
    last_arrival_ = arrival;
    const std::uint16_t pid = packet.pid();
    if (first_) {
        first_ = false;
        counted_ = at;
        next_look_ = at.index + look_at_least;
    }
    if (at.index >= next_look_)
        look_at_clock(at, arrival);
    if (garbled_ && at.byte >= garbled_->end_byte) {
        push(at, SyncLossItem{*garbled_, garbled_at_, garbled_at_});
        garbled_.reset();
    }
    if (!right)
        push(at, SyncByteItem{pid, garbled_.has_value()});
    if (packet.transport_error())
        return transport_error(packet, at);
    if (pid == null_pid) {
        ++nulls_;
        if (null_run_++ == 0)
            nulls_since_ = at;
        return;
    }
    if (null_run_ > 0)
        not_null(at);
    Pid& state = slot(pid);
    ++state.packets;
    const bool has_payload = packet.has_payload();
    auto step = PidCounter::Step::next;
    if (has_payload) {
        const At before = state.counter.last();
        step = state.counter.payload(pid, packet, at, right, *this);
        if (step == PidCounter::Step::broken)
            broken(state, pid, before, at);
        if (step == PidCounter::Step::doubtful) {
            damaged(state, pid, at);
            return;
        }
        // A table that is sent with one counter all the time is sent all the same.
        const bool again = state.table && at.index > before.index + far_copy;
        if (step != PidCounter::Step::copy || again)
            with_payload(state, packet, at, right);
    } else if (packet.discontinuity()) {
        state.counter.flag();
    }
    if (has_payload || !state.es) // lone PCRs do not keep a stream alive
        alive(state, pid, at);
    // With a wrong sync byte the header counts if its counter fits.
    if ((right || has_payload) && step != PidCounter::Step::copy && packet.has_pcr())
        take_pcr(packet, at, arrival);
}

void FirstLook::damaged(Pid& state, std::uint16_t pid, const At& at) {
    tables_.disturbed(pid);
    pes_.disturbed(pid);
    clock_.disturbed(pid, state.counter.last().index, at.index, 1);
}

void FirstLook::with_payload(Pid& state, const Packet& packet, const At& at, bool right) {
    const unsigned bits = packet.scrambling();
    if (bits != state.scrambling && right)
        changed_bits(state, packet, at);
    if (bits != 0) {
        ++state.scrambled;
        ++state.span_scrambled;
        if (state.table) {
            tables_.disturbed(packet.pid());
            push(at, ScrambledTableItem{packet.pid()});
        } else if (state.es)
            pes_.scrambled(packet.pid());
        return;
    }
    if (!right) { // what is in it may be damaged as well
        tables_.disturbed(packet.pid());
        pes_.disturbed(packet.pid());
        return;
    }
    if (state.table) {
        if (packet.unit_start() && ripe(at))
            close_spans(at);
        const ProgramsPtr before = tables_.current();
        tables_.feed(at, packet.pid(), packet.payload(), packet.unit_start());
        if (tables_.current() != before)
            new_programs(tables_.current(), at);
    } else if (state.es) {
        pes_.feed(at, packet);
    }
}

void FirstLook::changed_bits(Pid& state, const Packet& packet, const At& at) {
    const bool first = state.scrambling == 0xFF;
    const bool was = !first && state.scrambling != 0;
    const bool is = packet.scrambling() != 0;
    state.scrambling = static_cast<std::uint8_t>(packet.scrambling());
    if (first || was != is)
        push(at, ScramblingEvent{packet.pid(), first, is, state.span_last});
}

void FirstLook::broken(Pid& state, std::uint16_t pid, const At& before, const At& at) {
    tables_.disturbed(pid);
    pes_.disturbed(pid);
    clock_.disturbed(pid, before.index, at.index, 1);
    push(at, BrokenItem{pid, before});
    if (state.counter.holds() && !state.holding) {
        state.holding = true;
        holding_.push_back(pid);
    }
}

void FirstLook::take_pcr(const Packet& packet, const At& at, Ticks arrival) {
    PcrPoint point;
    point.pid = packet.pid();
    point.at = at;
    point.value = packet.pcr();
    point.flagged = packet.discontinuity();
    point.arrival = arrival;
    count_frames(point);
    clock_.pcr(point);
    if (clock_.pid() == point.pid)
        close_spans(at);
    push(at, PcrItem{point});
}

// The time of the pictures or audio PES packets that began since the last PCR: of the stream of the
// program that had most of them, for any of them may be what stopped.
void FirstLook::count_frames(PcrPoint& point) {
    Starts& starts = starts_[point.pid];
    const std::int64_t distance =
        starts.value < 0 ? 0 : clock_distance(starts.value, point.value, pcr_wrap);
    const bool plain = distance > 0 && distance <= plain_distance; // then nobody asks
    starts.value = point.value;
    double most = -1;
    for (auto& [pid, before] : starts.of) {
        const std::uint64_t now = pes_.starts(pid);
        if (plain) {
            before = now;
            continue;
        }
        const double ticks = pes_.ticks_per_start(pid);
        const auto began = static_cast<double>(now - std::min(before, now));
        before = now;
        if (ticks <= 0 || began <= most)
            continue;
        most = began;
        point.frames = static_cast<Ticks>(began * ticks * 300);
        point.frame = static_cast<Ticks>(ticks * 300);
    }
    if (most == 0)
        point.frames.reset(); // nothing began: that says nothing
}

// The same since the last PCR of the stream clock, where PCRs are missing.
Ticks FirstLook::frames_since_pcr() const {
    const auto starts = clock_.pid() ? starts_.find(*clock_.pid()) : starts_.end();
    if (starts == starts_.end())
        return 0;
    double most = 0;
    double time = 0;
    for (const auto& [pid, before] : starts->second.of) {
        const double ticks = pes_.ticks_per_start(pid);
        const auto began =
            static_cast<double>(pes_.starts(pid) - std::min(before, pes_.starts(pid)));
        if (ticks > 0 && began > most) {
            most = began;
            time = began * ticks * 300;
        }
    }
    return static_cast<Ticks>(time);
}

void FirstLook::not_null(const At& at) {
    if (null_run_ > null_run_of_note) {
        clock_.nulls(nulls_since_.index, at.index);
        push(at, NullsItem{nulls_since_});
    }
    null_run_ = 0;
}

void FirstLook::look_at_clock(const At& at, Ticks arrival) {
    next_look_ = at.index + std::max(look_at_least, clock_.packets_in(look_every));
    clock_.tick(at, arrival, frames_since_pcr());
    if (live_)
        tell_what_goes_on(at);
    close_spans(at);
    settle_old(at, 0);
    if (counting_ && at.index - counted_.index >= pids_.size())
        tell_counts(at, false);
}

void FirstLook::tell_what_goes_on(const At& at) {
    if (null_run_ > null_run_of_note)
        push(at, NullsItem{nulls_since_, false, true});
    for (const std::uint16_t pid : active_)
        if (const FrozenRun* run = pids_[slots_[pid]].counter.frozen())
            push(at, FrozenItem{*run});
}

void FirstLook::pause() {
    settle_all();
    close_spans(last_);
    clock_.pause(last_, last_arrival_);
}

void FirstLook::anew(const At& at, Ticks arrival, bool standing) {
    if (null_run_ > 0)
        not_null(last_);
    for (std::uint32_t pid = 0; pid < pid_count; ++pid)
        if (slots_[pid] != 0)
            pids_[slots_[pid]].counter.forget(static_cast<std::uint16_t>(pid), *this);
    tables_.disturbed(null_pid);
    pes_.disturbed();
    close_spans(last_);
    for (auto& [pid, starts] : starts_)
        starts.value = -1;
    clock_.anew(at, arrival, standing);
    push(at, AnewItem{first_ ? at : last_});
}

// Whether a table ends the spans. A slow stream has few other occasions, of which a silence needs
// one; of many pids that would be most of the work.
bool FirstLook::ripe(const At& at) const {
    return active_.size() <= few_pids || at.index - spans_from_ >= 8 * active_.size();
}

void FirstLook::close_spans(const At& at) {
    if (active_.empty())
        return;
    SpansItem item;
    item.spans.reserve(active_.size());
    for (const std::uint16_t pid : active_) {
        Pid& state = pids_[slots_[pid]];
        item.spans.push_back(
            {pid, state.span_first, state.span_last, state.span_packets, state.span_scrambled});
        state.span_packets = state.span_scrambled = 0;
    }
    active_.clear();
    spans_from_ = at.index;
    push(at, std::move(item));
}

void FirstLook::tell_counts(const At& at, bool at_end) {
    CountsItem item;
    item.from = std::exchange(counted_, at);
    item.packets = at.index - item.from.index + (at_end ? 1 : 0);
    const auto tell = [&](std::uint16_t pid, std::uint64_t packets, std::uint64_t& counted) {
        const auto more = static_cast<std::uint32_t>(packets - std::exchange(counted, packets));
        if (more > 0)
            item.pids.push_back({pid, more});
    };
    for (Pid& state : pids_)
        tell(state.pid, state.packets, state.counted);
    tell(null_pid, nulls_, nulls_counted_);
    push(at, std::move(item));
}

// In a slow stream the next look would be too late for the clock, which waits 600 ms.
void FirstLook::settle() {
    settle_old(last_, look_every);
}

void FirstLook::settle_old(const At& at, Ticks grace) {
    if (holding_.empty())
        return;
    std::erase_if(holding_, [&](std::uint16_t pid) {
        Pid& state = pids_[slots_[pid]];
        const Ticks most = state.table && state.counter.stands() ? hold_standing : hold_at_most;
        if (state.counter.holds() &&
            clock_.passed(state.counter.held_since().index, at, most + grace))
            state.counter.settle(pid, true, *this);
        state.holding = state.counter.holds();
        return !state.holding;
    });
}

void FirstLook::settle_all() {
    for (const std::uint16_t pid : holding_) {
        Pid& state = pids_[slots_[pid]];
        state.counter.settle(pid, true, *this);
        state.holding = false;
    }
    holding_.clear();
}

void FirstLook::new_programs(const ProgramsPtr& programs, const At& at) {
    pes_.programs(*programs);
    clock_.programs(programs, at);
    starts_.clear();
    for (const Program& p : programs->programs) {
        Starts& starts = starts_[p.pcr_pid];
        for (const ElementaryStream& s : p.streams)
            if (s.is_av())
                starts.of.emplace_back(s.pid, pes_.starts(s.pid));
    }
    for (std::uint32_t pid = 0; pid < pid_count; ++pid) {
        if (slots_[pid] == 0)
            continue;
        Pid& state = pids_[slots_[pid]];
        const auto id = static_cast<std::uint16_t>(pid);
        const bool es = pes_.follows(id);
        const int type = type_of(id);
        if ((state.es && !es) || (state.type >= 0 && type >= 0 && type != state.type))
            state.counter.forget(id, *this); // what comes back begins anew
        state.type = type;
        state.table = tables_.wants(id);
        state.es = es;
    }
}

void FirstLook::event(const At& at, EventBody&& body) {
    if (auto* pes = std::get_if<PesEvent>(&body)) {
        const std::uint16_t pid = pes->pid;
        push(at, PesItem{*pes, pes_.packets_per_second(pid), pes_.ticks_per_start(pid)});
        return;
    }
    if (std::holds_alternative<ProgramsEvent>(body))
        close_spans(at); // what came before a table is judged by the one before
    std::visit(
        [&](auto&& b) {
            using Body = std::decay_t<decltype(b)>;
            if constexpr (!std::is_same_v<Body, PesEvent>)
                push(at, std::forward<decltype(b)>(b));
        },
        std::move(body));
}

void FirstLook::sync_loss(const SyncLoss& loss, std::uint64_t index) {
    const At at = {index, loss.begin_byte, last_.utc_us};
    clock_.disturbed(null_pid, last_.index, index, 1);
    if (loss.kind == Kind::garbled) { // the packets are there, and told one by one
        garbled_ = loss;
        garbled_at_ = at;
        return;
    }
    for (std::uint32_t pid = 0; pid < pid_count; ++pid)
        if (slots_[pid] != 0)
            pids_[slots_[pid]].counter.forget(static_cast<std::uint16_t>(pid), *this);
    tables_.disturbed(null_pid);
    pes_.disturbed();
    push(at, SyncLossItem{loss, at, last_});
}

void FirstLook::datagrams(const DatagramEvent& event, const At& at) {
    push(at, DatagramEvent(event));
}

void FirstLook::truncated(const At& at, std::int64_t bytes) {
    push(at, TruncatedItem{bytes});
}

void FirstLook::finish() {
    if (garbled_)
        push(last_, SyncLossItem{*garbled_, garbled_at_, garbled_at_});
    for (std::uint32_t pid = 0; pid < pid_count; ++pid)
        if (slots_[pid] != 0)
            pids_[slots_[pid]].counter.forget(static_cast<std::uint16_t>(pid), *this);
    if (null_run_ > null_run_of_note) {
        clock_.nulls(nulls_since_.index, last_.index);
        push(last_, NullsItem{nulls_since_, true});
    }
    close_spans(last_);
    if (counting_ && !first_)
        tell_counts(last_, true);
    clock_.finish(last_, last_arrival_, frames_since_pcr());
}

double FirstLook::null_share() const {
    return static_cast<double>(nulls_) / static_cast<double>(last_.index + 1);
}

std::uint64_t FirstLook::packets(std::uint16_t pid) const {
    return slots_[pid] == 0 ? 0 : pids_[slots_[pid]].packets;
}

std::uint64_t FirstLook::scrambled(std::uint16_t pid) const {
    return slots_[pid] == 0 ? 0 : pids_[slots_[pid]].scrambled;
}

} // namespace quarn
