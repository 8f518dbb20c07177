#include "input_cuts.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <system_error>

namespace quarn::cuts {

namespace {

constexpr std::size_t most_open = 16;
constexpr double longest = 10;              // seconds of findings that one cut has
constexpr double beyond_limit = 2;          // seconds that an interval is shown behind its limit
constexpr double packets_a_second = 10'000; // where there is no clock
constexpr std::size_t copied_at_once = std::size_t{1} << 20U;

/// Seconds from one place to a later one.
double distance(const Place& from, const Place& to) {
    if (from.time != no_time && to.time != no_time)
        return static_cast<double>(to.time - from.time) / ticks_per_second;
    return (static_cast<double>(to.packet) - static_cast<double>(from.packet)) / packets_a_second;
}

std::string_view ending(int packet_size) {
    return packet_size == 192 ? "m2ts" : "ts";
}

std::string findings(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " finding has" : " findings have");
}

} // namespace

InputCuts::InputCuts(const Settings& settings, std::string_view name, inputs::Input& input,
                     std::uint64_t bitrate)
    : settings_(settings), name_(name), input_(input), bitrate_(bitrate) {}

/// Bytes a second, roughly.
double InputCuts::rate(const Place& place) const {
    constexpr double bits = 8;
    if (bitrate_ > 0)
        return static_cast<double>(bitrate_) / bits;
    const double seconds =
        place.time == no_time ? 0 : static_cast<double>(place.time) / ticks_per_second;
    if (seconds > 1 && place.byte > 0)
        return static_cast<double>(place.byte) / seconds;
    return packets_a_second * static_cast<double>(input_.kept().packet_size);
}

/// Up to where a finding is to be shown.
Place InputCuts::end_of(const Finding& finding) const {
    if (finding.shape == Shape::point)
        return finding.begin;
    const double limit = finding.detail.limit_ms.value_or(0) / 1000;
    const double most = std::max(longest, limit + beyond_limit);
    if (distance(finding.begin, finding.end) <= most)
        return finding.end;
    // Not looked for: thousands of pids may have one to the end of the input.
    const double share = most / distance(finding.begin, finding.end);
    const auto part = [share](std::uint64_t from, std::uint64_t to) {
        return static_cast<std::uint64_t>(share * static_cast<double>(to - std::min(from, to)));
    };
    const std::uint64_t bytes = part(finding.begin.byte, finding.end.byte);
    Place end = finding.begin;
    end.byte += bytes - bytes % input_.kept().packet_size;
    end.packet += part(finding.begin.packet, finding.end.packet);
    if (end.time != no_time)
        end.time += static_cast<Ticks>(most * ticks_per_second);
    return end;
}

std::optional<Where> InputCuts::take(const Finding& finding) {
    // The records of q.13 are about records, and where nothing was read there is nothing to cut.
    if (finding.rule == Rule::suppressed || finding.begin.packet == 0 || !trouble_.empty())
        return {};
    const Place& begin = finding.begin;
    const Place end = end_of(finding);
    for (auto cut = open_.rbegin(); cut != open_.rend(); ++cut) {
        if (!shares(*cut, begin, end))
            continue;
        if (end.byte > cut->core_end.byte) {
            promised_ += end.byte - cut->core_end.byte;
            cut->core_end = end;
            cut->end.reset();
            cut->try_at = 0;
        }
        return Where{cut->file.path(), begin.packet - cut->first + 1};
    }
    return begin_cut(finding, begin, end);
}

/// Whether the finding can be in that cut, with as much around it as it would have in its own.
bool InputCuts::shares(const Cut& cut, const Place& begin, const Place& end) const {
    const bool late_enough =
        begin.byte >= cut.core_begin.byte || (cut.first == 1 && begin.packet >= 1);
    if (!late_enough || distance(cut.core_end, begin) > settings_.seconds)
        return false;
    if (end.byte <= cut.core_end.byte)
        return true;
    const std::uint64_t more = end.byte - cut.core_end.byte;
    return distance(cut.core_begin, end) <= longest && promised_ + more <= settings_.bytes;
}

