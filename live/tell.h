// What quarn-live says to who runs it, on standard error.
#pragma once

#include <string_view>

namespace quarn::live {

/// One line, from any thread; what is not printable in it is shown escaped. Never waits: lines that
/// nobody reads are left out, and their number is told when somebody does again.
void tell(std::string_view text);

} // namespace quarn::live
