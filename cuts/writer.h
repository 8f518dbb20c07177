// The thread that writes the cuts of all live inputs.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "file.h"
#include "memory.h"

namespace quarn::cuts {

/// Where the bytes of one cut go. Used by the thread that writes, alone.
class Destination {
  public:
    virtual ~Destination() = default;
    /// The next bytes; may take long. Once that has failed nothing more is taken.
    virtual void write(std::span<const std::uint8_t> bytes) = 0;
    /// It is at its end; `whole`: as was meant.
    virtual void close(bool whole) = 0;
};

/// Any thread may hand something over, and none ever waits for a disk.
class Writer {
  public:
    /// `tell`: says what goes wrong to who runs the program, in any thread.
    explicit Writer(std::function<void(std::string_view)> tell);
    ~Writer() { end(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// A file of that path, made when the first bytes come. It is taken away where it cannot be
    /// written; one that is closed before it is whole stays as far as it goes. Both are told.
    std::shared_ptr<Destination> file(std::string path);
    /// A block that was pinned for this; it is unpinned when it was written.
    void write(const std::shared_ptr<Destination>& to, const std::shared_ptr<Blocks>& blocks,
               std::size_t block);
    void close(const std::shared_ptr<Destination>& to, bool whole);

    /// Files that are missing or not whole.
    std::uint64_t failures() const { return state_->failures; }

    /// Goes on for up to `patience` with what waits; nothing is taken any more. What hangs then is
    /// left to the end of the process, and told. Returns whether all files are there, and whole.
    bool end();

    static constexpr std::chrono::seconds patience{3};

  private:
    struct Item {
        std::shared_ptr<Destination> to;
        std::shared_ptr<Blocks> blocks; // null: close
        std::size_t block = 0;
        bool whole = true;
    };
    /// Outlives the writer where the thread hangs.
    struct State {
        std::function<void(std::string_view)> tell;
        std::atomic<std::uint64_t> failures = 0;
        std::mutex mutex;
        std::condition_variable wake;
        std::condition_variable done;
        std::deque<Item> waiting;
        bool ending = false;
        bool ended = false;
    };
    class FileDestination;
    static void work(State& state);
    void add(Item item);

    std::shared_ptr<State> state_;
};

} // namespace quarn::cuts
