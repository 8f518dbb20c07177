// Call-stack dumps into a caller's buffer, for hosts that report where they are. Owns nothing.
#include "log.h"

#include <cerrno>
#include <cstdlib>
#include <execinfo.h>
#include <memory>

namespace {
constexpr int MAX_FRAMES = 16;

struct with_free {
    void operator()(char** symbols) const { free(symbols); }
};
} // namespace

static void put_frames(char* buf, std::size_t len, char** symbols, int count) {
    for (int i = 0; i < count && len > 0; ++i) {
        const int n = snprintf(buf, len, "#%d: %s\n", i, symbols[i]);
        if (n < 0 || static_cast<std::size_t>(n) >= len)
            return;
        buf += n;
        len -= static_cast<std::size_t>(n);
    }
}

int btrace_to_buf(char* buf, std::size_t len) {
    void* frames[MAX_FRAMES];
    errno = 0;
    const int count = backtrace(frames, MAX_FRAMES);
    if (count <= 0) {
        if (errno != 0)
            perror("backtrace");
        return -1;
    }
    const std::unique_ptr<char*, with_free> symbols(backtrace_symbols(frames, count));
    if (!symbols) {
        perror("backtrace_symbols");
        return -1;
    }
    put_frames(buf, len, symbols.get(), count);
    return 0;
}

int snprintf_btrace(char* buf, std::size_t len, const char* fmt, ...) {
    std::size_t used = 0;
    if (fmt != nullptr) {
        va_list ap;
        va_start(ap, fmt);
        const int n = vsnprintf(buf, len, fmt, ap);
        va_end(ap);
        if (n <= 0 || static_cast<std::size_t>(n) >= len)
            return -1;
        used = static_cast<std::size_t>(n);
    }
    return btrace_to_buf(buf + used, len - used);
}
