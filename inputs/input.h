// Opens a capture, whatever it is: a file of packets, standard input, a pcap of datagrams.
//
//     auto opened = quarn::inputs::open("a.ts", {});
//     if (auto* error = std::get_if<Error>(&opened))
//         return complain(error->text);
//     auto& input = *std::get<std::unique_ptr<Input>>(opened);
//     while (input.read(sink) == Input::Status::more && !stop)
//         show(input.bytes_read(), input.bytes_total());
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "endpoint.h"
#include "sink.h"

namespace quarn::inputs {

/// Why an input cannot be read. not_ts: it can, but holds no transport stream.
enum class ErrorKind : std::uint8_t { not_found, directory, empty, not_ts, unreadable };
/// "not_found", "directory", ... as records have it.
std::string_view word(ErrorKind kind);

struct Error {
    ErrorKind kind = ErrorKind::unreadable;
    std::string text; // what it is and what would be right, one line without the input's name
};

struct OpenOptions {
    /// Take the datagrams to this address and port. Not set: the flow that first has 1000 packets,
    /// else the one with most. Of no meaning for inputs that are not captures of a network.
    std::optional<Endpoint> flow;
    /// Looked at whenever waiting for input was interrupted by a signal: set, the input is at its
    /// end, without a word on what was not decided by then. Must outlive the input.
    const std::atomic<bool>* stop = nullptr;
    /// Of what cannot be read twice (pipes, captures of a network) so many bytes are kept for
    /// Input::read_again(), allocated when it is opened.
    std::size_t keep = 0;
};

/// Datagrams to one address and port that hold transport packets.
struct Flow {
    Endpoint destination;
    std::uint64_t datagrams = 0;
    std::uint64_t packets = 0;
    bool rtp = false;
    std::size_t packet_size = 188;
    std::uint64_t cut = 0; // datagrams whose end was not recorded
};

/// An open input. One thread at a time.
class Input {
  public:
    enum class Status : std::uint8_t { more, end, failed };

    Input() = default;
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    virtual ~Input() = default;

    /// Reads the next part (some 100 kB) and hands it to the sink. May wait for a pipe. `more` is
    /// also returned when a signal interrupted the wait. At `end` and `failed` everything has been
    /// delivered, and nothing may be read any more.
    virtual Status read(Sink& sink) = 0;
    /// What went wrong, after `failed`.
    virtual const Error& error() const = 0;

    /// Bytes that a packet takes in the input: 188, 192 or 204.
    virtual int packet_size() const = 0;
    /// Bytes of the input that were read so far, and all of them, where that is known.
    virtual std::uint64_t bytes_read() const = 0;
    virtual std::optional<std::uint64_t> bytes_total() const = 0;
    /// Of a capture of a network: the flow that is read. Empty for others.
    virtual std::optional<Flow> flow() const = 0;

    /// Bytes, by their offset in the input, that read_again() has: all of a regular file, of others
    /// the last of what was read and kept. Of captures of a network these are packets of 188 bytes,
    /// one behind the other.
    struct Kept {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;         // behind the last
        std::size_t packet_size = 188; // 188, 192 or 204
        bool complete = false;         // nothing is added by reading on
    };
    virtual Kept kept() const = 0;
    /// Reads bytes from offset `from` on; fewer than asked for where there are no more, none where
    /// they are not kept or cannot be read any more.
    virtual std::size_t read_again(std::uint64_t from, std::span<std::uint8_t> into) = 0;
};

/// Opens a file by its name, or standard input for "-", and looks into it to find out what it is
/// (reads up to a megabyte, of a pcap as much as it takes to choose a flow).
std::variant<std::unique_ptr<Input>, Error> open(const std::string& operand,
                                                 const OpenOptions& options);

} // namespace quarn::inputs
