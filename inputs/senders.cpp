#include "senders.h"

#include <utility>

#include "moment.h"

namespace quarn::inputs {
namespace {

constexpr std::int64_t pause = 60 * ns_per_s;
constexpr std::int64_t alone = 10 * ns_per_s; // then the others have stopped

bool due(std::int64_t last_ns, std::int64_t now_ns) {
    return last_ns == 0 || now_ns - last_ns >= pause;
}

} // namespace

std::string Senders::text() const {
    if (!now_)
        return {};
    std::string text = "receiving datagrams from " + to_string(*now_);
    if (several_)
        text += " and from " + to_string(*before_) + " at the same time";
    return text;
}

std::optional<std::string> Senders::look(std::int64_t now_ns) {
    if (std::exchange(changes_, 0) >= 2) {
        several_ns_ = now_ns;
        if (several_ || !due(several_told_ns_, now_ns))
            return std::nullopt;
        several_ = true;
        several_told_ns_ = now_ns;
        return text() + ": two senders to one address";
    }
    const bool others_stopped = several_ && now_ns - several_ns_ >= alone;
    const bool replaced = !several_ && now_ != told_ && due(told_ns_, now_ns);
    if (!others_stopped && !replaced)
        return std::nullopt;
    several_ = false;
    told_ns_ = now_ns;
    const std::optional<Endpoint> before = std::exchange(told_, now_);
    return text() + (others_stopped ? " only" : " now, before from " + to_string(*before));
}

} // namespace quarn::inputs
