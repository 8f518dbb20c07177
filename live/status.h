// Exit statuses of quarn-live.
#pragma once

namespace quarn::live {

inline constexpr int status_in_order = 0;
inline constexpr int status_lost = 1; // in order, but records or cuts were not written
inline constexpr int status_wrong =
    3; // option, configuration, a port that is taken; no --write-expect

} // namespace quarn::live