std::optional<Where> InputCuts::begin_cut(const Finding& finding, const Place& begin,
                                          const Place& end) {
    if (full_) {
        ++left_out_;
        return {};
    }
    const inputs::Input::Kept kept = input_.kept();
    if (begin.byte < kept.begin) {
        ++gone_;
        return {};
    }
    const double usual = rate(begin);
    Stretch stretch(input_, usual);
    const std::uint64_t from = stretch.before(begin.byte, settings_.seconds, settings_.bytes);
    const std::uint64_t before = begin.byte - from;
    // As much behind as in front, where it is not the start of the input.
    const auto behind =
        std::max(before, static_cast<std::uint64_t>(from == 0 ? settings_.seconds * usual : 0));
    const std::uint64_t left = kept.complete ? kept.end - std::min(kept.end, end.byte) : behind;
    const std::uint64_t expected = end.byte - from + std::min(behind, left);
    if (files_ == settings_.files || expected > settings_.bytes - promised_) {
        full_ = true;
        needed_ = expected;
        ++left_out_;
        return {};
    }
    int error = 0;
    auto file = File::create(settings_.directory,
                             stem_of(name_, std::to_string(begin.packet), finding.rule),
                             ending(static_cast<int>(kept.packet_size)), error);
    if (!file) {
        trouble_ = settings_.directory + ": " + std::generic_category().message(error);
        return {};
    }
    const std::uint64_t number = from == 0 ? begin.packet : stretch.packets(from, begin.byte) + 1;
    Cut cut{std::move(*file),
            begin.packet - number + 1,
            front(from, kept.packet_size),
            begin,
            end,
            0,
            {}};
    if (!copy(cut, std::min(end.byte, kept.end)))
        return {};
    ++files_;
    promised_ += expected;
    open_.push_back(std::move(cut));
    if (open_.size() > most_open) {
        finish(open_.front());
        open_.pop_front();
    }
    return Where{open_.back().file.path(), number};
}

/// Writes up to that offset.
bool InputCuts::copy(Cut& cut, std::uint64_t end) {
    const std::size_t size = input_.kept().packet_size;
    if (const std::uint64_t room = settings_.bytes - written_; end > cut.next + room)
        end = cut.next + room - room % size;
    buffer_.resize(copied_at_once);
    while (cut.next < end) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(end - cut.next, buffer_.size()));
        const std::size_t got = input_.read_again(cut.next, {buffer_.data(), wanted});
        if (got == 0)
            return true; // the file has become shorter
        if (const int error = cut.file.append({buffer_.data(), got}); error != 0)
            return failed(cut.file, error);
        cut.next += got;
        written_ += got;
    }
    return true;
}

bool InputCuts::failed(File& file, int error) {
    trouble_ = file.path() + ": " + std::generic_category().message(error);
    lost_.push_back(file.path());
    file.remove(); // makes room where the disk is full
    return false;
}

/// Looks for the end of a cut and writes up to there, if the input has so much.
void InputCuts::go_on(Cut& cut, bool last) {
    const inputs::Input::Kept kept = input_.kept();
    last = last || kept.complete;
    if (cut.end || (!last && kept.end < cut.try_at))
        return;
    Stretch stretch(input_, rate(cut.core_begin));
    const Stretch::End end = stretch.behind(cut.core_end.byte, settings_.seconds, settings_.bytes);
    if (!end.reached && !last) {
        const std::uint64_t there = kept.end - std::min(kept.end, cut.core_end.byte);
        cut.try_at = kept.end + there / 2;
        copy(cut, std::min(kept.end, cut.core_end.byte));
        return;
    }
    cut.end = end.byte;
    copy(cut, end.byte);
}

void InputCuts::finish(Cut& cut) {
    go_on(cut, true);
    if (cut.file.is_there())
        return;
    lost_.push_back(cut.file.path());
    if (trouble_.empty())
        trouble_ = cut.file.path() + ": was removed while it was open";
}

void InputCuts::turn() {
    for (Cut& cut : open_)
        go_on(cut, false);
}

void InputCuts::end() {
    for (Cut& cut : open_)
        finish(cut);
    open_.clear();
}

std::vector<std::string> InputCuts::remarks() const {
    std::vector<std::string> all;
    if (left_out_ > 0)
        all.push_back(findings(left_out_) +
                      " no cut: " + no_room(settings_, files_, promised_, needed_, "--cut-"));
    if (gone_ > 0)
        all.push_back(findings(gone_) + " no cut: of what cannot be read twice the last " +
                      std::to_string(kept_bytes >> 20U) + " MB are kept");
    return all;
}

} // namespace quarn::cuts
