// What several threads say at the same time, written in the order of the inputs.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace quarn::check {

/// A file that is written to and may fail. Says what has gone wrong, once, on standard error; only
/// a reader that went away is not worth a word.
class Target {
  public:
    Target(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

    void write(std::string_view text);
    bool failed() const { return failed_; }

  private:
    int fd_;
    std::string name_;
    bool failed_ = false;
};

/// What is known of an input when it is done.
struct Ending {
    std::string junit;
    std::string complaint; // for standard error
};

/// Inputs have numbers from 0. What is written for the one whose turn it is goes out at once; what
/// is written for those behind it waits, in memory up to a megabyte for all of them together,
/// then in temporary files. All functions may be called from any thread.
class OrderedOutput {
  public:
    /// `junit` may be null. `before_write` is called before anything is written.
    OrderedOutput(Target& out, Target* junit, std::function<void()> before_write);

    /// Waits until the input is near enough to its turn: an input that takes long is not overtaken
    /// by thousands whose output would have to be kept. False: writing has failed, stop.
    bool begin(std::size_t input);
    void write(std::size_t input, std::string_view text);
    void finish(std::size_t input, Ending ending);
    bool failed();

  private:
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    /// An input whose turn has not come.
    struct Waiting {
        std::string text;                            // behind what is in the file
        std::unique_ptr<std::FILE, CloseFile> spill; // removed when it is closed
        bool done = false;
        Ending ending;
    };

    bool any_failed() const { return out_.failed() || (junit_ && junit_->failed()); }
    bool spill(Waiting& waiting);
    void write_out(Waiting& waiting);
    void advance();

    Target& out_;
    Target* junit_;
    std::function<void()> before_write_;
    std::mutex mutex_;
    std::condition_variable turned_;
    std::map<std::size_t, Waiting> waiting_;
    std::size_t turn_ = 0;
    std::size_t in_memory_ = 0; // bytes of all waiting texts
};

} // namespace quarn::check
