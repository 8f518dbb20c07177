// A queue of records with a thread that takes them somewhere, however slowly.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "measure/rules.h"

namespace quarn::live {

/// A line of JSON with its line feed.
struct Record {
    std::string text;
    Severity severity = Severity::info;
    bool finding = false; // else start, summary
    std::string input;    // its name
};

/// Where records go. Its functions are called in the lane's thread, but for the constructor.
class Target {
  public:
    virtual ~Target() = default;
    /// Takes the record, or returns false to be asked again a little later; must not wait for long.
    virtual bool take(const Record& record) = 0;
    /// Called some times a second: for what goes on by itself.
    virtual void turn() {}
    /// Whether it still works on what it took.
    virtual bool busy() const { return false; }
    /// Its name may stand for something else now (a log was moved away).
    virtual void reopen() {}
};

/// Any thread may add records, and none ever waits: what does not fit is dropped and counted.
class Lane {
  public:
    /// At most so many records and bytes wait; what is dropped is added to `dropped`, which must
    /// outlive the lane.
    Lane(std::unique_ptr<Target> target, std::size_t most_records, std::size_t most_bytes,
         std::atomic<std::uint64_t>& dropped);
    /// Goes on for up to `patience` with what waits, drops the rest. A target that does not come
    /// back from what it does is left to itself a little later, for the program ends nevertheless.
    ~Lane();
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    void add(const Record& record);
    void reopen();

    static constexpr std::chrono::seconds patience{3};
    static constexpr std::chrono::seconds longer{2};

  private:
    class Queue;

    const std::size_t most_records_;
    const std::size_t most_bytes_;
    std::atomic<std::uint64_t>& dropped_;
    std::shared_ptr<Queue> queue_; // the thread's as well
    std::thread thread_;
};

} // namespace quarn::live
