#include "resolver.h"

#include <netdb.h>
#include <system_error>
#include <thread>

#include "socket_address.h"

namespace quarn::inputs {
namespace {

std::optional<Endpoint> look_up(const std::string& host, std::uint16_t port, std::string& error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const int failed = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (failed != 0) {
        error = "no address of " + host + ": " + gai_strerror(failed);
        return {};
    }
    auto endpoint = endpoint_of(*list->ai_addr);
    freeaddrinfo(list);
    if (endpoint)
        endpoint->port = port;
    else
        error = "no address of " + host;
    return endpoint;
}

} // namespace

Resolver::Resolver(const std::string& host, std::uint16_t port)
    : result_(std::make_shared<Result>()) {
    try {
        std::thread([result = result_, host, port] {
            result->endpoint = look_up(host, port, result->error);
            result->done = true;
        }).detach();
    } catch (const std::system_error& error) {
        result_->error = "no address of " + host + ": " + error.what();
        result_->done = true;
    }
}

} // namespace quarn::inputs
