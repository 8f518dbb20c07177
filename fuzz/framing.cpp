// framing.cpp - bytes with packets in them, in step or not: what is told of them must not depend
// on how they were cut into reads, and must fit what is in them.
//
// An input is one byte for the packet size, one for the length of reads, then records of what lies
// behind each other: kind, count, and for raw bytes these.
#include <algorithm>
#include <cstdlib>

#include "capture.h"
#include "inputs/framer.h"

using namespace quarn::inputs;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

enum kind : std::uint8_t { packets, wrong, junk, hole, cut, cut_front, raw, kinds };

/// Lays out the bytes that an input describes.
std::vector<std::uint8_t> lay_out(std::span<const std::uint8_t> input, std::size_t packet_size) {
    Capture capture(packet_size);
    capture.stamps(0x3FFFF000, 2700);
    int holes = 0;
    while (input.size() >= 2) {
        const unsigned count = input[1];
        const unsigned kind = input[0] % kinds;
        const unsigned value = input[0] / kinds;
        input = input.subspan(2);
        switch (kind) {
        case packets:
            capture.packets(static_cast<int>(count % 32), value % 2 == 0 ? 0x100 : 0x147);
            break;
        case wrong:
            capture.wrong(static_cast<int>(count % 8));
            break;
        case junk:
            capture.junk(count, value % 2 == 0 ? 0 : 0x47);
            break;
        case hole: // about as long as what is held back; seldom, since it takes its time
            if (value % 8 == 1 && ++holes == 1)
                capture.junk(Framer::hold_limit - 1000 + std::size_t{8} * count);
            break;
        case cut:
            capture.cut(std::min<std::size_t>(count, capture.bytes.size()));
            break;
        case cut_front:
            capture.cut_front(std::min<std::size_t>(count, capture.bytes.size()));
            break;
        default:
            const auto bytes = input.first(std::min<std::size_t>(count, input.size()));
            capture.bytes.insert(capture.bytes.end(), bytes.begin(), bytes.end());
            input = input.subspan(bytes.size());
        }
    }
    return std::move(capture.bytes);
}

void must(bool holds) {
    if (!holds)
        std::abort();
}

Recorder frame(const std::vector<std::uint8_t>& bytes, const Layout& layout, std::size_t part) {
    Framer framer(layout);
    Recorder recorder;
    std::size_t begin = 0;
    std::size_t end = 0;
    while (end < bytes.size()) {
        end += std::min(part, bytes.size() - end);
        const bool last = end == bytes.size();
        // A block of its own, so that no read goes beyond it unseen.
        const std::vector<std::uint8_t> given(bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                                              bytes.begin() + static_cast<std::ptrdiff_t>(end));
        begin += framer.feed(given, last, recorder);
        must(last || end - begin <= Framer::hold_limit + part + 16 * layout.size);
    }
    return recorder;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const auto bytes = lay_out({data + 2, size - 2}, packet_sizes[data[0] % 3]);
    const auto layout = find_layout(bytes, true);
    if (!layout)
        return 0;
    Recorder whole = frame(bytes, *layout, SIZE_MAX);
    const std::size_t part = bytes.size() / 20 + 1 + data[1];
    must(whole.text() == frame(bytes, *layout, part).text());

    std::uint64_t free = 0; // from here on no packet was made of a byte
    for (const PacketInfo& info : whole.infos) {
        must(info.byte >= free && info.byte + ts_packet_size <= bytes.size());
        must(info.sync_right == (bytes[static_cast<std::size_t>(info.byte)] == sync_byte));
        free = info.byte + ts_packet_size;
    }
    return 0;
}
