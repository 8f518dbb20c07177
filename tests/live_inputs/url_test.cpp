#include <gtest/gtest.h>

#include "inputs/url.h"

namespace quarn::inputs {
namespace {

/// What was understood, in a few words; or what is wrong.
std::string understood(const std::string& text) {
    const auto parsed = parse_url(text);
    if (const auto* wrong = std::get_if<std::string>(&parsed))
        return *wrong;
    const auto& url = std::get<InputUrl>(parsed);
    static constexpr const char* words[] = {"udp", "rtp", "srt", "file", "stdin"};
    std::string out = words[static_cast<int>(url.scheme)];
    if (url.datagrams())
        out += " " + to_string(url.endpoint) + (url.multicast() ? " group" : "");
    if (url.has_source)
        out += " from " + to_string(url.source);
    if (!url.interface_name.empty())
        out += " on " + url.interface_name;
    if (url.scheme == InputUrl::Scheme::srt)
        out += (url.mode == InputUrl::Mode::caller ? " calls " : " listens ") + url.host +
               (url.host_is_address ? "(address) " : " ") + std::to_string(url.endpoint.port) +
               " " + std::to_string(url.latency.count()) + "ms " + url.passphrase;
    out += url.path.empty() ? "" : " " + url.path;
    out += url.loop ? " loop" : "";
    return out + (url.bitrate == 0 ? "" : " " + std::to_string(url.bitrate));
}

TEST(Url, is_understood_or_says_what_is_wrong) {
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"udp://239.1.1.1:5000", "udp 239.1.1.1:5000 group"},
        {"udp://@239.1.1.1:5000/", "udp 239.1.1.1:5000 group"},
        {"rtp://232.1.1.1:5004?source=10.0.0.7&interface=eth0",
         "rtp 232.1.1.1:5004 group from 10.0.0.7:0 on eth0"},
        {"udp://[ff35::1]:5000?source=2001:db8::7",
         "udp [ff35::1]:5000 group from [2001:db8::7]:0"},
        {"udp://[ff02::1]:5000?interface=eth0.5", "udp [ff02::1]:5000 group on eth0.5"},
        {"udp://:5000", "udp 0.0.0.0:5000"},
        {"udp://[::]:5000", "udp [::]:5000"},
        {"srt://live.example:9000?latency=250&passphrase=0123%2B456%26789",
         "srt calls live.example 9000 250ms 0123+456&789"},
        {"srt://[::1]:9000", "srt calls ::1(address) 9000 120ms "},
        {"srt://:9000", "srt listens  9000 120ms "},
        {"srt://10.0.0.1:9000?mode=listener", "srt listens 10.0.0.1(address) 9000 120ms "},
        {"file:///a%20b.ts?loop=true&bitrate=1000", "file /a b.ts loop 1000"},
        {"file://a.ts", "file a.ts"},
        {"a?b.ts", "file a?b.ts"},
        {"-", "stdin"},

        {"", "empty: a URL like udp://239.1.1.1:5000 is needed"},
        {"http://a:1", "unknown scheme \"http\": udp, rtp, srt, file, the path of a file, or - for "
                       "standard input"},
        {"udp://239.1.1.1", "has no port, such as udp://239.1.1.1:5000"},
        {"udp://[::1]", "has no port, such as udp://239.1.1.1:5000"},
        {"udp://[::1:5000", "has no ] behind its IPv6 address, such as udp://[ff15::1]:5000"},
        {"udp:/127.0.0.1:5000", "is no file, and as a URL it lacks //: udp://..."},
        {"127.0.0.1:5000",
         "is no file, but an address and port: with udp:// before it, or rtp:// or srt://?"},
        {"file:a.ts", "is no file, and as a URL it lacks //: file://..."},
        {"udp://239.1.1.1:0", "port \"0\" is not a number from 1 to 65535"},
        {"udp://239.1.1.1:65536", "port \"65536\" is not a number from 1 to 65535"},
        {"udp://ff15::1:5000", "an IPv6 address stands in brackets: [ff15::1]"},
        {"udp://[fe80::1%eth0]:5000",
         "no interface may stand in the address: name it by ?interface="},
        {"udp://localhost:5000", "\"localhost\" is not an IP address: name the group, or the "
                                 "address of this machine, that the datagrams are sent to"},
        {"udp://me@10.0.0.1:5000",
         "no user may stand before the address, as in udp://239.1.1.1:5000"},
        {"udp://[ff02::1]:5000", "a link-local group needs its interface: ?interface=eth0"},
        {"udp://[ff15::1]:5000?source=10.0.0.1", "address and source are of different IP versions"},
        {"udp://239.1.1.1:5000?source=239.1.1.2",
         "source=\"239.1.1.2\" is not the address of a sender"},
        {"udp://239.1.1.1:5000?source=", "source=\"\" is not the address of a sender"},
        {"udp://239.1.1.1:5000?interface=a-name-that-is-long",
         "interface=\"a-name-that-is-long\" is not the name of an interface, like eth0"},
        {"udp://239.1.1.1:5000?loop=true",
         "udp:// has no parameter \"loop\": it has source, interface"},
        {"udp://239.1.1.1:5000?source", "parameter \"source\" has no value"},
        {"file://a?loop=true&loop=true", "parameter \"loop\" is there twice"},
        {"file://a?loop=yes", "loop=\"yes\": loop is true or false"},
        {"file://a%2", "a % must be followed by two hexadecimal digits (% itself is %25)"},
        {"file://a%00", "a % must be followed by two hexadecimal digits (% itself is %25)"},
        {"file://a\nb", "a line break or another control character: write it as %0A"},
        {"srt://h:1?mode=%0A", "mode=\"?\": mode is caller or listener"},
        {"file://", "no file is named: file:///PATH"},
        {"srt://h:1?mode=rendezvous", "mode=\"rendezvous\": mode is caller or listener"},
        {"srt://h:1?latency=1s", "latency=\"1s\": latency is in milliseconds, 0 to 60000"},
        {"srt://h:1?passphrase=short", "passphrase must have 10 to 79 bytes"},
        {"srt://:1?mode=caller", "a caller needs a host: srt://HOST:9000"},
        {"srt://h:1?mode=listener", "a listener needs an IP address of this machine, or none: "
                                    "srt://:9000?mode=listener"},
        {"srt://239.1.1.1:1", "SRT knows no multicast: use udp:// or rtp://"},
        {"srt://h:1?passphrase=0123456789&secret",
         "an unknown parameter behind the passphrase: write & in it as %26, % as %25"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(understood(one.text), one.expected) << one.text;
}

TEST(Url, shows_no_secret) {
    const struct {
        const char* text;
        const char* shown;
    } cases[] = {
        {"srt://h:1?passphrase=secretsecret", "srt://h:1"},
        {"srt://h:1?latency=5&passphrase=secretsecret&mode=caller",
         "srt://h:1?latency=5&mode=caller"},
        {"srt://h:1?Passphrase=secret&secret", "srt://h:1"},
        {"srt://h?passphrase=secret&latency=5", "srt://h?latency=5"},
        {"udp://h:1?source=10.0.0.1", "udp://h:1?source=10.0.0.1"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(without_secrets(one.text), one.shown) << one.text;
}

} // namespace
} // namespace quarn::inputs
