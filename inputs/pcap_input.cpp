#include "pcap_input.h"

#include <algorithm>

namespace quarn::inputs {
namespace {

/// So much of the file is handed over by one call of read(), or so many frames.
constexpr std::uint64_t part = std::uint64_t{256} * 1024;
constexpr int most_frames = 4096;

Error no_flow(const FlowTable& flows, const OpenOptions& options, bool cut) {
    const std::string there = flows.names();
    if (options.flow && !there.empty())
        return {ErrorKind::not_ts, "a pcap without transport packets to " +
                                       to_string(*options.flow) + "; there are: " + there};
    if (cut)
        return {ErrorKind::not_ts, "a pcap whose frames were cut when they were captured: capture "
                                   "them again with their whole length"};
    return {ErrorKind::not_ts, "a pcap without transport packets in UDP, with or without RTP (" +
                                   std::to_string(flows.datagrams()) + " datagrams)"};
}

} // namespace

std::variant<std::unique_ptr<Input>, Error> PcapInput::open(std::unique_ptr<Source> source,
                                                            const OpenOptions& options) {
    std::unique_ptr<PcapInput> input(new PcapInput(std::move(source)));
    if (options.keep > 0)
        input->history_.emplace(options.keep);
    auto error = input->begin();
    if (!error)
        error = input->choose(options);
    if (!error && !input->tape_.rewind())
        error = Error{ErrorKind::unreadable,
                      "a pcap from a pipe, and no room in the directory for temporary files to "
                      "keep it until the flow is known: write it to a file first"};
    if (!error)
        error = input->begin();
    if (error)
        return std::move(*error);
    return input;
}

/// Opens the capture at the place where the tape is.
std::optional<Error> PcapInput::begin() {
    pcap_.reset();
    parser_ = UdpParser();
    std::FILE* file = tape_.file();
    if (!file)
        return Error{ErrorKind::unreadable, "cannot be read: out of memory"};
    std::string text;
    pcap_ = PcapFile::open(file, text);
    return pcap_ ? std::nullopt : damage(text);
}

std::optional<Error> PcapInput::damage(const std::string& what) const {
    if (tape_.failed())
        return tape_.source().error();
    return Error{ErrorKind::unreadable, "a pcap that cannot be read: " + what};
}

std::optional<Error> PcapInput::choose(const OpenOptions& options) {
    FlowTable flows(options.flow);
    bool chosen = false;
    bool cut = false;
    PcapFile::Frame frame;
    PcapFile::Status status{};
    while (!chosen && (status = pcap_->next(frame)) == PcapFile::Status::frame) {
        cut = cut || frame.cut;
        if (const auto datagram = parser_.parse(pcap_->link(), frame.bytes))
            chosen = flows.add(*datagram);
    }
    if (const Flow* flow = flows.choice()) {
        destination_ = flow->destination;
        packet_size_ = static_cast<int>(flow->packet_size);
        return {};
    }
    if (status == PcapFile::Status::failed && !tape_.at_end())
        return damage(pcap_->error());
    return no_flow(flows, options, cut);
}

/// Keeps the packets of datagrams, which come one by one, on their way to a sink.
class PcapInput::Keeper : public Sink {
  public:
    Keeper(History& history, Sink& sink) : history_(history), sink_(sink) {}

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override {
        for (std::size_t i = 0; i < count; ++i)
            history_.append({first + i * stride, ts_packet_size});
        sink_.packets(first, count, stride, byte);
    }
    void packet(const std::uint8_t* packet, const PacketInfo& info) override {
        history_.append({packet, ts_packet_size});
        sink_.packet(packet, info);
    }
    void sync_loss(const SyncLoss& loss) override { sink_.sync_loss(loss); }
    void datagrams(const DatagramEvent& event) override { sink_.datagrams(event); }
    void truncated(std::uint64_t byte, std::int64_t bytes) override {
        sink_.truncated(byte, bytes);
    }

  private:
    History& history_;
    Sink& sink_;
};

Input::Kept PcapInput::kept() const {
    return history_ ? Kept{history_->begin(), history_->end(), ts_packet_size, false} : Kept{};
}

std::size_t PcapInput::read_again(std::uint64_t from, std::span<std::uint8_t> into) {
    return history_ ? history_->read(from, into) : 0;
}

Input::Status PcapInput::read(Sink& sink) {
    if (!history_)
        return read_part(sink);
    Keeper keeper(*history_, sink);
    return read_part(keeper);
}

Input::Status PcapInput::read_part(Sink& sink) {
    if (!stream_)
        stream_.emplace(sink);
    stream_->set_sink(sink);
    const std::uint64_t until = tape_.bytes_read() + part;
    PcapFile::Frame frame;
    for (int i = 0; i < most_frames && tape_.bytes_read() < until; ++i) {
        if (const auto status = pcap_->next(frame); status != PcapFile::Status::frame)
            return end(status, sink);
        const auto datagram = parser_.parse(pcap_->link(), frame.bytes);
        if (!datagram || datagram->destination != destination_)
            continue;
        cut_ += frame.cut ? 1 : 0;
        stream_->push(payload_of(frame, *datagram));
    }
    return Status::more;
}

/// No more frames: because that is all, or the file was cut off, or it is damaged.
Input::Status PcapInput::end(PcapFile::Status status, Sink& sink) {
    stream_->flush();
    if (status == PcapFile::Status::end || tape_.source().stopped())
        return Status::end;
    if (tape_.at_end() && !tape_.failed()) {
        sink.truncated(stream_->packets() * ts_packet_size, 0);
        return Status::end;
    }
    error_ = *damage(pcap_->error());
    return Status::failed;
}

Payload PcapInput::payload_of(const PcapFile::Frame& frame, const UdpDatagram& datagram) {
    // Years beyond what a tick count holds are in broken files only.
    constexpr std::int64_t longest = std::int64_t{1} << 37;
    if (first_second_ == no_time)
        first_second_ = frame.seconds;
    const std::int64_t seconds = std::clamp(frame.seconds, -longest, longest);
    const std::int64_t origin = std::clamp(first_second_, -longest, longest);
    return {datagram.payload, (seconds - origin) * 27'000'000 + frame.nanoseconds * 27LL / 1000,
            seconds * 1'000'000 + frame.nanoseconds / 1000};
}

std::optional<Flow> PcapInput::flow() const {
    Flow flow{destination_, 0, 0, false, static_cast<std::size_t>(packet_size_)};
    if (stream_) {
        flow.datagrams = stream_->datagrams();
        flow.packets = stream_->packets();
        flow.rtp = stream_->rtp();
        flow.cut = cut_;
    }
    return flow;
}

} // namespace quarn::inputs
