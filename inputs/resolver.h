// Addresses of names, looked up without waiting.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "endpoint.h"

namespace quarn::inputs {

/// Looks up one name in a thread of its own, which a server that does not answer may hold for half
/// a minute. It ends by itself, also if nobody wants to know any more.
class Resolver {
  public:
    Resolver(const std::string& host, std::uint16_t port);

    bool done() const { return result_->done; }
    /// Once it is done: the first address of that name, or nothing and what is wrong.
    const std::optional<Endpoint>& endpoint() const { return result_->endpoint; }
    const std::string& error() const { return result_->error; }

  private:
    struct Result {
        std::atomic<bool> done = false;
        std::optional<Endpoint> endpoint;
        std::string error;
    };
    std::shared_ptr<Result> result_;
};

} // namespace quarn::inputs
