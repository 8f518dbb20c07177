#include "url.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <net/if.h>
#include <optional>
#include <set>
#include <sys/stat.h>

namespace quarn::inputs {
namespace {

using namespace std::string_view_literals;
using Scheme = InputUrl::Scheme;

constexpr std::size_t shortest_passphrase = 10; // what SRT takes
constexpr std::size_t longest_passphrase = 79;
constexpr unsigned longest_latency_ms = 60'000;

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

/// In quotation marks, and on one line whatever it holds.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text)
        out += is_control(c) ? '?' : c;
    return out + "\"";
}

/// What is wrong with a URL; thrown and caught in this file alone.
struct Wrong {
    std::string text;
};

int digit(char c) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto place = digits.find(static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c));
    return place == std::string_view::npos ? -1 : static_cast<int>(place);
}

/// %41 becomes A. The text may be a secret: it is not quoted.
std::string decoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? digit(text[i + 1]) : -1;
        const int low = high < 0 ? -1 : digit(text[i + 2]);
        if (low < 0 || (high == 0 && low == 0))
            throw Wrong{"a % must be followed by two hexadecimal digits (% itself is %25)"};
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

template <typename Number>
std::optional<Number> number(std::string_view text, Number least, Number most) {
    Number value{};
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    if (error != std::errc() || end != last || value < least || value > most)
        return {};
    return value;
}

// ---- parameters --------------------------------------------------------------------------------

void set_source(InputUrl& url, const std::string& value) {
    const bool v6 = value.find(':') != std::string::npos && value.front() != '[';
    const auto source = parse_endpoint((v6 ? "[" + value + "]" : value) + ":1");
    if (!source || is_multicast(*source))
        throw Wrong{"source=" + quoted(value) + " is not the address of a sender"};
    url.source = *source;
    url.source.port = 0;
    url.has_source = true;
}

void set_interface(InputUrl& url, const std::string& value) {
    if (value.empty() || value.size() >= IFNAMSIZ || value.find('/') != std::string::npos ||
        std::ranges::any_of(value, is_control))
        throw Wrong{"interface=" + quoted(value) + " is not the name of an interface, like eth0"};
    url.interface_name = value;
}

void set_mode(InputUrl& url, const std::string& value) {
    if (value != "caller" && value != "listener")
        throw Wrong{"mode=" + quoted(value) + ": mode is caller or listener"};
    url.mode = value == "caller" ? InputUrl::Mode::caller : InputUrl::Mode::listener;
}

void set_latency(InputUrl& url, const std::string& value) {
    const auto ms = number<unsigned>(value, 0, longest_latency_ms);
    if (!ms)
        throw Wrong{"latency=" + quoted(value) + ": latency is in milliseconds, 0 to " +
                    std::to_string(longest_latency_ms)};
    url.latency = std::chrono::milliseconds(*ms);
}

void set_passphrase(InputUrl& url, const std::string& value) {
    if (value.size() < shortest_passphrase || value.size() > longest_passphrase)
        throw Wrong{"passphrase must have " + std::to_string(shortest_passphrase) + " to " +
                    std::to_string(longest_passphrase) + " bytes"};
    url.passphrase = value;
}

void set_loop(InputUrl& url, const std::string& value) {
    if (value != "true" && value != "false")
        throw Wrong{"loop=" + quoted(value) + ": loop is true or false"};
    url.loop = value == "true";
}

