// The analyzer beside a live input: the checks of quarn, with the lines of doc/alerts.md, in a
// process of its own.
//
// Some tables end the analyzer's process by an invariant, and its logs and its count of lost
// synchronisations are a process's: so each input has a process, this executable started again with
// `--analyzer`, and no table that one channel sends can end or delay another's. Datagrams reach it
// through shared memory; who feeds it never waits for it. What it cannot take in time is dropped
// here and counted.
//
// A process that ends is started again: at once if it ran for a minute, else after 1 s and twice as
// long each time, up to 60 s. What came before it is back is not analysed; its packet numbers and
// its lines say so. Its counters begin anew.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "live/analyzer_process.h"
#include "live/analyzer_settings.h"
#include "live/analyzer_shared.h"

namespace quarn::live {

/// The end of an analyzer that nobody asked for.
struct AnalyzerEnd {
    enum class Reason : std::uint8_t {
        invariant,  // an assertion: a table that cannot be, see tsanalyze.h
        crash,      // any other signal or status
        hang,       // it took nothing for 10 s though there was something, and was ended
        lost_sync,  // too many losses of synchronisation, see LOST-SYNC in doc/alerts.md
        cannot_run, // no process, no memory, a log that cannot be opened
    };
    Reason reason = Reason::crash;
    std::vector<std::uint8_t> packet; // 188 bytes: the one that was being analysed; empty: none
    std::uint64_t packet_index = 0;   // its number from 1 in the analyzer's lines
    std::string text;                 // the invariant, or what else it said last; one line
    int status = 0;                   // as of waitpid(); -1: not known
};

/// Told in the thread that calls tick(). May be empty.
struct AnalyzerCalls {
    std::function<void(const AnalyzerEnd&)> ended;
    /// A line that it has written to its standard error: trouble with its logs.
    std::function<void(std::string_view)> said;
};

/// datagram(), missing() and tick() belong to one thread, the figures too. reopen() may be called
/// from any. stop() and end() only once the others are not called any more, from any thread.
class Analyzer {
  public:
    /// Settings without error, see wrong_settings(). Starts nothing yet, but takes datagrams.
    /// Throws std::system_error when there is no memory or no descriptor left (it needs three).
    Analyzer(const AnalyzerSettings& settings, AnalyzerCalls calls);
    /// end(), unless that was done.
    ~Analyzer();
    Analyzer(const Analyzer&) = delete;
    Analyzer& operator=(const Analyzer&) = delete;

    /// A datagram as it came, RTP header and all: the analyzer's process puts those of RTP in
    /// order. Blocks of a pipe or file may be longer and may cut packets. Neither waits nor
    /// allocates.
    void datagram(std::span<const std::uint8_t> bytes);
    /// So many datagrams were dropped on this machine before the next one.
    void missing(std::uint64_t datagrams);
    /// Starts the process, looks after it, tells of its end. `now` in 27 MHz ticks of a clock
    /// that never runs backwards. To be called a few times a second.
    void tick(std::int64_t now);

    /// Opens the logs again: they were moved, by logrotate for instance. Done within 0.1 s or so.
    void reopen();
    /// Asks the process to analyse what waits, write its last statistics and end.
    void stop();
    /// stop(), and waits until it has ended; ends it 5 s after stop() was first called.
    void end();

    pid_t pid() const { return process_.pid(); } // 0: none
    bool running() const { return process_.pid() != 0; }
    std::uint32_t waiting() const { return ring_.waiting(); } // bytes that it has yet to take
    std::uint64_t restarts() const { return restarts_; }      // ends that nobody asked for
    /// Datagrams that it was too slow for, and that came while it did not run.
    std::uint64_t dropped() const { return dropped_; }
    std::uint64_t unseen() const { return unseen_; }

  private:
    class Memory {
      public:
        explicit Memory(std::size_t ring_bytes);
        ~Memory();
        Memory(const Memory&) = delete;
        Memory& operator=(const Memory&) = delete;
        WorkerShared& shared() const { return *shared_; }
        std::span<std::uint8_t> ring() const;
        int fd() const { return fd_.get(); }

      private:
        Descriptor fd_;
        std::size_t size_;
        WorkerShared* shared_ = nullptr;
    };

    void put(std::span<const std::uint8_t> block);
    void ring_bell() const;
    void listen();
    void start(std::int64_t now);
    void watch(std::int64_t now);
    void ended(int status, std::int64_t now);
    void wait_longer(std::int64_t now);
    AnalyzerEnd obituary(int status) const;

    std::string title_;
    AnalyzerCalls calls_;
    Memory memory_;
    RingView ring_;
    Descriptor bell_;
    AnalyzerProcess process_;
    std::string text_; // the last lines that the process has written

    bool taking_ = true; // datagrams go into the ring
    bool rang_ = false;  // since the ring was last half full
    bool hung_ = false;
    std::uint64_t missing_ = 0; // datagrams since the last one in the ring
    std::uint64_t restarts_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t unseen_ = 0;

    std::int64_t started_; // ticks
    std::int64_t next_start_;
    std::int64_t delay_;    // before the next start
    std::int64_t progress_; // when it last took something, or nothing waited
    std::uint32_t position_ = 0;
    std::chrono::steady_clock::time_point end_by_{}; // once it was told to
};

} // namespace quarn::live
