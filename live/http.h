// HTTP of a live host: metrics, health, the API and the status page.
//
//     GET /             status page
//     GET /api/inputs   all inputs as JSON
//     GET /metrics      Prometheus text format
//     GET /healthz      200 while the loops turn, else 503
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "inputs/endpoint.h"
#include "live/snapshot.h"

namespace quarn::live {

/// Where the answers come from. All are called in the thread of Http, `inputs` and `process` at
/// most once a second for each document whatever is asked for, `healthy` for each request.
struct HttpSources {
    std::function<std::vector<Snapshot>()> inputs;
    std::function<ProcessFigures()> process;
    std::function<bool()> healthy;
};

/// Serves in a thread of its own from construction to destruction. Bounded whatever clients do: 256
/// connections, or a quarter of the descriptors that the process may have (see Connections); idle
/// ones end after 5 s, a request takes 10 s at most, and all that ask within a second share one
/// answer.
class Http {
  public:
    /// Throws std::system_error with a message that names the address; a port that is taken is one
    /// of these errors. Port 0 takes a free one.
    Http(const inputs::Endpoint& endpoint, HttpSources sources);
    ~Http();
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    /// Where it listens.
    std::uint16_t port() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quarn::live
