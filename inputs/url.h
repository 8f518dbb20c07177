// Where a live input comes from, as users write it.
//
//     udp://239.1.1.1:5000?interface=eth0&source=10.0.0.7     udp://[ff15::1]:5000   udp://:5000
//     rtp://10.0.0.2:5004                                     (the same, and RTP must be there)
//     srt://HOST:9000?latency=200&passphrase=...              srt://:9000?mode=listener
//     file:///var/capture.ts?loop=true     /var/capture.ts    -   (standard input)
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "endpoint.h"

namespace quarn::inputs {

struct InputUrl {
    enum class Scheme : std::uint8_t { udp, rtp, srt, file, standard_input };
    enum class Mode : std::uint8_t { caller, listener };

    Scheme scheme = Scheme::udp;
    std::string text; // as it was written; may hold a secret

    // udp and rtp: where datagrams go to; a group, or an address of this machine, all 0 for any.
    // srt: the port, and the address if `host` is one.
    Endpoint endpoint;
    Endpoint source;            // udp, rtp: who sends; port 0
    bool has_source = false;    //
    std::string interface_name; // udp, rtp: empty: that of the route
    // srt
    std::string host; // name or address, without brackets; empty for a listener: any
    bool host_is_address = false;
    Mode mode = Mode::caller;
    std::chrono::milliseconds latency{120};
    std::string passphrase; // empty: none
    // file
    std::string path;
    bool loop = false;
    std::uint64_t bitrate = 0; // bits a second, for files without any clock; 0: none

    bool datagrams() const { return scheme == Scheme::udp || scheme == Scheme::rtp; }
    /// Whether it may come to its end.
    bool may_end() const {
        return scheme == Scheme::standard_input || (scheme == Scheme::file && !loop);
    }
    bool multicast() const;
    /// As it was written, but for what must not be seen.
    std::string without_secrets() const;
};

/// Reads a URL, a path or "-". The other alternative is one line that says what is wrong and what
/// would be right, without secrets.
std::variant<InputUrl, std::string> parse_url(std::string_view text);

/// A URL, right or wrong, without the parameter `passphrase`: for messages.
std::string without_secrets(std::string_view url);

/// Whether datagrams to that address go to a group.
bool is_multicast(const Endpoint& endpoint);

} // namespace quarn::inputs
