// The line on the terminal that says how far a long run is.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "judge.h"

namespace quarn::check {

/// All functions may be called from any thread.
class Progress {
  public:
    /// `shown`: whether standard error is a terminal that wants it.
    Progress(bool shown, std::size_t inputs) : shown_(shown), inputs_(inputs) {}

    /// An input that is worked on, for as long as it exists.
    struct Item {
        Item(Progress& of, const std::string& input);
        ~Item();
        Item(const Item&) = delete;
        Item& operator=(const Item&) = delete;

        Progress& progress;
        std::string name;
        Position position;
    };

    /// Draws the line anew; to be called a few times a second.
    void draw();
    /// Takes the line away, for something else to be written.
    void clear();

  private:
    bool shown_;
    std::size_t inputs_;
    std::size_t done_ = 0;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
    std::mutex mutex_;
    std::vector<Item*> running_; // the longest first
};

} // namespace quarn::check
