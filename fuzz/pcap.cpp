// pcap.cpp - captures of a network: as files, and as frames and datagrams one by one.
//
// An input is one byte that says what the rest is, then a file, or records of a length in two bytes
// and a frame (or datagram, with a byte for the time since the last before it).
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

#include "capture.h"
#include "inputs/datagram_stream.h"
#include "inputs/input.h"
#include "inputs/udp.h"

using namespace quarn::inputs;
using Bytes = std::span<const std::uint8_t>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void must(bool holds) {
    if (!holds)
        std::abort();
}

/// Times run forward, and places are those of packets one behind the other.
void check(const Recorder& recorder) {
    Ticks last = 0;
    for (std::size_t i = 0; i < recorder.infos.size(); ++i) {
        const PacketInfo& info = recorder.infos[i];
        must(info.byte == 188 * i && info.arrival >= last);
        last = info.arrival;
    }
}

void read_file(Bytes bytes) {
    const int fd = memfd_create("input", 0);
    must(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    auto opened = open("/dev/fd/" + std::to_string(fd), OpenOptions{});
    Recorder recorder;
    if (auto* input = std::get_if<std::unique_ptr<Input>>(&opened)) {
        while ((*input)->read(recorder) == Input::Status::more) {
        }
        if ((*input)->flow())
            check(recorder);
    }
    close(fd);
}

/// The next record: a block of its own, so that no read goes beyond it unseen.
std::vector<std::uint8_t> take(Bytes& bytes) {
    const std::size_t wanted = static_cast<std::size_t>(bytes[0]) << 8 | bytes[1];
    bytes = bytes.subspan(2);
    const Bytes record = bytes.first(std::min(wanted, bytes.size()));
    bytes = bytes.subspan(record.size());
    return {record.begin(), record.end()};
}

void read_frames(Bytes bytes, Link link) {
    UdpParser parser;
    while (bytes.size() >= 2) {
        const auto frame = take(bytes);
        if (const auto datagram = parser.parse(link, frame))
            look_into(datagram->payload);
    }
}

void read_datagrams(Bytes bytes) {
    Recorder recorder;
    DatagramStream stream(recorder);
    Ticks time = 0;
    while (bytes.size() >= 3) {
        time += bytes[0] * 100'000;
        bytes = bytes.subspan(1);
        const auto datagram = take(bytes);
        stream.push({datagram, time, no_time});
    }
    stream.flush();
    check(recorder);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const Bytes rest{data + 1, size - 1};
    if (data[0] == 0)
        read_file(rest);
    else if (data[0] <= 1 + static_cast<unsigned>(Link::loopback))
        read_frames(rest, static_cast<Link>(data[0] - 1));
    else
        read_datagrams(rest);
    return 0;
}
