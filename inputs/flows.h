// The flows of a capture, and which one is read.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "input.h"
#include "udp.h"

namespace quarn::inputs {

/// Counts what goes to each address and port.
class FlowTable {
  public:
    /// As many packets make a flow the one that is read.
    static constexpr std::uint64_t enough = 1000;

    explicit FlowTable(std::optional<Endpoint> wanted) : wanted_(wanted) {}

    /// Returns true when the flow to be read is known.
    bool add(const UdpDatagram& datagram);
    /// The flow to be read, as far as is known by now.
    const Flow* choice() const;
    /// All flows with transport packets as text: "239.1.1.1:1234 (1000 packets), ...".
    std::string names() const;
    std::uint64_t datagrams() const { return datagrams_; }

  private:
    /// A hostile capture has more flows than anyone reads.
    static constexpr std::size_t most_flows = 4096;

    std::optional<Endpoint> wanted_;
    std::vector<Flow> flows_; // those with transport packets, in the order of their first one
    std::map<Endpoint, std::size_t> places_;
    std::uint64_t datagrams_ = 0;
};

} // namespace quarn::inputs
