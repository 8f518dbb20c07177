#include "fragments.h"

#include <algorithm>

namespace quarn::inputs {

std::optional<std::span<const std::uint8_t>> Fragments::add(const FragmentKey& key,
                                                            std::size_t offset, bool more,
                                                            std::span<const std::uint8_t> part) {
    // All but the last are whole units, else the next would not fit behind it.
    if (part.empty() || offset + part.size() > most_bytes || (more && part.size() % unit != 0))
        return {};
    Packet& packet = slot(key);
    if (packet.bytes.size() < offset + part.size())
        packet.bytes.resize(offset + part.size());
    std::ranges::copy(part, packet.bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    for (std::size_t i = 0; i < part.size(); i += unit)
        packet.units.set((offset + i) / unit);
    if (!more)
        packet.length = offset + part.size();
    const std::size_t units = (packet.length + unit - 1) / unit;
    if (packet.length == 0 || packet.units.count() != units || packet.bytes.size() != packet.length)
        return {};
    packet.open = false;
    return packet.bytes;
}

/// The packet of that key, or a new one in place of the oldest.
Fragments::Packet& Fragments::slot(const FragmentKey& key) {
    for (Packet& packet : packets_)
        if (packet.open && packet.key == key)
            return packet;
    Packet& oldest = *std::ranges::min_element(
        packets_, {}, [](const Packet& packet) { return packet.open ? packet.begun : 0; });
    oldest.key = key;
    oldest.open = true;
    oldest.begun = ++begun_;
    oldest.length = 0;
    oldest.units.reset();
    oldest.bytes.clear();
    return oldest;
}

} // namespace quarn::inputs
