// What quarn-live says to who runs it, on standard error.
#pragma once

#include <string_view>

namespace quarn::live {

/// One line with the local time, from any thread; what is not printable in it is shown escaped. The
/// journal of systemd has times of its own and gets none. Never waits: lines that nobody reads are
/// left out, and their number is told when somebody does again.
void tell(std::string_view text);
/// The same without the time: why it does not start, for who has just tried.
void tell_at_once(std::string_view text);

} // namespace quarn::live
