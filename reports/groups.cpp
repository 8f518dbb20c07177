#include "groups.h"

#include <array>
#include <cmath>
#include <cstdio>

#include "sentences.h"
#include "words.h"

namespace quarn {

namespace {

std::string thing_of(const Finding& finding) {
    if (finding.rule != Rule::unexpected || finding.detail.changes.empty())
        return {};
    const TableChange& change = finding.detail.changes.front();
    std::string thing(word(change.what));
    return thing + " " + (change.number ? std::to_string(*change.number) : std::string());
}

} // namespace

void Groups::add(const Finding& finding, const Extras& extras) {
    const Key key{finding.severity, finding.rule, finding.kind, finding.pid ? *finding.pid : -1,
                  thing_of(finding)};
    const auto [at, is_new] = groups_.try_emplace(key);
    Group& group = at->second;
    if (is_new)
        group.finding = finding;
    // Findings are decided in another order than that of their places.
    if (is_new || finding.begin.packet < group.first.packet)
        group.first = finding.begin;
    const Place& last = finding.count > 1 ? finding.end : finding.begin;
    if (is_new || last.packet > group.last.packet)
        group.last = last;
    if (extras.cut_file && (!group.cut || finding.begin.packet < group.cut->found_at))
        group.cut = {finding.begin.packet, *extras.cut_file, extras.cut_packet.value_or(1)};
    group.count += finding.count;
    group.open = group.open || finding.open;
    group.sure = group.sure && finding.sure != Sure::guess;
    const std::optional<double> worst = figure(finding);
    if (worst && (!group.worst || std::abs(*worst) > std::abs(*group.worst)))
        group.worst = worst;
}

void Groups::forget_cut(const std::string& file) {
    for (auto& [key, group] : groups_)
        if (group.cut && group.cut->file == file)
            group.cut.reset();
}

std::string place_text(const Place& place) {
    std::string text = "packet " + std::to_string(place.packet);
    if (place.time == no_time)
        return text;
    std::array<char, 40> time;
    std::snprintf(time.data(), time.size(), " at %s%.3f s", place.estimated ? "about " : "",
                  static_cast<double>(place.time) / static_cast<double>(ticks_per_second));
    return text + time.data();
}

std::string stretch_text(const Finding& finding) {
    if (finding.shape != Shape::interval || finding.end.packet == finding.begin.packet)
        return "at " + place_text(finding.begin);
    return "from " + place_text(finding.begin) + " to " + place_text(finding.end);
}

std::string group_text(Rule rule, const Group& group) {
    std::string text;
    if (group.count > 1)
        text = std::to_string(group.count) + " times, first at " + place_text(group.first);
    else
        text = "once, " + stretch_text(group.finding);
    if (group.last.packet != group.first.packet)
        text += ", last at " + place_text(group.last);
    if (group.worst)
        if (const std::string worst =
                figure_text(rule, *group.worst, group.finding.detail.limit_ms);
            !worst.empty())
            text += (group.count > 1 ? ", worst " : ", ") + worst;
    if (group.open)
        text += ", to the end";
    if (!group.sure)
        text += " (a guess)";
    return text;
}

} // namespace quarn
