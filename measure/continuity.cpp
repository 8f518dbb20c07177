// The rare paths of PidCounter: everything but the counter that goes on.
//
// At a break the packets that follow are held until it is clear what they are, in this order:
//   copies   the run of packets from the break on was there before, byte for byte (second_copies)
//   order    the first m are a permutation of m counters in a row, two more follow (wrong_order)
//   frozen   four and more packets have one counter (same_counter)
//   break    anything else; the packets behind it are looked at again from there
#include "continuity.h"

#include <algorithm>

namespace quarn {

PidCounter::Step PidCounter::other(std::uint16_t pid, const Packet& packet, unsigned counter,
                                   std::uint64_t print, const At& at, bool trusted,
                                   ContinuitySink& sink) {
    const Waiting now = {at, print, counter, packet.unit_start()};
    if (next_ > 15) {
        accept(counter, print, at);
        flagged_ = false;
        return Step::next;
    }
    if (!trusted && counter != next_)
        return Step::doubtful;
    if (trusted && (packet.discontinuity() || flagged_) && counter != next_ &&
        !take_copy(pid, now, sink)) {
        settle(pid, true, sink);
        flagged_ = false;
        const bool jumps = counter != next_;
        flagged_jumps_ += jumps;
        accept(counter, print, at);
        return jumps ? Step::broken : Step::next;
    }
    flagged_ = false;
    if (frozen_)
        return thaw(now, sink);
    if (held_)
        return hold(pid, now, sink);
    if (counter == next_) {
        accept(counter, print, at);
        return Step::next;
    }
    if (take_copy(pid, now, sink))
        return Step::copy;
    held_ = std::make_unique<Held>();
    return hold(pid, now, sink);
}

bool PidCounter::take_copy(std::uint16_t pid, const Waiting& now, ContinuitySink& sink) {
    if (held_ || count_ == 0 || now.counter != ((next_ - 1u) & 15) || now.print != print_back(1))
        return false;
    if (copies_ < 255)
        ++copies_;
    if (copies_ == 1)
        ++lawful_copies_;
    else
        sink.copies({pid, now.at, now.at, 1});
    sink.added(now.at, 1);
    return true;
}

PidCounter::Step PidCounter::hold(std::uint16_t pid, const Waiting& packet, ContinuitySink& sink) {
    auto& packets = held_->packets;
    const unsigned should = packets.empty() ? next_ : (packets.back().counter + 1) & 15;
    const bool goes_on = !packets.empty() && packet.counter == should;
    packets.push_back(packet);
    const bool far = packet.at.index >= packets.front().at.index + datagrams + 7;
    if ((packets.size() >= look_ahead && far) || packets.size() >= datagrams + look_ahead)
        settle(pid, false, sink);
    return goes_on ? Step::next : Step::broken;
}

const At& PidCounter::held_since() const {
    return held_->packets.front().at;
}

void PidCounter::settle(std::uint16_t pid, bool at_end, ContinuitySink& sink) {
    if (!held_)
        return;
    std::vector<Waiting> packets = std::move(held_->packets);
    held_.reset();
    while (!packets.empty()) {
        std::size_t done = 0;
        if (frozen_) {
            thaw(packets.front(), sink);
            done = 1;
        } else if (packets.front().counter == next_) {
            accept(packets.front().counter, packets.front().print, packets.front().at);
            done = 1;
        } else if (take_copy(pid, packets.front(), sink)) {
            done = 1;
        } else if (packets.size() < look_ahead && !at_end) {
            held_ = std::make_unique<Held>();
            held_->packets = std::move(packets);
            return;
        } else {
            done = decide(pid, packets, at_end, sink);
        }
        packets.erase(packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(done));
    }
    if (held_ && at_end)
        settle(pid, at_end, sink);
}

std::size_t PidCounter::decide(std::uint16_t pid, const std::vector<Waiting>& packets, bool at_end,
                               ContinuitySink& sink) {
    const Waiting& first = packets.front();
    // Tables are the same from one repetition to the next: only what was sent just now is a copy.
    const std::uint64_t within = sink.repeats(pid) ? 14 : datagrams + 7;
    if (const std::size_t n = second_copies(packets, at_end, within)) {
        sink.copies({pid, first.at, packets[n - 1].at, static_cast<unsigned>(n)});
        sink.added(first.at, static_cast<unsigned>(n));
        return n;
    }
    std::size_t swapped = wrong_order(packets, at_end);
    if (swapped == 0)
        swapped = swapped_datagrams(packets);
    if (swapped > 0) {
        const std::size_t begin = next_;
        sink.order({pid, first.at, packets[swapped - 1].at, static_cast<unsigned>(swapped)});
        for (std::size_t i = 0; i < swapped; ++i)
            accept(packets[i].counter, packets[i].print, packets[swapped - 1].at);
        next_ = static_cast<std::uint8_t>((begin + swapped) &
                                          15); // as if they had come as they were sent
        return swapped;
    }
    if (const std::size_t n = same_counter(packets); n >= 3) {
        frozen_ = true;
        frozen_run_ = {pid, first.at, packets[n - 1].at, static_cast<unsigned>(n), first.counter};
        past_[(count_ - 1) % history].print = packets[n - 1].print;
        at_ = packets[n - 1].at;
        return n;
    }
    sink.counter_break({pid, at_, first.at, next_, first.counter, first.unit_start});
    accept(first.counter, first.print, first.at);
    return 1;
}

// The packets from the break on were there before: `back` packets ago, n of them, then the counter
// goes on.
std::size_t PidCounter::second_copies(const std::vector<Waiting>& packets, bool at_end,
                                      std::uint64_t within) const {
    const std::size_t known = std::min<std::size_t>(history, count_);
    for (std::size_t back = (next_ - packets.front().counter) & 15; back <= known; back += 16) {
        if (back < 2 || packets.front().at.index - index_back(back) > within)
            continue;
        std::size_t n = 0;
        while (n < packets.size() && n < back && packets[n].print == print_back(back - n) &&
               packets[n].counter == ((packets.front().counter + n) & 15))
            ++n;
        if (n > 0 && (n < packets.size() ? packets[n].counter == next_ : at_end))
            return n;
    }
    return 0;
}

// How many packets from the break on are what should have come, in another order. Whole datagrams
// that changed places give long ones: up to four datagrams of the input.
std::size_t PidCounter::wrong_order(const std::vector<Waiting>& packets, bool at_end) const {
    constexpr std::size_t longest = 9;
    const auto offset = [&](std::size_t i) { return (packets[i].counter - next_) & 15u; };
    const auto close = [&](std::size_t m) {
        std::uint32_t seen = 0;
        for (std::size_t i = 0; i < m; ++i)
            seen |= 1u << offset(i);
        return seen == (1u << m) - 1;
    };
    const auto goes_on = [&](std::size_t m) {
        return m >= packets.size() || offset(m) == (m & 15);
    };
    const std::size_t most = packets.size() - (at_end ? 0 : 1); // at the end nothing need follow
    for (std::size_t m = 2; m <= 15 && m <= most; ++m) {
        if (m > longest && packets[m - 1].at.index >= packets.front().at.index + datagrams)
            break;
        if (!close(m))
            continue;
        const bool follows = goes_on(m) && goes_on(m + 1);
        if (follows)
            return m;
    }
    return 0;
}

// Whole datagrams of seven packets that changed places, up to four of them, on a pid that has more
// packets in them than its counter can tell apart one by one.
std::size_t PidCounter::swapped_datagrams(const std::vector<Waiting>& packets) const {
    const std::uint64_t first = packets.front().at.index;
    for (std::uint64_t shift = 0; shift < 7; ++shift) {
        const auto block = [&](const Waiting& w) { return (w.at.index - first + shift) / 7; };
        for (std::uint64_t blocks = 2; blocks <= 4; ++blocks) {
            const auto end = std::find_if(packets.begin(), packets.end(),
                                          [&](const Waiting& w) { return block(w) >= blocks; });
            const auto n = static_cast<std::size_t>(end - packets.begin());
            const bool goes_on =
                end != packets.end() && end->counter == ((next_ + n) & 15) &&
                (end + 1 == packets.end() || (end + 1)->counter == ((next_ + n + 1) & 15));
            if (n < 8 || !goes_on)
                continue;
            std::array<std::uint64_t, 4> order = {0, 1, 2, 3};
            do {
                unsigned expected = next_;
                bool fits = true;
                for (std::uint64_t k = 0; k < blocks; ++k)
                    for (auto w = packets.begin(); w != end; ++w)
                        if (block(*w) == order[static_cast<std::size_t>(k)])
                            fits = fits && w->counter == (expected++ & 15);
                if (fits)
                    return n;
            } while (std::next_permutation(order.begin(),
                                           order.begin() + static_cast<std::ptrdiff_t>(blocks)));
        }
    }
    return 0;
}

std::size_t PidCounter::same_counter(const std::vector<Waiting>& packets) const {
    const unsigned counter = (next_ - 1u) & 15;
    std::size_t n = 0;
    while (n < packets.size() && packets[n].counter == counter)
        ++n;
    return n;
}

PidCounter::Step PidCounter::thaw(const Waiting& packet, ContinuitySink& sink) {
    if (packet.counter == frozen_run_.counter) {
        frozen_run_.end = packet.at;
        ++frozen_run_.packets;
        at_ = packet.at;
        return Step::broken;
    }
    sink.frozen(frozen_run_);
    frozen_ = false;
    accept(packet.counter, packet.print, packet.at);
    return Step::broken;
}

void PidCounter::forget(std::uint16_t pid, ContinuitySink& sink) {
    settle(pid, true, sink);
    if (frozen_)
        sink.frozen(frozen_run_);
    frozen_ = false;
    flagged_ = false;
    next_ = 0xFF;
    count_ = 0;
}

} // namespace quarn
