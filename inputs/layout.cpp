#include "layout.h"

#include <algorithm>
#include <cstring>

#include "big_endian.h"

namespace quarn::inputs {
namespace {

using Bytes = std::span<const std::uint8_t>;

/// So much of the input is held against each layout.
constexpr std::size_t judged_bytes = std::size_t{64} * 1024;

/// Stamps further apart than half a second are none: no stream has so few packets for long.
constexpr std::uint32_t longest_step = 13'500'000;

/// A sync byte with a header behind it: adaptation_field_control is never 0. (0x47 may well come
/// again at one place of each packet, as the low byte of a pid, but what follows there is payload.)
bool begins_packet(Bytes head, std::size_t offset) {
    return head[offset] == sync_byte &&
           (offset + 3 >= head.size() || (head[offset + 3] & 0x30) != 0);
}

bool run_begins(Bytes head, std::size_t offset, std::size_t size) {
    for (std::size_t i = 0; i < sync_run; ++i, offset += size)
        if (offset >= head.size() || !begins_packet(head, offset))
            return false;
    return true;
}

/// A layout and how well the input fits it.
struct Candidate {
    std::size_t size = 0;
    std::size_t first = 0;
    std::size_t places = 0;
    std::size_t right = 0;

    std::int64_t margin() const {
        return 2 * static_cast<std::int64_t>(right) - static_cast<std::int64_t>(places);
    }
};

Candidate judge(Bytes head, std::size_t size, std::size_t first) {
    Candidate candidate{size, first, 0, 0};
    const std::size_t end = std::min(head.size(), first + judged_bytes);
    for (std::size_t offset = first; offset < end; offset += size) {
        ++candidate.places;
        candidate.right += begins_packet(head, offset);
    }
    return candidate;
}

/// Whether an input without five packets in step may be taken for one of packets.
bool convincing(const Candidate& candidate, Bytes head, bool whole) {
    if (candidate.places >= sync_run)
        return candidate.right * 5 >= candidate.places * 3;
    const Layout layout{candidate.size};
    const bool begins = candidate.first == layout.prefix();
    const bool ends =
        candidate.first + candidate.places * candidate.size - layout.prefix() == head.size();
    if (!whole || candidate.places == 0 || candidate.margin() <= 0)
        return false;
    if (candidate.places == 1)
        return begins && ends;
    return candidate.right >= 3 || begins || ends;
}

/// The best of the acceptable layouts whose first packet begins within one packet from `from` on.
template <typename Acceptable>
Candidate best_from(Bytes head, std::size_t from, Acceptable acceptable) {
    Candidate best;
    for (const std::size_t size : packet_sizes)
        for (std::size_t first = from; first < std::min(from + size, head.size()); ++first)
            if (const Candidate candidate = judge(head, size, first);
                acceptable(candidate) && (best.places == 0 || candidate.margin() > best.margin()))
                best = candidate;
    return best;
}

/// Whether the four bytes in front of the packets are a 27 MHz clock of 30 bits.
bool has_stamps(Bytes head, const Layout& layout) {
    std::size_t steps = 0;
    std::size_t plausible = 0;
    std::uint32_t last = 0;
    const std::size_t end = std::min(head.size(), layout.first + judged_bytes);
    for (std::size_t offset = layout.first + layout.size; offset < end; offset += layout.size) {
        if (head[offset] != sync_byte)
            continue;
        const std::uint32_t stamp = load_be32(head.data() + offset - 4);
        const std::uint32_t step = (stamp - last) & 0x3FFFFFFF;
        if (offset > layout.first + layout.size) {
            ++steps;
            plausible += step > 0 && step < longest_step;
        }
        last = stamp;
    }
    return steps > 0 && plausible * 10 >= steps * 9;
}

/// Where the first packet begins if the first five in step begin at layout.first: packets before
/// these are packets as well when a sync byte of them is wrong, or bytes are missing behind two.
std::size_t first_packet(Bytes head, const Layout& layout) {
    const std::size_t run = layout.first;
    const std::size_t same_step = run % layout.size;
    if (same_step == layout.prefix() || run < 2 * layout.size)
        return same_step;
    for (std::size_t first = 0; first < layout.size; ++first)
        if (begins_packet(head, first) && begins_packet(head, first + layout.size))
            return first;
    return run;
}

/// Where the first five packets in step begin, or the end of `head`.
std::size_t first_run(Bytes head) {
    for (std::size_t from = 0; from < head.size(); ++from) {
        const void* byte = std::memchr(head.data() + from, sync_byte, head.size() - from);
        if (!byte)
            break;
        from = static_cast<std::size_t>(static_cast<const std::uint8_t*>(byte) - head.data());
        for (const std::size_t size : packet_sizes)
            if (run_begins(head, from, size))
                return from;
    }
    return head.size();
}

} // namespace

std::optional<Layout> find_layout(Bytes head, bool whole) {
    const std::size_t from = first_run(head);
    const bool run = from < head.size();
    const Candidate best = best_from(head, run ? from : 0, [&](const Candidate& candidate) {
        return run ? run_begins(head, candidate.first, candidate.size)
                   : convincing(candidate, head, whole);
    });
    if (best.places == 0)
        return {};
    Layout layout{best.size, best.first, false};
    layout.first = first_packet(head, layout);
    layout.stamps = best.size == 192 && has_stamps(head, layout);
    return layout;
}

} // namespace quarn::inputs
