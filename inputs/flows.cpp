#include "flows.h"

#include <algorithm>

#include "datagram_stream.h"

namespace quarn::inputs {

bool FlowTable::add(const UdpDatagram& datagram) {
    ++datagrams_;
    const DatagramContent content = look_into(datagram.payload);
    if (content.packets == 0)
        return false;
    const auto known = places_.find(datagram.destination);
    if (known == places_.end() && flows_.size() == most_flows)
        return false;
    const std::size_t place = known == places_.end() ? flows_.size() : known->second;
    if (place == flows_.size()) {
        places_.emplace(datagram.destination, place);
        flows_.push_back({datagram.destination, 0, 0, content.rtp, content.packet_size});
    }
    Flow& flow = flows_[place];
    ++flow.datagrams;
    flow.packets += content.packets;
    return wanted_ ? flow.destination == *wanted_ : flow.packets >= enough;
}

const Flow* FlowTable::choice() const {
    if (wanted_) {
        const auto found = places_.find(*wanted_);
        return found == places_.end() ? nullptr : &flows_[found->second];
    }
    const Flow* most = nullptr;
    for (const Flow& flow : flows_)
        if (!most || std::min(flow.packets, enough) > std::min(most->packets, enough))
            most = &flow;
    return most;
}

std::string FlowTable::names() const {
    constexpr std::size_t most_names = 8;
    std::string text;
    for (std::size_t i = 0; i < std::min(flows_.size(), most_names); ++i)
        text += (i == 0 ? "" : ", ") + to_string(flows_[i].destination) + " (" +
                std::to_string(flows_[i].packets) + " packets)";
    if (flows_.size() > most_names)
        text += " and " + std::to_string(flows_.size() - most_names) + " more";
    return text;
}

} // namespace quarn::inputs
