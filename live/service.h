// All that quarn-live does, put together: inputs, channels, outputs, the server.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "channel.h"
#include "http.h"
#include "loops.h"
#include "outputs.h"
#include "settings.h"
#include "tell.h"

namespace quarn::live {

/// One thread at a time, but for healthy() and snapshots().
class Service {
  public:
    /// Opens all inputs and outputs. `reader_gone`: see Outputs. Throws std::runtime_error (a port
    /// that is taken, a file that cannot be opened).
    Service(const CommandLine& line, std::function<void()> reader_gone);
    /// end(), unless that was done.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Opens logs again under their names, reads the configuration anew and goes on with it; inputs
    /// that stay as they are lose nothing. Throws settings::WrongValue or std::runtime_error, and
    /// all goes on as it was then.
    void reload();

    /// Ends in order: what is pending is decided, summaries are written. Returns the exit status:
    /// whether all that was found got where it should. Nothing else may be called behind it.
    int end();

    const Settings& settings() const { return settings_; }
    /// All inputs are of the kind that comes to an end, and have.
    bool over() const;
    /// The threads that read inputs have all begun a turn lately.
    bool healthy() const;
    std::vector<Snapshot> snapshots() const;

  private:
    struct Watched {
        Watched(const InputSettings& input, Outputs& outputs, std::shared_ptr<cuts::Writer> writer)
            : settings(input), channel(input, outputs, std::move(writer)) {}
        InputSettings settings;
        Channel channel;
        Loops::Handle handle{};
    };
    using Inputs = std::vector<std::shared_ptr<Watched>>;

    std::shared_ptr<Watched> opened(const InputSettings& input);
    Inputs open_new(const Settings& next);
    void close_all(const Inputs& inputs);
    std::unique_ptr<Http> server(const Settings& settings) const;
    void use(const Settings& next, const Inputs& fresh);
    std::shared_ptr<Watched> same(const InputSettings& input) const;
    bool any_leaves(const Settings& next,
                    const std::function<bool(const inputs::InputUrl&)>& which) const;

    const CommandLine line_;
    Settings settings_;
    Outputs outputs_;
    std::shared_ptr<cuts::Writer> writer_ = std::make_shared<cuts::Writer>(tell);
    mutable std::mutex mutex_; // guards which inputs there are
    Inputs inputs_;            // in the order of the settings
    Loops loops_;              // ends before the channels that it calls
    std::unique_ptr<Http> http_;
};

} // namespace quarn::live
