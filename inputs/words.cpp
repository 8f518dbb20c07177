#include "input.h"

namespace quarn::inputs {

std::string_view word(ErrorKind kind) {
    switch (kind) {
    case ErrorKind::not_found:
        return "not_found";
    case ErrorKind::directory:
        return "directory";
    case ErrorKind::empty:
        return "empty";
    case ErrorKind::not_ts:
        return "not_ts";
    case ErrorKind::unreadable:
        return "unreadable";
    }
    return "";
}

} // namespace quarn::inputs
