// Puts the parts of the library together: first look, clock, timed rules, findings, verdict.
#include "stream.h"

#include <algorithm>

#include "clock.h"
#include "findings.h"
#include "first_look.h"
#include "recorder.h"
#include "timed.h"
#include "verdict.h"

namespace quarn {

namespace {
constexpr std::uint64_t wait_for_clock = 10'000; // packets
constexpr std::size_t most_items =
    100'000; // that wait for the clock; more come from hostile input only
constexpr std::size_t most_items_live = 20'000;
// Live, by the arrival clock:
constexpr Ticks step_every = 50 * ticks_per_ms;
constexpr Ticks look_every = 100 * ticks_per_ms;
constexpr Ticks pause_after = 500 * ticks_per_ms; // without a packet
constexpr Ticks clock_lags = 700 * ticks_per_ms;  // times are known that long behind the packets
} // namespace

class Stream::Impl {
  public:
    Impl(const Options& options, Sink& sink)
        : options_(options), findings_(options_, sink),
          clock_(options.bitrate, options.limits.pcr_gap, options.live),
          timed_(options_, findings_, clock_), look_(clock_, timed_, options.live) {
        if (options_.series) {
            look_.count();
            timed_.record(recorder_);
        }
        if (options_.expect || options_.observe)
            look_.count();
        if (options_.expect)
            look_.tell_names();
    }

    void packet(const std::uint8_t* bytes, const PacketInfo& info) {
        if (options_.live || anew_)
            return live_packet(bytes, info);
        look_.packet(bytes, {index_, info.byte, info.utc_us}, info.arrival, info.sync_right);
        ++index_;
        if (index_ >= next_step_)
            step();
    }

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) {
        for (; (options_.live || anew_) && count > 0; --count) {
            live_packet(first, {byte, no_time, no_time, true});
            first += stride;
            byte += stride;
        }
        for (; count > 0; --count) {
            look_.packet(first, {index_, byte, no_time}, no_time, true);
            first += stride;
            byte += stride;
            ++index_;
            if (index_ >= next_step_)
                step();
        }
    }

    void sync_loss(const SyncLoss& loss) { look_.sync_loss(loss, index_); }
    void datagrams(const DatagramEvent& event) {
        look_.datagrams(event, {index_, look_.last().byte + packet_size, look_.last().utc_us});
    }
    void truncated(std::uint64_t byte, std::int64_t bytes) {
        look_.truncated({index_, byte, no_time}, bytes);
    }

    void tick(Ticks now, std::int64_t utc_us);
    void own_drops() { anew_ = true; }

    void end() {
        if (ended_)
            return;
        ended_ = true;
        look_.finish();
        while (const auto interval = clock_.next(look_.last(), true))
            timed_.interval(*interval, look_.queue(), look_.null_share());
        timed_.finish(look_.queue(), look_.last());
    }

    Summary summary() const;
    Observed observed() const { return timed_.observed(look_.last()); }
    TimeSeries series() { return recorder_.take(clock_.place(look_.last())); }
    Counters counters() const;

  private:
    // A packet of a live input, or behind what the host has dropped.
    void live_packet(const std::uint8_t* bytes, PacketInfo info) {
        if (info.arrival == no_time && options_.live)
            info.arrival = now_;
        now_ = std::max(now_, info.arrival);
        clock_.arrived(now_);
        last_arrival_ = now_;
        const At at = {index_, info.byte, info.utc_us};
        if (anew_)
            look_.anew(at, info.arrival, away_);
        anew_ = away_ = false;
        look_.packet(bytes, at, info.arrival, info.sync_right);
        ++index_;
        if (index_ >= next_step_ || now_ >= next_step_time_)
            step();
    }

    // Now and then the clock is asked for what it has decided.
    void step() {
        next_step_ = index_ + 64;
        next_step_time_ = now_ == no_time ? INT64_MAX : now_ + step_every;
        look_.settle();
        const At& last = look_.last();
        while (const auto interval = clock_.next(last, false))
            timed_.interval(*interval, look_.queue(), look_.null_share());
        shed();
        if (!clock_.has_clock() && last.index > wait_for_clock + untimed_to_) {
            untimed_to_ = last.index - wait_for_clock;
            timed_.untimed(look_.queue(), {untimed_to_, 0, no_time});
        }
    }