void set_bitrate(InputUrl& url, const std::string& value) {
    const auto bitrate = number<std::uint64_t>(value, 1, 100'000'000'000);
    if (!bitrate)
        throw Wrong{"bitrate=" + quoted(value) + ": bitrate is in bits a second"};
    url.bitrate = *bitrate;
}

struct Parameter {
    std::string_view name;
    std::array<bool, 4> schemes; // udp, rtp, srt, file
    void (*set)(InputUrl&, const std::string&);
};

constexpr Parameter parameters[] = {
    {"source", {true, true, false, false}, set_source},
    {"interface", {true, true, false, false}, set_interface},
    {"mode", {false, false, true, false}, set_mode},
    {"latency", {false, false, true, false}, set_latency},
    {"passphrase", {false, false, true, false}, set_passphrase},
    {"loop", {false, false, false, true}, set_loop},
    {"bitrate", {false, false, false, true}, set_bitrate},
};

constexpr std::string_view scheme_names[] = {"udp", "rtp", "srt", "file"};

std::string known_parameters(std::size_t scheme) {
    std::string names;
    for (const Parameter& parameter : parameters)
        if (parameter.schemes[scheme])
            names += (names.empty() ? "" : ", ") + std::string(parameter.name);
    return names;
}

void set_parameter(InputUrl& url, std::string_view text, std::set<std::string_view>& seen) {
    const auto scheme = static_cast<std::size_t>(url.scheme);
    const auto equals = text.find('=');
    const std::string_view name = text.substr(0, equals);
    const auto* const parameter = std::ranges::find(parameters, name, &Parameter::name);
    const bool known = parameter != std::end(parameters) && parameter->schemes[scheme];
    if (!known && seen.contains("passphrase"))
        throw Wrong{"an unknown parameter behind the passphrase: write & in it as %26, % as %25"};
    if (!known)
        throw Wrong{std::string(scheme_names[scheme]) + ":// has no parameter " + quoted(name) +
                    ": it has " + known_parameters(scheme)};
    if (equals == std::string_view::npos)
        throw Wrong{"parameter " + quoted(name) + " has no value"};
    if (!seen.insert(name).second)
        throw Wrong{"parameter " + quoted(name) + " is there twice"};
    parameter->set(url, decoded(text.substr(equals + 1)));
}

template <typename Take>
void for_each_piece(std::string_view query, Take take) {
    while (!query.empty()) {
        const auto end = query.find('&');
        take(query.substr(0, end));
        query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    }
}

void set_parameters(InputUrl& url, std::string_view query) {
    std::set<std::string_view> seen;
    for_each_piece(query, [&](std::string_view piece) { set_parameter(url, piece, seen); });
}

bool mentions_secret(std::string_view text) {
    constexpr std::string_view secret = "passphrase";
    return std::search(text.begin(), text.end(), secret.begin(), secret.end(),
                       [](char a, char b) { return (a | 0x20) == b; }) != text.end();
}

// ---- places ------------------------------------------------------------------------------------

constexpr std::string_view example_v6 = "udp://[ff15::1]:5000";

void take_port(InputUrl& url, std::string_view text) {
    const auto port = number<std::uint16_t>(text, 1, 65535);
    if (!port)
        throw Wrong{"port " + quoted(text) + " is not a number from 1 to 65535"};
    url.endpoint.port = *port;
}

bool in_brackets(std::string_view host) {
    return host.size() > 2 && host.front() == '[' && host.back() == ']';
}

/// Splits HOST:PORT, sets the port, and the address where the host is one.
void take_authority(InputUrl& url, std::string_view authority, std::string_view example) {
    if (authority.ends_with('/'))
        authority.remove_suffix(1);
    if (authority.starts_with('@')) // what some players write for "listen"
        authority.remove_prefix(1);
    if (authority.find('@') != std::string_view::npos)
        throw Wrong{"no user may stand before the address, as in " + std::string(example)};
    const auto colon = authority.rfind(':');
    if (colon == std::string_view::npos || authority.ends_with(']'))
        throw Wrong{"has no port, such as " + std::string(example)};
    take_port(url, authority.substr(colon + 1));
    std::string_view host = authority.substr(0, colon);
    if (host.find('%') != std::string_view::npos)
        throw Wrong{"no interface may stand in the address: name it by ?interface="};
    if (host.starts_with('[') && !in_brackets(host))
        throw Wrong{"has no ] behind its IPv6 address, such as " + std::string(example_v6)};
    if (!in_brackets(host) && host.find(':') != std::string_view::npos)
        throw Wrong{"an IPv6 address stands in brackets: [" + std::string(host) + "]"};
    if (const auto endpoint = parse_endpoint(authority)) {
        url.endpoint = *endpoint;
        url.host_is_address = true;
    }
    url.host = in_brackets(host) ? host.substr(1, host.size() - 2) : host;
}

bool needs_interface(const Endpoint& group) {
    return group.v6 && (group.address[1] & 0x0F) <= 2; // interface-local, link-local
}

void take_datagrams(InputUrl& url, std::string_view authority, std::string_view query) {
    take_authority(url, authority, "udp://239.1.1.1:5000");
    if (!url.host_is_address && !url.host.empty())
        throw Wrong{quoted(url.host) +
                    " is not an IP address: name the group, or the address of this machine, that "
                    "the datagrams are sent to"};
    set_parameters(url, query);
    if (url.has_source && url.source.v6 != url.endpoint.v6)
        throw Wrong{"address and source are of different IP versions"};
    if (url.multicast() && needs_interface(url.endpoint) && url.interface_name.empty())
        throw Wrong{"a link-local group needs its interface: ?interface=eth0"};
}

void take_srt(InputUrl& url, std::string_view authority, std::string_view query) {
    take_authority(url, authority, "srt://HOST:9000");
    const bool anywhere = url.host.empty();
    if (anywhere)
        url.mode = InputUrl::Mode::listener;
    set_parameters(url, query);
    const bool caller = url.mode == InputUrl::Mode::caller;
    if (anywhere && caller)
        throw Wrong{"a caller needs a host: srt://HOST:9000"};
    if (!caller && !anywhere && !url.host_is_address)
        throw Wrong{"a listener needs an IP address of this machine, or none: "
                    "srt://:9000?mode=listener"};
    if (url.host_is_address && is_multicast(url.endpoint))
        throw Wrong{"SRT knows no multicast: use udp:// or rtp://"};
}

void take_file(InputUrl& url, std::string_view path, std::string_view query) {
    url.path = decoded(path);
    if (url.path.empty())
        throw Wrong{"no file is named: file:///PATH"};
    set_parameters(url, query);
}

/// Something like "http:" before "//".
bool has_scheme(std::string_view text) {
    const auto end = text.find("://");
    return end != std::string_view::npos && end > 0 &&
           std::ranges::all_of(text.substr(0, end), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '+' || c == '-' || c == '.';
           });
}

