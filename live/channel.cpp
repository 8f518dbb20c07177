#include "channel.h"

#include <algorithm>
#include <stdexcept>

#include "alert_logs.h"
#include "settings/expect_file.h"
#include "settings/words.h"
#include "tell.h"

namespace quarn::live {

namespace {

constexpr Ticks recent_for = 60 * ticks_per_second; // findings that are over are shown so long
constexpr std::size_t most_recent = 50;
constexpr std::size_t most_seconds = 300; // of bit rate
constexpr double ticks_to_bits = 8.0 * ticks_per_second;

std::string hex(const std::vector<std::uint8_t>& bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

/// The analyzer's process would only say so again and again.
void check_logs(const AnalyzerSettings& settings) {
    for (const std::string& log : {settings.alert_log, settings.text_log})
        if (const std::string why = log.empty() ? "" : why_no_log(log); !why.empty())
            throw std::runtime_error(why);
}

void name_cut(Extras& extras, const std::optional<cuts::Where>& cut) {
    if (!cut)
        return;
    extras.cut_file = cut->file;
    extras.cut_packet = cut->packet;
}

double seconds(std::int64_t utc_us) {
    return static_cast<double>(utc_us) / 1e6;
}

} // namespace

Channel::Channel(const InputSettings& settings, Outputs& outputs,
                 std::shared_ptr<cuts::Writer> writer)
    : settings_(settings), outputs_(outputs), stream_(settings.measure, *this), feed_(stream_),
      records_(settings.name), silence_limit_(silence_limit(settings.measure.limits)),
      signal_(silence_limit_, settings.url.datagrams() ? "datagrams" : "packets") {
    now_.name = settings.name;
    now_.url = settings.url.without_secrets();
    now_.analyzer.on = settings.alerts.lines;
    if (settings.alerts.lines)
        check_logs(settings.alerts.analyzer);
    if (settings.alerts.lines)
        analyzer_ = std::make_unique<Analyzer>(
            settings.alerts.analyzer,
            AnalyzerCalls{[this](const AnalyzerEnd& end) { analyzer_ended(end); },
                          [this](std::string_view line) {
                              tell(settings_.name + ": " + std::string(line));
                          }});
    if (writer && settings.cuts.wanted())
        cuts_ = std::make_unique<cuts::LiveCuts>(settings.cuts, settings.name, std::move(writer));
    published_ = now_;
}

Channel::~Channel() = default;

void Channel::packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                      std::uint64_t byte) {
    now_.packets += count;
    feed_.packets(first, count, stride, byte);
}

void Channel::packet(const std::uint8_t* packet, const inputs::PacketInfo& info) {
    ++now_.packets;
    last_packet_ = info.arrival;
    signal_.packet();
    if (info.utc_us != no_time)
        now_.last_packet_utc_s = seconds(info.utc_us);
    if (cuts_)
        cuts_->packet(packet, now_.packets, info.arrival);
    feed_.packet(packet, info);
}

void Channel::sync_loss(const inputs::SyncLoss& loss) {
    feed_.sync_loss(loss);
}

void Channel::datagrams(const inputs::DatagramEvent& event) {
    if (event.kind == inputs::DatagramEvent::Kind::loss)
        now_.rtp_lost += static_cast<std::uint64_t>(event.datagrams);
    feed_.datagrams(event);
}

void Channel::truncated(std::uint64_t byte, std::int64_t bytes) {
    feed_.truncated(byte, bytes);
}

void Channel::raw(std::span<const std::uint8_t> datagram, const inputs::Arrival& when) {
    ++now_.datagrams;
    last_ = when;
    if (const auto back = signal_.datagram(when))
        now_is(*back);
    if (analyzer_)
        analyzer_->datagram(datagram);
}

void Channel::own_drops(std::uint64_t datagrams) {
    now_.own_drops += datagrams;
    stream_.own_drops();
    if (analyzer_)
        analyzer_->missing(datagrams);
}

void Channel::state(InputState state, std::string_view text) {
    if (!started_) {
        started_ = true;
        std::string start;
        records_.start(start, static_cast<int>(inputs::ts_packet_size), settings_.measure.profile);
        outputs_.add({std::move(start), Severity::info, false, settings_.name});
    }
    now_is(signal_.said(state, text, last_));
}

void Channel::now_is(const Signal::State& state) {
    now_.state = state.state;
    now_.state_text = state.text;
    tell(settings_.name + ": " + now_.state_text);
    publish();
}

void Channel::tick(const inputs::Arrival& now) {
    last_ = now;
    stream_.tick(now.ticks, now.utc_us);
    if (const auto news = signal_.look(now))
        now_is(*news);
    if (analyzer_)
        analyzer_->tick(now.ticks);
    if (cuts_)
        cuts_->tick(now.ticks);
    if (suppressed_seq_ != 0 && quota_.quiet(now.ticks))
        suppressed(State::clear);
    if (second_ends_ == no_time)
        second_ends_ = now.ticks + ticks_per_second;
    if (now.ticks >= second_ends_)
        second_is_over(now);
}

void Channel::second_is_over(const inputs::Arrival& now) {
    const Ticks length = now.ticks - second_ends_ + ticks_per_second;
    const std::uint64_t bytes = now_.packets * inputs::ts_packet_size;
    const double rate =
        static_cast<double>(bytes - second_bytes_) * ticks_to_bits / static_cast<double>(length);
    if (now_.bitrate_bps.size() == most_seconds)
        now_.bitrate_bps.erase(now_.bitrate_bps.begin());
    now_.bitrate_bps.push_back(static_cast<float>(rate));
    second_bytes_ = bytes;
    second_ends_ = now.ticks + ticks_per_second;
    publish();
}

void Channel::ended() {
    end();
    // What was wrong with it, if anything, stays to be read.
    const std::string why = now_.state == InputState::gone ? now_.state_text + "; " : "";
    now_is({InputState::ended, why + "ended after " + std::to_string(now_.packets) + " packets"});
    over_ = true;
}

void Channel::reopen() {
    if (analyzer_)
        analyzer_->reopen();
}

void Channel::stop() {
    if (analyzer_)
        analyzer_->stop();
}

void Channel::end() {
    if (finished_)
        return;
    finished_ = true;
    if (analyzer_)
        analyzer_->end();
    stream_.end();
    if (suppressed_seq_ != 0)
        suppressed(State::clear);
    if (cuts_)
        cuts_->end();
    std::string text;
    records_.summary(text, summary());
    outputs_.add({std::move(text), Severity::info, false, settings_.name});
    publish();
    if (settings_.write_expect)
        write_expectation();
}

void Channel::write_expectation() {
    try {
        settings::write_expectation(
            *settings_.write_expect,
            settings::expectation_text(settings_.name, stream_.summary(), stream_.observed()));
    } catch (const settings::WrongValue& wrong) {
        not_written_ = true;
        tell("--write-expect: " + std::string(wrong.what()));
    }
}

void Channel::finding(const Finding& finding) {
    Extras extras;
    bool always = false;
    if (finding.state == State::clear) {
        const auto raise = raised_.find(finding.id);
        if (raise == raised_.end()) { // its raise was left out
            quota_.leave_out(last_.ticks);
            return keep(finding, "");
        }
        extras.raised_seq = raise->second.seq;
        name_cut(extras, raise->second.cut);
        raised_.erase(raise);
        always = true;
    }
    write(finding, extras, always);
}

/// With the rows of what is found here.
Summary Channel::summary() const {
    Summary s = stream_.summary();
    const auto tell_own = [&s](Rule rule, const Own& own, bool judged, const char* why) {
        RuleSummary& row = s.rules[static_cast<std::size_t>(rule)];
        row.judged = judged ? Judged::yes : Judged::not_applicable;
        row.why = judged ? "" : why;
        row.count = own.count;
        row.first = own.first;
        row.last = own.last;
    };
    tell_own(Rule::analyzer_ended, analyzer_ends_, analyzer_ != nullptr,
             "no analyzer beside this input");
    tell_own(Rule::suppressed, suppressions_, true, "");
    return s;
}

void Channel::note(Own& own) const {
    ++own.count;
    own.last = here();
    if (!own.first)
        own.first = own.last;
}

/// `always`: whether or not there are too many.
void Channel::write(const Finding& finding, Extras extras, bool always) {
    if (!always && !quota_.take(last_.ticks)) {
        if (suppressed_seq_ == 0)
            suppressed(State::raise);
        return;
    }
    const std::optional<cuts::Where> cut = this->cut(finding);
    name_cut(extras, cut);
    std::string text;
    const std::uint64_t seq = records_.finding(text, finding, extras);
    if (finding.state == State::raise)
        raised_[finding.id] = {seq, cut};
    if (finding.rule == Rule::suppressed)
        suppressed_seq_ = finding.state == State::raise ? seq : 0;
    keep(finding, text);
    outputs_.add({std::move(text), finding.severity, true, settings_.name});
}

/// What is over has been cut out when it began.
std::optional<cuts::Where> Channel::cut(const Finding& finding) {
    if (!cuts_ || finding.state == State::clear)
        return {};
    auto where = cuts_->take(finding, last_.utc_us);
    if (const std::string remark = cuts_->remark(); !remark.empty())
        tell(settings_.name + ": " + remark);
    return where;
}

void Channel::suppressed(State state) {
    Finding all;
    all.rule = Rule::suppressed;
    all.severity = Severity::warning;
    all.shape = Shape::interval;
    all.state = state;
    all.id = suppressed_id;
    all.count = std::max<std::uint64_t>(1, quota_.left_out());
    if (state == State::raise) {
        suppressed_begin_ = here();
        note(suppressions_);
    }
    all.begin = suppressed_begin_;
    all.end = here();
    all.open = state == State::raise;
    Extras extras;
    extras.left_out = quota_.left_out();
    if (state == State::clear) {
        extras.raised_seq = suppressed_seq_;
        quota_.reset();
    }
    write(all, extras, true);
}

Place Channel::here() const {
    const std::uint64_t before = now_.packets > 0 ? now_.packets - 1 : 0;
    return {now_.packets, before * inputs::ts_packet_size, no_time, last_.utc_us, false};
}

void Channel::analyzer_ended(const AnalyzerEnd& end) {
    // Some ends were told by itself, in its own words.
    const bool said = end.reason == AnalyzerEnd::Reason::invariant ||
                      (end.reason == AnalyzerEnd::Reason::cannot_run && end.status != 0);
    tell(settings_.name + ": the analyzer has ended" + (said ? "" : ": " + end.text) +
         "; it is started again");
    // What it gave up itself is found by measuring as well, or is trouble of this machine.
    if (end.reason == AnalyzerEnd::Reason::lost_sync ||
        end.reason == AnalyzerEnd::Reason::cannot_run)
        return;
    Finding ended;
    ended.rule = Rule::analyzer_ended;
    ended.severity = Severity::warning;
    ended.begin = ended.end = here();
    note(analyzer_ends_);
    Extras extras;
    if (!end.packet.empty())
        extras.packet_hex = hex(end.packet);
    write(ended, extras, false);
}

/// What is open, and what was found within the last minute, for the status page.
void Channel::keep(const Finding& finding, const std::string& record) {
    if (finding.state == State::clear)
        std::erase_if(recent_, [&](const Recent& recent) { return recent.id == finding.id; });
    if (record.empty())
        return;
    recent_.push_front({finding.id, last_.ticks, {record, finding.state == State::raise}});
    if (recent_.size() > most_recent) {
        // What is over goes first.
        const auto oldest = std::find_if(recent_.rbegin(), recent_.rend(),
                                         [](const Recent& recent) { return !recent.finding.open; });
        recent_.erase(oldest == recent_.rend() ? recent_.end() - 1 : oldest.base() - 1);
    }
}

void Channel::forget_old() {
    std::erase_if(recent_, [this](const Recent& recent) {
        return !recent.finding.open && last_.ticks - recent.when > recent_for;
    });
}

void Channel::publish() {
    forget_old();
    if (analyzer_) {
        now_.analyzer.running = analyzer_->running();
        now_.analyzer.restarts = analyzer_->restarts();
        now_.analyzer.dropped = analyzer_->dropped();
    }
    const Counters counted = stream_.counters();
    now_.lost_packets = counted.lost_packets;
    now_.findings = counted.findings;
    now_.open = counted.open;
    now_.pcr_intervals = counted.pcr_intervals;
    now_.av_offset_s.assign(counted.av_offset_s.begin(), counted.av_offset_s.end());
    for (const auto& [rule, own] : {std::pair(Rule::analyzer_ended, analyzer_ends_),
                                    std::pair(Rule::suppressed, suppressions_)})
        now_.findings.at(rule, Severity::warning) = own.count;
    now_.open.at(Rule::suppressed, Severity::warning) = suppressed_seq_ != 0 ? 1 : 0;
    now_.summary = summary();
    now_.bytes = now_.packets * inputs::ts_packet_size;
    now_.up = now_.state != InputState::ended && last_packet_ != no_time &&
              last_.ticks - last_packet_ < silence_limit_;
    now_.current.clear();
    for (const Recent& recent : recent_)
        now_.current.push_back(recent.finding);
    const std::lock_guard lock(mutex_);
    published_ = now_;
}

Snapshot Channel::snapshot() const {
    const std::lock_guard lock(mutex_);
    return published_;
}

} // namespace quarn::live
