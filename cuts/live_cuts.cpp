#include "live_cuts.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "file.h"
#include "reports/words.h"

namespace quarn::cuts {

namespace {

constexpr Ticks decided_within = 5 * ticks_per_second; // behind the begin of most findings
/// A cut is open for so long behind its last packet: findings that are decided later may be in it.
constexpr Ticks linger = 3 * ticks_per_second;
constexpr Ticks longest = 10 * ticks_per_second; // of findings that one cut has
constexpr std::size_t most_at_once = 4;

Ticks ticks(double seconds) {
    return static_cast<Ticks>(seconds * static_cast<double>(ticks_per_second));
}

Memory room_for(const Settings& settings, Ticks length) {
    try {
        return Memory(static_cast<std::size_t>(settings.memory), length);
    } catch (const std::bad_alloc&) {
        throw std::runtime_error("there is no memory for " + std::to_string(settings.memory) +
                                 " bytes of its packets (cut_memory)");
    }
}

/// "20261121T232305Z" of "2026-11-21T23:23:05.123456Z".
std::string short_time(std::int64_t utc_us) {
    std::string text;
    for (const char c : utc_text(utc_us)) {
        if (c == '.')
            break;
        if (c != '-' && c != ':')
            text += c;
    }
    return text + "Z";
}

} // namespace

LiveCuts::LiveCuts(const Settings& settings, std::string_view name, std::shared_ptr<Writer> writer)
    : settings_(settings), name_(name), around_(ticks(settings.seconds)),
      writer_(std::move(writer)), memory_(room_for(settings, around_ + decided_within)) {
    cuts_.reserve(most_at_once);
}

/// When the packets of a finding came; nothing if they are not kept any more.
std::optional<LiveCuts::Reach> LiveCuts::reach_of(const Finding& finding) const {
    const auto begin = memory_.find(finding.begin.packet);
    if (!begin)
        return {};
    const std::size_t end =
        finding.shape == Shape::point ? *begin : memory_.find(finding.end.packet).value_or(*begin);
    const Ticks arrival = memory_.head(*begin).arrival;
    return Reach{arrival, std::max(arrival, memory_.head(end).arrival)};
}

Where LiveCuts::where(const Cut& cut, const Finding& finding) {
    return {cut.file, finding.begin.packet - cut.first + 1};
}

/// Whether the finding can be in that cut, with as much around it as it would have in its own.
/// `done`: nothing is added to it any more.
bool LiveCuts::shares(const Cut& cut, const Finding& finding, const Reach& reach, bool done) const {
    if (finding.begin.packet < cut.first || reach.begin < cut.core_begin)
        return false;
    if (reach.end + Memory::longest_block + around_ <= cut.until)
        return true;
    return !done && reach.begin <= cut.until && reach.end - cut.core_begin <= longest;
}

std::optional<Where> LiveCuts::take(const Finding& finding, std::int64_t utc_us) {
    // The records of q.13 are about records, and before the first packet there is nothing to cut.
    if (finding.rule == Rule::suppressed || finding.begin.packet == 0)
        return {};
    const auto reach = reach_of(finding);
    if (!reach)
        return {};
    for (Cut& cut : cuts_)
        if (shares(cut, finding, *reach, false)) {
            cut.until = std::max(cut.until, reach->end + Memory::longest_block + around_);
            set_alarm();
            return where(cut, finding);
        }
    if (last_ && shares(*last_, finding, *reach, true))
        return where(*last_, finding);
    return begin_cut(finding, *reach,
                     finding.begin.utc_us == no_time ? utc_us : finding.begin.utc_us);
}

std::optional<Where> LiveCuts::begin_cut(const Finding& finding, const Reach& reach,
                                         std::int64_t utc_us) {
    const std::size_t start = memory_.before(reach.begin - around_);
    const Blocks::Head& first = memory_.head(start);
    const Blocks::Head& newest = memory_.head(memory_.size() - 1);
    const Ticks until = reach.end + Memory::longest_block + around_;
    const std::uint64_t there = (newest.first + newest.count - first.first) * Blocks::packet_size;
    const auto lasts =
        static_cast<double>(std::max(newest.arrival - first.arrival, Memory::longest_block));
    const auto expected = static_cast<std::uint64_t>(
        static_cast<double>(there) * static_cast<double>(until - first.arrival) / lasts);
    if (!full_ && expected > settings_.bytes - bytes_)
        needed_ = expected;
    full_ = full_ || files_ == settings_.files || needed_ > 0;
    if (full_)
        return {};
    if (cuts_.size() == most_at_once)
        close(0, true);
    const std::string place =
        (utc_us == no_time ? "" : short_time(utc_us) + "-") + std::to_string(finding.begin.packet);
    Cut cut;
    cut.file = settings_.directory + "/" + stem_of(name_, place, finding.rule) + ".ts";
    cut.to = writer_->file(cut.file);
    cut.first = cut.next = first.first;
    cut.core_begin = reach.begin;
    cut.until = until;
    ++files_;
    cuts_.push_back(std::move(cut));
    catch_up(cuts_.back());
    set_alarm();
    return where(cuts_.back(), finding);
}

/// Hands the blocks over that belong to a cut and are complete.
void LiveCuts::catch_up(Cut& cut) {
    const std::shared_ptr<Blocks>& blocks = memory_.blocks();
    const std::size_t complete = memory_.size() - (memory_.filling() ? 1 : 0);
    for (std::size_t i = memory_.find(cut.next).value_or(0); i < complete; ++i) {
        const Blocks::Head& head = memory_.head(i);
        if (head.first < cut.next)
            continue;
        const std::uint64_t bytes = head.count * Blocks::packet_size;
        if (head.arrival >= cut.until)
            return;
        const bool too_much = bytes_ + bytes > settings_.bytes;
        full_ = full_ || too_much;
        // As much as the memory has only where an input comes faster than its own time.
        if (too_much || cut.bytes + bytes > settings_.memory) {
            cut.until = head.arrival;
            return;
        }
        blocks->pin(memory_.block(i));
        writer_->write(cut.to, blocks, memory_.block(i));
        cut.next = head.first + head.count;
        cut.bytes += bytes;
        bytes_ += bytes;
    }
}

void LiveCuts::hand_over() {
    for (Cut& cut : cuts_)
        catch_up(cut);
    set_alarm();
}

/// Ends the cuts whose time has come.
void LiveCuts::finish(Ticks now) {
    memory_.complete();
    hand_over();
    for (std::size_t i = cuts_.size(); i-- > 0;)
        if (cuts_[i].until + linger <= now)
            close(i, true);
}

void LiveCuts::close(std::size_t i, bool whole) {
    writer_->close(cuts_[i].to, whole);
    cuts_[i].to.reset();
    last_ = std::move(cuts_[i]);
    cuts_.erase(cuts_.begin() + static_cast<std::ptrdiff_t>(i));
    set_alarm();
}

/// All blocks wait for the disk.
void LiveCuts::give_up(Ticks now) {
    while (!cuts_.empty())
        close(0, cuts_.front().until <= now);
    last_.reset();
}

void LiveCuts::end() {
    memory_.complete();
    hand_over();
    while (!cuts_.empty())
        close(0, true);
}

void LiveCuts::set_alarm() {
    wake_at_ = INT64_MAX;
    for (const Cut& cut : cuts_)
        wake_at_ = std::min(wake_at_, cut.until + linger);
}

std::string LiveCuts::remark() {
    if (!full_ || told_full_)
        return {};
    told_full_ = true;
    return "no more cuts: " + no_room(settings_, files_, bytes_, needed_, "cut_");
}

} // namespace quarn::cuts