    // A sender that notes more in a second than any stream does gets estimates for times.
    void shed() {
        auto& queue = look_.queue();
        const std::size_t most = options_.live ? most_items_live : most_items;
        if (queue.size() > most)
            timed_.untimed(queue, queue[most / 2].at);
    }

    void decide_all();
    void judge_packets(Answers& answers) const;
    void judge_without_pat(Answers& answers) const;
    std::vector<ProgramSummary> programs(std::optional<Ticks> duration) const;

    const Options options_;
    Findings findings_;
    StreamClock clock_;
    Timed timed_;
    FirstLook look_;
    Recorder recorder_;
    const Ticks away_after_ = silence_limit(options_.limits);
    std::uint64_t index_ = 0;
    std::uint64_t next_step_ = 64;
    std::uint64_t untimed_to_ = 0;
    bool ended_ = false;
    bool anew_ = false; // nothing is known of what was before the next packet
    // Live, arrival clock:
    bool away_ = false; // nothing has come for a while
    Ticks now_ = no_time;
    Ticks last_arrival_ = no_time; // of a packet; before the first one of the first tick
    Ticks next_look_ = no_time;
    Ticks next_step_time_ = INT64_MAX;
};

void Stream::Impl::tick(Ticks now, std::int64_t utc_us) {
    if (!options_.live || ended_)
        return;
    now_ = std::max(now_, now);
    clock_.arrived(now_);
    if (last_arrival_ == no_time)
        last_arrival_ = now_;
    const Ticks idle = now_ - last_arrival_;
    if (index_ > 0 && !away_) {
        if (idle >= pause_after) {
            look_.pause();
            timed_.pause(look_.last());
        } else if (now_ >= next_look_)
            look_.look();
        next_look_ = now_ + look_every;
        step();
    }
    if (index_ > 0 && idle > clock_lags)
        timed_.wait(look_.last(), idle - clock_lags);
    if (idle < away_after_)
        return;
    if (!away_ && index_ > 0)
        decide_all();
    away_ = anew_ = true;
    timed_.away(look_.last(), idle, utc_us);
}

// The rows that need nothing but packets, and those that are not measured here.
void Stream::Impl::judge_packets(Answers& answers) const {
    if (index_ > 0) {
        for (const Rule rule :
             {Rule::ts_sync_loss, Rule::sync_byte_error, Rule::continuity_count_error,
              Rule::transport_error, Rule::truncated, Rule::datagram_error})
            answers.yes(rule);
        if (clock_.pid())
            answers.yes(Rule::clock_jump);
    }
    for (const Rule rule : {Rule::buffer_error, Rule::empty_buffer_error, Rule::data_delay_error})
        answers.no(rule, "not measured", std::nullopt);
    for (const Rule rule : {Rule::analyzer_ended, Rule::suppressed})
        answers.not_applicable(rule, "live inputs only");
}

// Programs may well be there, but nothing says where.
void Stream::Impl::judge_without_pat(Answers& answers) const {
    for (const Rule rule : {Rule::pmt_error_2, Rule::pid_error, Rule::pcr_repetition_error,
                            Rule::pcr_discontinuity_indicator_error, Rule::pcr_accuracy_error,
                            Rule::pts_error, Rule::late_stamp, Rule::stamp_jump, Rule::stamp_order,
                            Rule::scrambling_changed, Rule::off_air}) {
        const bool left_out = options_.profile == Profile::segment &&
                              (rule == Rule::pcr_repetition_error || rule == Rule::pts_error);
        if (!left_out)
            answers.no(rule, "no PAT", std::nullopt);
    }
}