/// What stands without "://" is the path of a file, but who forgot a part of it must not be told
/// that there is no such file. Empty: no such doubt.
std::string what_it_looks_like(const std::string& path) {
    const auto colon = path.find(':');
    const auto* const scheme = std::ranges::find(scheme_names, path.substr(0, colon));
    if (colon != std::string::npos && scheme != std::end(scheme_names))
        return "is no file, and as a URL it lacks //: " + std::string(*scheme) + "://...";
    const std::string place = path.substr(0, path.find('?'));
    if (parse_endpoint(place) || (place.starts_with(':') && parse_endpoint("0.0.0.0" + place)))
        return "is no file, but an address and port: with udp:// before it, or rtp:// or srt://?";
    return {};
}

void take_path(InputUrl& url, const std::string& path) {
    url.scheme = Scheme::file;
    url.path = path;
    const std::string wrong = what_it_looks_like(path);
    struct stat about {};
    if (!wrong.empty() && ::stat(path.c_str(), &about) != 0)
        throw Wrong{wrong};
}

void take_url(InputUrl& url, std::string_view text) {
    if (std::ranges::any_of(text, is_control))
        throw Wrong{"a line break or another control character: write it as %0A"};
    const auto end = text.find("://");
    const auto* const scheme = std::ranges::find(scheme_names, text.substr(0, end));
    if (scheme == std::end(scheme_names))
        throw Wrong{"unknown scheme " + quoted(text.substr(0, end)) +
                    ": udp, rtp, srt, file, the path of a file, or - for standard input"};
    url.scheme = static_cast<Scheme>(scheme - std::begin(scheme_names));
    const std::string_view rest = text.substr(end + 3);
    const auto mark = rest.find('?');
    const std::string_view place = rest.substr(0, mark);
    const std::string_view query =
        mark == std::string_view::npos ? std::string_view() : rest.substr(mark + 1);
    if (url.scheme == Scheme::file)
        take_file(url, place, query);
    else if (url.scheme == Scheme::srt)
        take_srt(url, place, query);
    else
        take_datagrams(url, place, query);
}

} // namespace

bool is_multicast(const Endpoint& endpoint) {
    return endpoint.v6 ? endpoint.address[0] == 0xFF : endpoint.address[0] >> 4 == 0xE;
}

bool InputUrl::multicast() const {
    return datagrams() && is_multicast(endpoint);
}

std::string InputUrl::without_secrets() const {
    return inputs::without_secrets(text);
}

std::variant<InputUrl, std::string> parse_url(std::string_view text) {
    InputUrl url;
    url.text = text;
    try {
        if (text.empty())
            throw Wrong{"empty: a URL like udp://239.1.1.1:5000 is needed"};
        if (text.find('\0') != std::string_view::npos)
            throw Wrong{"a zero byte in it"};
        if (text == "-") {
            url.scheme = Scheme::standard_input;
        } else if (has_scheme(text)) {
            take_url(url, text);
        } else {
            take_path(url, std::string(text));
        }
    } catch (const Wrong& wrong) {
        return wrong.text;
    }
    return url;
}

std::string without_secrets(std::string_view url) {
    const auto mark = url.find('?');
    if (!has_scheme(url) || mark == std::string_view::npos || !mentions_secret(url))
        return std::string(url);
    // An & in a passphrase that is not written as %26 leaves pieces of it behind: only what is
    // known is kept.
    std::string kept;
    for_each_piece(url.substr(mark + 1), [&](std::string_view piece) {
        const auto* const parameter =
            std::ranges::find(parameters, piece.substr(0, piece.find('=')), &Parameter::name);
        if (parameter != std::end(parameters) && parameter->set != set_passphrase)
            kept += (kept.empty() ? "?" : "&") + std::string(piece);
    });
    return std::string(url.substr(0, mark)) + kept;
}

} // namespace quarn::inputs
