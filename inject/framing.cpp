// framing.cpp - faults of the bytes themselves: sync bytes, bytes missing or too many, an end
// inside a packet, bit errors.
#include <algorithm>

#include "job.h"

namespace inject {

namespace {

std::uint8_t no_sync(Random& random) {
    const auto byte = static_cast<std::uint8_t>(random.next());
    return byte == SYNC ? 0xB8 : byte;
}

void apply_sync(Job& job) {
    Capture& ts = job.ts;
    const std::size_t i = ts.at(job.start(1));
    ts.items[i].bytes[0] = no_sync(job.random);
    job.touches(i, NO_PID);
    job.must("1.2", {}, {}, job.point(i));
}

// Two or more of five sync bytes are wrong, the step holds.
void apply_garbled(Job& job) {
    Capture& ts = job.ts;
    const std::size_t first = ts.at(job.start(1));
    const auto count = static_cast<std::size_t>(job.whole("count", 4));
    std::size_t last = first;
    for (std::size_t k = 0; k < count; ++k) {
        last = first + 2 * k;
        ts.items.at(last).bytes[0] = no_sync(job.random);
    }
    job.touches(first, NO_PID);
    job.must("1.1", {"garbled"}, {}, job.range(first - 1, first)).ends(job.range(last, last + 6));
}

void apply_cut(Job& job) {
    Capture& ts = job.ts;
    const auto count = static_cast<std::size_t>(job.whole("bytes", 183));
    const std::size_t i = ts.at(job.start(1));
    const std::size_t at = 4 + job.random.below(PACKET_SIZE - 4 - count + 1);
    Item& item = ts.items[i];
    item.raw.assign(item.bytes.begin(), item.bytes.end());
    const auto from = item.raw.begin() + static_cast<std::ptrdiff_t>(at);
    item.raw.erase(from, from + static_cast<std::ptrdiff_t>(count));
    // A 0x47 where the next packets would be sought could pass for one in step.
    std::replace(item.raw.begin() + 1, item.raw.end(), std::uint8_t{SYNC}, std::uint8_t{0x46});
    job.touches(i, NO_PID);
    job.must("1.1", {"missing"}, {}, job.range(i - 1, i + 1))
        .has("bytes", {static_cast<std::int64_t>(count)});
}

void apply_insert(Job& job) {
    Capture& ts = job.ts;
    auto count = static_cast<std::size_t>(job.whole("bytes", 10000000));
    count += count % PACKET_SIZE == 0 ? 1 : 0; // a multiple would be packets with wrong sync bytes
    job.record.parameters["bytes"] = count;
    const std::size_t i = ts.at(job.start(1));
    Bytes& before = ts.items[i].before;
    for (std::size_t k = 0; k < count; ++k) {
        before.push_back(no_sync(job.random));
    }
    job.touches(i, NO_PID);
    job.must("1.1", {"inserted"}, {}, job.range(i - 1, i + 1))
        .has("bytes", {static_cast<std::int64_t>(count % PACKET_SIZE)});
}

void apply_truncate(Job& job) {
    Capture& ts = job.ts;
    const auto count = static_cast<std::size_t>(job.whole("bytes", 187));
    std::size_t i = ts.items.size() - 1;
    while (i > 0 && (ts.items[i].gone || !ts.items[i].raw.empty())) {
        --i;
    }
    Item& item = ts.items[i];
    item.raw.assign(item.bytes.begin(), item.bytes.begin() + static_cast<std::ptrdiff_t>(count));
    job.touches(i, NO_PID);
    job.must("q.10", {}, {}, job.range(i - 1, i)).has("bytes", {static_cast<std::int64_t>(count)});
}

// A recording that was started inside a packet, as is lawful.
void apply_head(Job& job) {
    Item& item = job.ts.items.front();
    const auto count = static_cast<std::size_t>(job.whole("bytes", 187));
    item.raw.assign(item.bytes.end() - static_cast<std::ptrdiff_t>(count), item.bytes.end());
    std::replace(item.raw.begin(), item.raw.end(), std::uint8_t{SYNC}, std::uint8_t{0x46});
    job.touches(0, NO_PID);
}

// Inside of pictures, away from every header that is looked at here.
void apply_bits(Job& job) {
    Capture& ts = job.ts;
    const int pid = job.media_pid();
    int left = job.whole("count");
    const auto all = ts.payloads(pid, job.start(1));
    job.touches(all.at(0), pid);
    for (std::size_t k = 1; left > 0 && k + 1 < all.size(); ++k) {
        Packet& p = ts.items[all[k]].bytes;
        if (!unit_starts(p) && payload_at(p) == 4) {
            p[40 + job.random.below(PACKET_SIZE - 50)] ^=
                static_cast<std::uint8_t>(1U << job.random.below(8));
            --left;
        }
    }
    job.record.cannot.emplace_back("bit errors in the payload of a picture");
}

constexpr Kind KINDS[] = {
    {"sync", "", "one wrong sync byte", apply_sync},
    {"garbled", "count=2..4", "several wrong sync bytes, the step holds", apply_garbled},
    {"cut", "bytes=1..183", "bytes of a packet are missing", apply_cut},
    {"insert", "bytes=1..1200", "bytes too many between two packets", apply_insert},
    {"truncate", "bytes=1..187", "the capture ends inside a packet", apply_truncate},
    {"head", "bytes=1..187", "the capture begins inside a packet, as is lawful", apply_head},
    {"bits", "count=1..20,pid=video", "bit errors inside of pictures", apply_bits},
};

} // namespace

std::span<const Kind> framing_kinds() {
    return KINDS;
}

} // namespace inject
