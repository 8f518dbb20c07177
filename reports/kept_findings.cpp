#include "kept_findings.h"

#include <algorithm>

namespace quarn {

namespace {
constexpr std::int64_t first_width = 64; // packets
} // namespace

void KeptFindings::Count::add(const Count& other) {
    events += other.events;
    severity = std::max(severity, other.severity);
    first.add(other.first);
}

void KeptFindings::add(const Finding& f, const Extras& extras) {
    Kept kept{0, f.severity, f.begin, f.count, {}};
    const Key key{f.rule, f.pid ? *f.pid : -1};
    const auto known = kept_.find(key);
    const bool room =
        known == kept_.end() ? kept_.size() < most : known->second.size() < most_of_a_kind_;
    if (!room) {
        records_.skip();
        count(f.rule, kept);
        return;
    }
    kept.seq = records_.finding(kept.record, f, extras);
    kept_[key].push_back(std::move(kept));
    if (++size_ > most)
        make_room();
}

void KeptFindings::count(Rule rule, const Kept& left_out) {
    Filling<Count>& counts = counts_[rule];
    if (counts.width == 0)
        counts.width = first_width;
    const std::uint64_t packet = std::max<std::uint64_t>(left_out.begin.packet, 1);
    counts.at(static_cast<std::int64_t>(packet - 1))
        .add({left_out.count, left_out.severity, {packet, left_out.begin.byte}});
}

// The kinds with most findings lose theirs first.
void KeptFindings::make_room() {
    while (size_ > most && most_of_a_kind_ > 1) {
        most_of_a_kind_ = most_of_a_kind_ * 3 / 4;
        for (auto& [key, findings] : kept_)
            for (; findings.size() > most_of_a_kind_; --size_) {
                count(key.rule, findings.back());
                findings.pop_back();
            }
    }
}

} // namespace quarn
