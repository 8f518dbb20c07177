#include "writer.h"

#include <csignal>
#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

namespace quarn::cuts {

namespace {

void name_thread() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    ::pthread_setname_np(::pthread_self(), "quarn-cuts");
}

} // namespace

class Writer::FileDestination final : public Destination {
  public:
    FileDestination(std::string path, std::shared_ptr<State> state)
        : path_(std::move(path)), state_(std::move(state)) {}

    void write(std::span<const std::uint8_t> bytes) override {
        if (given_up_)
            return;
        int error = 0;
        if (!file_)
            file_ = File::create(path_, error);
        if (file_)
            error = file_->append(bytes);
        if (error != 0)
            give_up(error);
    }
    void close(bool whole) override {
        if (!whole && !given_up_) {
            ++state_->failures;
            state_->tell("cut " + path_ + ": the disk is too slow; it ends too early");
        }
        if (file_ && !file_->is_there()) {
            ++state_->failures;
            state_->tell("cut " + path_ + ": was removed while it was open");
        }
        file_.reset();
    }

  private:
    void give_up(int error) {
        given_up_ = true;
        if (file_)
            file_->remove(); // makes room where the disk is full
        file_.reset();
        ++state_->failures;
        state_->tell("cut " + path_ + ": " + std::generic_category().message(error) +
                     "; it is given up");
    }

    std::string path_;
    std::shared_ptr<State> state_;
    std::optional<File> file_;
    bool given_up_ = false;
};

Writer::Writer(std::function<void(std::string_view)> tell) : state_(std::make_shared<State>()) {
    state_->tell = std::move(tell);
    std::thread([state = state_] { work(*state); }).detach();
}

std::shared_ptr<Destination> Writer::file(std::string path) {
    return std::make_shared<FileDestination>(std::move(path), state_);
}

bool Writer::end() {
    std::unique_lock lock(state_->mutex);
    if (!state_->ending) {
        state_->ending = true;
        state_->wake.notify_one();
        if (!state_->done.wait_for(lock, patience, [this] { return state_->ended; }))
            state_->tell("the disk is too slow: cuts that were not written by now are lost");
    }
    return state_->ended && state_->failures == 0;
}

void Writer::add(Item item) {
    {
        const std::lock_guard lock(state_->mutex);
        state_->waiting.push_back(std::move(item));
    }
    state_->wake.notify_one();
}

void Writer::write(const std::shared_ptr<Destination>& to, const std::shared_ptr<Blocks>& blocks,
                   std::size_t block) {
    add({to, blocks, block, true});
}

void Writer::close(const std::shared_ptr<Destination>& to, bool whole) {
    add({to, nullptr, 0, whole});
}

void Writer::work(State& state) {
    name_thread();
    for (;;) {
        Item item;
        {
            std::unique_lock lock(state.mutex);
            state.wake.wait(lock, [&] { return state.ending || !state.waiting.empty(); });
            if (state.waiting.empty())
                break;
            item = std::move(state.waiting.front());
            state.waiting.pop_front();
        }
        if (!item.blocks) {
            item.to->close(item.whole);
            continue;
        }
        item.to->write(item.blocks->bytes(item.block));
        item.blocks->unpin(item.block);
    }
    const std::lock_guard lock(state.mutex);
    state.ended = true;
    state.done.notify_one();
}

} // namespace quarn::cuts
