#include "tell.h"

#include <unistd.h>

#include <string>

#include "reports/text.h"

namespace quarn::live {

void tell(std::string_view text) {
    const std::string line = "quarn-live: " + printable(text) + "\n";
    // One write, so that lines of several threads stay whole. Nothing can be done where it fails.
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0)
        return;
}

} // namespace quarn::live
