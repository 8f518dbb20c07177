// Exit statuses.
#pragma once

#include <algorithm>
#include <array>

#include "measure/summary.h"

namespace quarn::check {

inline constexpr int status_healthy = 0;
inline constexpr int status_failed = 1;
inline constexpr int status_insufficient = 2;
inline constexpr int status_error = 3; // a wrong option, an input that cannot be read

constexpr int status_of(Verdict verdict) {
    switch (verdict) {
    case Verdict::healthy:
        return status_healthy;
    case Verdict::failed:
        return status_failed;
    case Verdict::insufficient:
        return status_insufficient;
    }
    return status_error;
}

/// The worse of two: 3, 1, 2, 0.
constexpr int worse(int a, int b) {
    for (const int status : {status_error, status_failed, status_insufficient})
        if (a == status || b == status)
            return status;
    return status_healthy;
}

} // namespace quarn::check
