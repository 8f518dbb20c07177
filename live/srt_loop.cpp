#include "srt_loop.h"

#include <algorithm>
#include <array>

#include <srt/srt.h>

namespace quarn::live {
namespace {

constexpr std::int64_t tick_interval = 200 * inputs::ns_per_ms;
constexpr int wait_ms = 20;
constexpr std::size_t most_events = 64;

} // namespace

SrtLoop::SrtLoop() {
    begin("quarn-srt");
    try {
        run_there([this] {
            library_ = std::make_unique<inputs::SrtLibrary>();
            epoll_ = srt_epoll_create();
            srt_epoll_set(epoll_, SRT_EPOLL_ENABLE_EMPTY);
        });
    } catch (...) {
        finish();
        throw;
    }
}

SrtLoop::~SrtLoop() {
    run_there([this] {
        for (const auto& receiver : receivers_)
            receiver->stop();
        receivers_.clear();
        srt_epoll_release(epoll_);
        epoll_ = -1;
        library_.reset();
    });
    finish();
}

const inputs::Receiver* SrtLoop::adopt(const inputs::InputUrl& url, inputs::Consumer& consumer) {
    run_there([&] {
        auto receiver = std::make_unique<inputs::SrtReceiver>(url, consumer);
        receivers_.reserve(receivers_.size() + 1);
        receiver->start(*this);
        receivers_.push_back(std::move(receiver));
    });
    return receivers_.back().get();
}

void SrtLoop::release(const inputs::Receiver* receiver) {
    run_there([&] {
        const auto place =
            std::ranges::find(receivers_, receiver, [](const auto& one) { return one.get(); });
        (*place)->stop();
        receivers_.erase(place);
    });
}

bool SrtLoop::watch(int socket, inputs::Receiver& receiver) {
    const int events = static_cast<int>(SRT_EPOLL_IN) | static_cast<int>(SRT_EPOLL_ERR);
    sockets_[socket] = &receiver;
    return srt_epoll_add_usock(epoll_, socket, &events) == 0;
}

void SrtLoop::forget(int socket) {
    sockets_.erase(socket);
    srt_epoll_remove_usock(epoll_, socket);
}

void SrtLoop::turn() {
    std::array<SRT_EPOLL_EVENT, most_events> events;
    int count = 0;
    if (epoll_ >= 0)
        count = srt_epoll_uwait(epoll_, events.data(), static_cast<int>(most_events),
                                more_ ? 0 : wait_ms);
    const inputs::Turn turn{inputs::moment(), stamps_};
    more_ = false;
    for (int i = 0; i < std::min(count, static_cast<int>(most_events)); ++i)
        if (const auto found = sockets_.find(events[static_cast<std::size_t>(i)].fd);
            found != sockets_.end())
            more_ |= found->second->read(turn);
    if (turn.now.monotonic_ns < next_tick_ns_)
        return;
    next_tick_ns_ = turn.now.monotonic_ns + tick_interval;
    for (const auto& receiver : receivers_)
        receiver->tick(turn);
}

} // namespace quarn::live