std::vector<ProgramSummary> Stream::Impl::programs(std::optional<Ticks> duration) const {
    std::vector<ProgramSummary> all;
    const auto& services = look_.tables().services();
    for (const Program& p : timed_.seen().programs) {
        ProgramSummary s;
        s.number = p.number;
        s.pmt_pid = p.pmt_pid;
        if (p.pmt_in_force && p.pcr_pid != null_pid)
            s.pcr_pid = p.pcr_pid;
        if (const auto service = services.find(p.number); service != services.end()) {
            s.name = service->second.name;
            s.provider = service->second.provider;
        }
        for (const ElementaryStream& e : p.streams) {
            StreamSummary x;
            x.pid = e.pid;
            x.kind = e.kind;
            x.codec = e.codec;
            x.language = e.language;
            x.packets = look_.packets(e.pid);
            x.lost = timed_.lost(e.pid);
            x.scrambled = look_.scrambled(e.pid);
            if (duration && *duration > 0)
                x.bitrate =
                    static_cast<std::uint64_t>(static_cast<double>(x.packets) * 8 * packet_size *
                                               ticks_per_second / static_cast<double>(*duration));
            s.streams.push_back(std::move(x));
        }
        all.push_back(std::move(s));
    }
    return all;
}

Summary Stream::Impl::summary() const {
    Summary s;
    s.packets = index_;
    s.bytes = index_ * packet_size;
    s.clock = clock_.summary();
    s.duration = clock_.duration();
    if (s.duration && *s.duration > 0)
        s.bitrate =
            static_cast<std::uint64_t>(static_cast<double>((s.packets - 1) * packet_size * 8) *
                                       ticks_per_second / static_cast<double>(*s.duration));
    s.programs = programs(s.duration);
    s.segment_hint = timed_.pats() == 1 && timed_.first_pat() < 100;
    s.program_missing = options_.program && timed_.seen().program(*options_.program) == nullptr;
    Answers answers(options_, timed_.seen());
    if (index_ > 0 && !look_.tables().current()->pat_in_force)
        judge_without_pat(answers);
    timed_.judge(answers, s.duration);
    judge_packets(answers);
    s.rules = answers.rows(findings_);
    decide(s, options_, findings_);
    return s;
}

// Whatever the clock still waited for.
void Stream::Impl::decide_all() {
    for (int pass = 0; pass < 2; ++pass) { // the second up to the last packet
        while (const auto interval = clock_.next(look_.last(), true))
            timed_.interval(*interval, look_.queue(), look_.null_share());
        if (pass == 0)
            look_.pause();
    }
    if (!look_.queue().empty())
        timed_.untimed(look_.queue(), look_.last());
}

Counters Stream::Impl::counters() const {
    Counters c;
    c.packets = index_;
    findings_.count(c);
    timed_.count(c);
    return c;
}

Stream::Stream(const Options& options, Sink& sink) : impl_(std::make_unique<Impl>(options, sink)) {}
Stream::~Stream() = default;
Stream::Stream(Stream&&) noexcept = default;
Stream& Stream::operator=(Stream&&) noexcept = default;

void Stream::packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                     std::uint64_t byte) {
    impl_->packets(first, count, stride, byte);
}
void Stream::packet(const std::uint8_t* packet, const PacketInfo& info) {
    impl_->packet(packet, info);
}
void Stream::sync_loss(const SyncLoss& loss) {
    impl_->sync_loss(loss);
}
void Stream::datagrams(const DatagramEvent& event) {
    impl_->datagrams(event);
}
void Stream::truncated(std::uint64_t byte, std::int64_t bytes) {
    impl_->truncated(byte, bytes);
}
void Stream::tick(Ticks now, std::int64_t utc_us) {
    impl_->tick(now, utc_us);
}
void Stream::own_drops() {
    impl_->own_drops();
}
void Stream::end() {
    impl_->end();
}
Summary Stream::summary() const {
    return impl_->summary();
}
Observed Stream::observed() const {
    return impl_->observed();
}
TimeSeries Stream::series() {
    return impl_->series();
}
Counters Stream::counters() const {
    return impl_->counters();
}

} // namespace quarn
