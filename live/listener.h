// The socket that HTTP is served on.
#pragma once

#include "inputs/endpoint.h"

namespace quarn::live {

/// A socket that listens there, which the caller has to close; port 0 takes a free one.
/// Throws std::system_error with a message that names the address.
int open_listener(const inputs::Endpoint& endpoint);

} // namespace quarn::live
