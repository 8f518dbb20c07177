// One input that is watched: from its datagrams to records and figures.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "analyzer.h"
#include "cuts/live_cuts.h"
#include "feed.h"
#include "inputs/consumer.h"
#include "measure/stream.h"
#include "outputs.h"
#include "quota.h"
#include "reports/records.h"
#include "settings.h"
#include "signal.h"
#include "snapshot.h"

namespace quarn::live {

/// Called by the thread that owns the input; snapshot() and over() by any.
class Channel final : public inputs::Consumer, private Sink {
  public:
    /// Outputs must outlive it. `writer`: of cuts, null where none are wanted. Throws
    /// std::runtime_error when a log cannot be opened, or there is no memory for cuts.
    Channel(const InputSettings& settings, Outputs& outputs,
            std::shared_ptr<cuts::Writer> writer = nullptr);
    ~Channel() override;

    /// Opens the analyzer's logs again. Any thread.
    void reopen();
    /// Tells the analyzer to come to its end, so that end() need not wait for it. No call comes any
    /// more from the input.
    void stop();
    /// Decides what is pending and writes the summary. Once, when no call comes any more from the
    /// input; an input that was over has done it by itself.
    void end();
    /// The input has come to its end.
    bool over() const { return over_; }
    /// Behind end(): what it was like was to be written, and was not.
    bool not_written() const { return not_written_; }

    /// As it was at most about a second ago.
    Snapshot snapshot() const;

    // inputs::Consumer
    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override;
    void packet(const std::uint8_t* packet, const inputs::PacketInfo& info) override;
    void sync_loss(const inputs::SyncLoss& loss) override;
    void datagrams(const inputs::DatagramEvent& event) override;
    void truncated(std::uint64_t byte, std::int64_t bytes) override;
    void raw(std::span<const std::uint8_t> datagram, const inputs::Arrival& when) override;
    void own_drops(std::uint64_t datagrams) override;
    void state(InputState state, std::string_view text) override;
    void tick(const inputs::Arrival& now) override;
    void ended() override;

  private:
    void finding(const Finding& finding) override;
    void write(const Finding& finding, Extras extras, bool always);
    std::optional<cuts::Where> cut(const Finding& finding);
    void keep(const Finding& finding, const std::string& record);
    void suppressed(State state);
    void analyzer_ended(const AnalyzerEnd& end);
    void write_expectation();
    Place here() const;
    Summary summary() const;
    struct Own;
    void note(Own& own) const;
    void forget_old();
    void second_is_over(const inputs::Arrival& now);
    void publish();
    void now_is(const Signal::State& state);

    const InputSettings settings_;
    Outputs& outputs_;
    Stream stream_;
    Feed feed_;
    Records records_;
    Quota quota_;
    const Ticks silence_limit_;
    Signal signal_;
    std::uint64_t suppressed_seq_ = 0; // of the q.13 that is raised; 0: none
    Place suppressed_begin_;
    static constexpr std::uint64_t suppressed_id = UINT64_MAX; // measured ones count from 1
    /// What the `clear` of a `raise` that was written must know.
    struct Raised {
        std::uint64_t seq = 0;
        std::optional<cuts::Where> cut;
    };
    std::map<std::uint64_t, Raised> raised_; // by id

    std::unique_ptr<cuts::LiveCuts> cuts_; // where they are wanted

    std::unique_ptr<Analyzer> analyzer_; // where it is wanted

    /// Findings that are made here and not by measuring.
    struct Own {
        std::uint64_t count = 0;
        std::optional<Place> first, last;
    };
    Own analyzer_ends_, suppressions_;

    struct Recent {
        std::uint64_t id = 0;
        Ticks when = 0; // ignored while it is open
        CurrentFinding finding;
    };
    std::deque<Recent> recent_; // newest first

    Snapshot now_;           // what is counted here
    inputs::Arrival last_{}; // the last moment that was heard of
    Ticks last_packet_ = no_time;
    Ticks second_ends_ = no_time;
    std::uint64_t second_bytes_ = 0;
    bool started_ = false, finished_ = false;
    std::atomic<bool> over_ = false;
    bool not_written_ = false;

    mutable std::mutex mutex_; // guards published_
    Snapshot published_;
};

} // namespace quarn::live
