// Serves made-up inputs over HTTP, for tests/live/http to ask:
//     http_host INPUTS NAME...     more inputs than names are called "input 1" and so on
// Writes its port as its first line. Lines of standard input change what is known: "step" lets a
// second go by, "gone" and "back" are about the first input, "stall" and "turn" about the loops.
// Ends with standard input.
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

#include "live/http.h"
#include "reports/records.h"

namespace {

using namespace quarn;
using live::Snapshot;

Finding fault(Rule rule, int pid, bool is_open) {
    Finding finding;
    finding.rule = rule;
    finding.severity = info(rule).severity;
    finding.shape = is_open ? Shape::interval : Shape::point;
    finding.state = is_open ? State::raise : State::event;
    finding.programs = {1};
    finding.pid = static_cast<std::uint16_t>(pid);
    finding.begin = {4711, 188 * 4710, 90 * ticks_per_second, 1'795'293'293'000'000, false};
    finding.end = finding.begin;
    finding.detail.interval_ms = 181;
    finding.detail.limit_ms = 100;
    finding.detail.expected = 5;
    finding.detail.got = 7;
    finding.detail.lost = 2;
    return finding;
}

void add(Snapshot& input, const Finding& finding) {
    const bool is_open = finding.state == State::raise;
    input.findings.at(finding.rule, finding.severity) += finding.count;
    input.open.at(finding.rule, finding.severity) += is_open;
    input.summary.rules.resize(rule_table.size());
    input.summary.rules[static_cast<std::size_t>(finding.rule)].last = finding.end;
    std::string record;
    Records(input.name).finding(record, finding);
    input.current.insert(input.current.begin(), {record, is_open});
}

Snapshot make_input(std::size_t index, std::string name) {
    Snapshot input;
    input.name = std::move(name);
    input.url = "udp://239.1.1." + std::to_string(index % 256) + ":5000";
    input.state = live::InputState::up;
    input.up = true;
    input.packets = 1'234'567'890'123; // more digits than a float keeps
    input.bytes = 188 * input.packets;
    input.datagrams = input.packets / 7;
    input.own_drops = 3;
    input.rtp_lost = 4;
    input.lost_packets = 5;
    input.last_packet_utc_s = 1'795'293'294.25;
    for (const double seconds : {0.009, 0.04, 0.041, 3.0})
        input.pcr_intervals.add(seconds);
    input.av_offset_s = {{1, -0.0415}, {2, 0.12}};
    for (int second = 0; second < 300; ++second)
        input.bitrate_bps.push_back(
            static_cast<float>(1e7 + 1e6 * std::sin(second / 20.0 + static_cast<double>(index))));
    input.summary.programs.push_back({1, input.name, {}, 4096, 256, {}});
    input.summary.programs[0].streams.push_back(
        {256, StreamKind::video, Codec::h264, "", 4711, 9'000'000, 0, 0});
    input.analyzer = {index == 0, true, 2, 7};
    if (index % 5 == 0) {
        add(input, fault(Rule::pcr_repetition_error, 256, true));
        add(input, fault(Rule::continuity_count_error, 257, false));
    }
    return input;
}

} // namespace

int main(int argc, char** argv) {
    std::mutex mutex;
    std::vector<Snapshot> inputs;
    bool turns = true;
    for (std::size_t i = 0; i < std::strtoul(argv[1], nullptr, 10); ++i)
        inputs.push_back(make_input(i, i + 2 < static_cast<std::size_t>(argc)
                                           ? argv[i + 2]
                                           : "input " + std::to_string(i + 1)));
    inputs::Endpoint endpoint;
    endpoint.address = {127, 0, 0, 1};
    live::Http http(endpoint, {[&] {
                                   const std::lock_guard lock(mutex);
                                   return inputs;
                               },
                               [] {
                                   return live::ProcessFigures{8, 9, 10, 11};
                               },
                               [&] {
                                   const std::lock_guard lock(mutex);
                                   return turns;
                               }});
    std::cout << http.port() << std::endl;

    std::string line;
    while (std::getline(std::cin, line)) {
        const std::lock_guard lock(mutex);
        Snapshot& first = inputs.front();
        if (line == "step")
            for (Snapshot& input : inputs) {
                input.packets += 7000;
                input.bitrate_bps.erase(input.bitrate_bps.begin());
                input.bitrate_bps.push_back(2e6F);
            }
        else if (line == "gone" || line == "back") {
            first.up = line == "back";
            first.state = first.up ? live::InputState::up : live::InputState::gone;
            first.state_text = first.up ? "back after 12 s" : "no datagram for 2 s";
            if (!first.up)
                add(first, fault(Rule::off_air, 256, true));
        } else {
            turns = line == "turn";
        }
    }
}
