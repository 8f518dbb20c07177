#include "endpoint.h"

#include <arpa/inet.h>
#include <charconv>

namespace quarn::inputs {

std::optional<Endpoint> parse_endpoint(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        return {};
    std::string host(text.substr(0, colon));
    Endpoint endpoint;
    endpoint.v6 = host.front() == '[' && host.back() == ']';
    if (endpoint.v6)
        host = host.substr(1, host.size() - 2);
    const auto digits = text.substr(colon + 1);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), endpoint.port);
    if (error != std::errc() || end != digits.data() + digits.size() || endpoint.port == 0)
        return {};
    if (inet_pton(endpoint.v6 ? AF_INET6 : AF_INET, host.c_str(), endpoint.address.data()) != 1)
        return {};
    return endpoint;
}

std::string to_string(const Endpoint& endpoint) {
    char host[INET6_ADDRSTRLEN] = "";
    inet_ntop(endpoint.v6 ? AF_INET6 : AF_INET, endpoint.address.data(), host, sizeof host);
    const std::string port = ":" + std::to_string(endpoint.port);
    return endpoint.v6 ? "[" + std::string(host) + "]" + port : host + port;
}

} // namespace quarn::inputs
