#include "loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace quarn::live {
namespace {

constexpr std::int64_t tick_interval = 200 * inputs::ns_per_ms;
constexpr int pause_ms = 5;
constexpr std::size_t most_events = 256;

// Of the thread that runs the turn, so that its stack does not hold them.
thread_local std::array<epoll_event, most_events> events;

int made(int fd, const char* what) {
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return fd;
}

} // namespace

Loop::Loop(const char* name)
    : epoll_(made(epoll_create1(EPOLL_CLOEXEC), "epoll")),
      wake_(made(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr; // no receiver: the mailbox
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event);
    begin(name);
}

Loop::~Loop() {
    run_there([this] {
        for (const auto& receiver : receivers_)
            receiver->stop();
        receivers_.clear();
    });
    finish();
    close(wake_);
    close(epoll_);
}

void Loop::adopt(std::unique_ptr<inputs::Receiver> receiver) {
    run_there([&] {
        receivers_.reserve(receivers_.size() + 1);
        receiver->start(*this);
        receivers_.push_back(std::move(receiver));
    });
}

void Loop::release(const inputs::Receiver* receiver) {
    run_there([&] {
        const auto place =
            std::ranges::find(receivers_, receiver, [](const auto& one) { return one.get(); });
        (*place)->stop();
        receivers_.erase(place);
    });
}

bool Loop::watch(int fd, inputs::Receiver& receiver) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &receiver;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0;
}

void Loop::forget(int fd) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
}

void Loop::wake() {
    const std::uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
}

void Loop::turn() {
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(most_events),
                                 wait_ms(inputs::moment().monotonic_ns));
    const inputs::Turn turn{inputs::moment(), stamps_};
    stamps_.sample(turn.now);
    const bool ready = read_ready(turn, count);
    const bool due = read_due(turn);
    more_ = ready || due;
    if (turn.now.monotonic_ns >= next_tick_ns_)
        tick(turn);
    if (!more_)
        pause();
}

/// The kernel hands out ready descriptors in turn: those that found no room come first next time.
bool Loop::read_ready(const inputs::Turn& turn, int count) {
    bool more = false;
    for (int i = 0; i < count; ++i) {
        auto* const receiver =
            static_cast<inputs::Receiver*>(events[static_cast<std::size_t>(i)].data.ptr);
        if (receiver)
            more |= receiver->read(turn);
        std::uint64_t calls = 0;
        if (!receiver)
            (void)!::read(wake_, &calls, sizeof calls);
    }
    return more;
}

bool Loop::read_due(const inputs::Turn& turn) {
    bool more = false;
    for (const auto& receiver : receivers_)
        if (receiver->due_ns() <= turn.now.monotonic_ns)
            more |= receiver->read(turn);
    return more;
}

void Loop::tick(const inputs::Turn& turn) {
    for (const auto& receiver : receivers_)
        receiver->tick(turn);
    next_tick_ns_ = turn.now.monotonic_ns + tick_interval;
}

int Loop::wait_ms(std::int64_t now_ns) const {
    if (more_)
        return 0;
    std::int64_t next = next_tick_ns_;
    for (const auto& receiver : receivers_)
        next = std::min(next, receiver->due_ns());
    const std::int64_t wait = (next - now_ns + inputs::ns_per_ms - 1) / inputs::ns_per_ms;
    return static_cast<int>(std::clamp<std::int64_t>(wait, 0, tick_interval / inputs::ns_per_ms));
}

/// Waits for the mailbox alone.
void Loop::pause() {
    pollfd mailbox{wake_, POLLIN, 0};
    (void)poll(&mailbox, 1, pause_ms);
}

} // namespace quarn::live
