// A capture of a network.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "datagram_stream.h"
#include "flows.h"
#include "history.h"
#include "input.h"
#include "pcap_file.h"
#include "tape.h"
#include "udp.h"

namespace quarn::inputs {

class PcapInput : public Input {
  public:
    /// Reads until it is known which flow is to be read, then begins anew.
    static std::variant<std::unique_ptr<Input>, Error> open(std::unique_ptr<Source> source,
                                                            const OpenOptions& options);

    Status read(Sink& sink) override;
    const Error& error() const override { return error_; }
    int packet_size() const override { return packet_size_; }
    std::uint64_t bytes_read() const override { return tape_.bytes_read(); }
    std::optional<std::uint64_t> bytes_total() const override {
        return tape_.source().bytes_total();
    }
    std::optional<Flow> flow() const override;
    Kept kept() const override;
    std::size_t read_again(std::uint64_t from, std::span<std::uint8_t> into) override;

  private:
    explicit PcapInput(std::unique_ptr<Source> source) : tape_(std::move(source)) {}

    class Keeper;
    Status read_part(Sink& sink);

    std::optional<Error> choose(const OpenOptions& options);
    std::optional<Error> begin();
    Status end(PcapFile::Status status, Sink& sink);
    std::optional<Error> damage(const std::string& what) const;
    Payload payload_of(const PcapFile::Frame& frame, const UdpDatagram& datagram);

    Tape tape_;
    std::unique_ptr<PcapFile> pcap_;
    UdpParser parser_;
    Endpoint destination_;
    std::int64_t first_second_ = no_time;
    std::optional<DatagramStream> stream_;
    std::optional<History> history_; // of the packets
    int packet_size_ = 188;
    std::uint64_t cut_ = 0; // datagrams
    Error error_;
};

} // namespace quarn::inputs
