#include "expected_rates.h"

#include <algorithm>
#include <string>
#include <utility>

namespace quarn {

namespace {

using Aspect = Thing::Aspect;
using What = TableChange::What;

// Of a service itself, and of all packets.
constexpr std::size_t whole = SIZE_MAX;

std::string rate_words(std::int64_t bits) {
    return std::to_string(bits) + " bit/s";
}

} // namespace

ExpectedRates::ExpectedRates(const Expectation& expected, const ExpectedServices& services,
                             Deviations& deviations)
    : expected_(expected), services_(services), deviations_(deviations),
      rates_(expected.bitrate_over) {}

// `packets`: in the window; not set where it would be no figure of the thing.
void ExpectedRates::hold(const Thing& thing, const Range& expected,
                         std::optional<std::uint64_t> packets, Deviation&& d) {
    if (expected.any())
        return;
    if (packets)
        judged_.insert(thing);
    const std::int64_t now = packets ? rates_.bitrate(*packets) : 0;
    if (!packets || expected.contains(now)) {
        worst_.erase(thing);
        return deviations_.is_not(thing, rates_.end());
    }
    std::int64_t& worst = worst_.try_emplace(thing, now).first->second;
    const bool below = worst < expected.least;
    worst = below ? std::min(worst, now) : std::max(worst, now);
    d.change.what = What::bitrate;
    d.change.before =
        below ? "at least " + rate_words(expected.least) : "at most " + rate_words(expected.most);
    d.change.after = rate_words(worst);
    d.begin = rates_.begin();
    deviations_.is(thing, std::move(d));
}

void ExpectedRates::counts(const CountsItem& item, const Place& from, const Place& to,
                           std::optional<bool> constant) {
    if (!rates_.counts(item, from, to))
        return;
    hold({Aspect::bitrate, whole, whole}, expected_.bitrate, rates_.packets(), {});
    services();
    constancy(constant);
}

void ExpectedRates::services() {
    for (std::size_t i = 0; i < expected_.services.size(); ++i) {
        const Expectation::Service& service = expected_.services[i];
        const auto& found = services_.found(i);
        const bool settled = !found.all.empty() && found.since.packet <= rates_.begin().packet;
        std::optional<std::uint64_t> packets;
        if (settled && services_.whole(i)) {
            packets = 0;
            for (const std::uint16_t pid : found.all)
                *packets += rates_.packets(pid);
        }
        Deviation d;
        d.programs = {service.number};
        d.change.number = service.number;
        if (!service.names.empty() && !service.names.front().empty())
            d.change.name = service.names.front();
        for (std::size_t k = 0; k < service.streams.size(); ++k) {
            Deviation of_stream = d;
            const auto pid = settled ? found.pids[k] : std::nullopt;
            if (pid) {
                of_stream.pid = *pid;
                of_stream.change.pid = *pid;
            }
            hold({Aspect::bitrate, i, k}, service.streams[k].bitrate,
                 pid ? std::optional(rates_.packets(*pid)) : std::nullopt, std::move(of_stream));
        }
        hold({Aspect::bitrate, i, whole}, service.bitrate, packets, std::move(d));
    }
}

void ExpectedRates::constancy(std::optional<bool> constant) {
    if (!expected_.constant_rate || !constant)
        return;
    const Thing thing{Aspect::rate, whole, whole};
    judged_.insert(thing);
    if (*constant == *expected_.constant_rate)
        return deviations_.is_not(thing, rates_.end());
    if (deviations_.has(thing))
        return;
    Deviation d;
    d.change.what = What::rate;
    d.change.before = *expected_.constant_rate ? "constant" : "variable";
    d.change.after = *constant ? "constant" : "variable";
    d.begin = rates_.end();
    d.patience = expected_.bitrate_over;
    deviations_.is(thing, std::move(d));
}

void ExpectedRates::anew(const Place& before) {
    for (const Thing& thing : judged_)
        deviations_.lost_sight(thing, before);
    worst_.clear();
    rates_.anew();
}

void ExpectedRates::judge(Judgement& judgement, bool clock) const {
    const auto hold = [&](const Thing& thing, bool wanted, std::optional<std::uint16_t> pid) {
        if (wanted && !judged_.contains(thing))
            judgement.no(Rule::unexpected, clock ? "shorter than its limit" : "no clock", pid);
    };
    hold({Aspect::bitrate, whole, whole}, !expected_.bitrate.any(), std::nullopt);
    hold({Aspect::rate, whole, whole}, expected_.constant_rate.has_value(), std::nullopt);
    for (std::size_t i = 0; i < expected_.services.size(); ++i) {
        const Expectation::Service& service = expected_.services[i];
        const auto& found = services_.found(i);
        if (found.all.empty())
            continue; // it is missing, or may be
        hold({Aspect::bitrate, i, whole}, !service.bitrate.any() && services_.whole(i),
             std::nullopt);
        for (std::size_t k = 0; k < service.streams.size(); ++k)
            if (found.pids[k])
                hold({Aspect::bitrate, i, k}, !service.streams[k].bitrate.any(), found.pids[k]);
    }
}

} // namespace quarn
