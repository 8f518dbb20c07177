#include "loops.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "inputs/file_player.h"
#include "inputs/pipe_receiver.h"
#include "inputs/udp_receiver.h"
#include "loop.h"
#include "srt_loop.h"

namespace quarn::live {

using Scheme = inputs::InputUrl::Scheme;

class Loops::Impl {
  public:
    explicit Impl(unsigned count) {
        for (unsigned i = 0; i < std::max(count, 1U); ++i)
            udp_.push_back({std::make_unique<Loop>(("quarn-udp" + std::to_string(i)).c_str()), 0});
    }

    Handle add(const inputs::InputUrl& url, inputs::Consumer& consumer) {
        Home home;
        if (url.scheme == Scheme::srt) {
            if (!srt_)
                publish(srt_, srt_seen_, std::make_unique<SrtLoop>());
            home.receiver = srt_->adopt(url, consumer);
        } else {
            auto receiver = open(url, consumer);
            home.receiver = receiver.get();
            home.share = url.datagrams() ? &least_busy() : nullptr;
            home.standard_input = url.scheme == Scheme::standard_input;
            if (!home.share && !files_)
                publish(files_, files_seen_, std::make_unique<Loop>("quarn-files"));
            home.loop = home.share ? home.share->loop.get() : files_.get();
            home.loop->adopt(std::move(receiver));
            if (home.share)
                ++home.share->inputs;
            standard_input_taken_ |= home.standard_input;
        }
        const Handle handle{++last_};
        homes_.emplace(handle, home);
        return handle;
    }

    void remove(Handle handle) {
        const auto found = homes_.find(handle);
        if (found == homes_.end())
            return;
        const Home& home = found->second;
        if (home.loop)
            home.loop->release(home.receiver);
        else
            srt_->release(home.receiver);
        if (home.share)
            --home.share->inputs;
        if (home.standard_input)
            standard_input_taken_ = false;
        homes_.erase(found);
    }

    std::chrono::steady_clock::time_point last_turn() const {
        auto oldest = udp_.front().loop->last_turn();
        for (const Share& share : udp_)
            oldest = std::min(oldest, share.loop->last_turn());
        for (const auto* seen : {&files_seen_, &srt_seen_})
            if (const Worker* worker = *seen)
                oldest = std::min(oldest, worker->last_turn());
        return oldest;
    }

  private:
    struct Share {
        std::unique_ptr<Loop> loop;
        std::size_t inputs = 0;
    };
    struct Home {
        const inputs::Receiver* receiver = nullptr;
        Loop* loop = nullptr; // null: SRT
        Share* share = nullptr;
        bool standard_input = false;
    };

    std::unique_ptr<inputs::Receiver> open(const inputs::InputUrl& url,
                                           inputs::Consumer& consumer) const {
        if (url.datagrams())
            return std::make_unique<inputs::UdpReceiver>(url, consumer);
        if (url.scheme == Scheme::file)
            return std::make_unique<inputs::FilePlayer>(url, consumer);
        if (standard_input_taken_)
            throw std::runtime_error("standard input is an input already");
        return std::make_unique<inputs::PipeReceiver>(STDIN_FILENO, consumer);
    }

    Share& least_busy() {
        return *std::min_element(udp_.begin(), udp_.end(), [](const Share& a, const Share& b) {
            return a.inputs < b.inputs;
        });
    }

    template <typename Made>
    static void publish(std::unique_ptr<Made>& owner, std::atomic<const Worker*>& seen,
                        std::unique_ptr<Made> made) {
        owner = std::move(made);
        seen = owner.get();
    }

    std::vector<Share> udp_;
    std::unique_ptr<Loop> files_;
    std::unique_ptr<SrtLoop> srt_;
    std::atomic<const Worker*> files_seen_ = nullptr; // for last_turn(), from any thread
    std::atomic<const Worker*> srt_seen_ = nullptr;
    std::map<Handle, Home> homes_;
    std::uint64_t last_ = 0;
    bool standard_input_taken_ = false;
};

Loops::Loops(unsigned count) : impl_(std::make_unique<Impl>(count)) {}

Loops::~Loops() = default;

Loops::Handle Loops::add(const inputs::InputUrl& url, inputs::Consumer& consumer) {
    return impl_->add(url, consumer);
}

void Loops::remove(Handle handle) {
    impl_->remove(handle);
}

std::chrono::steady_clock::time_point Loops::last_turn() const {
    return impl_->last_turn();
}

} // namespace quarn::live
