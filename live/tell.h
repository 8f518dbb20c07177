// What quarn-live says to who runs it, on standard error.
#pragma once

#include <string_view>

namespace quarn::live {

/// One line, from any thread; what is not printable in it is shown escaped.
void tell(std::string_view text);

} // namespace quarn::live
