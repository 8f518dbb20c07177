#include "live/api.h"

#include <cmath>
#include <optional>
#include <string>
#include <string_view>

#include "reports/json.h"
#include "reports/programs.h"
#include "reports/words.h"

namespace quarn::live {
namespace {

std::string_view word(InputState state) {
    switch (state) {
    case InputState::waiting:
        return "waiting";
    case InputState::up:
        return "up";
    case InputState::gone:
        return "gone";
    case InputState::ended:
        return "ended";
    }
    return "";
}

std::optional<std::string> last_found(const Snapshot& input, Rule rule) {
    const auto index = static_cast<std::size_t>(rule);
    if (index >= input.summary.rules.size()) // nothing was published yet
        return {};
    const auto& last = input.summary.rules[index].last;
    if (!last || last->utc_us == no_time)
        return {};
    return utc_text(last->utc_us);
}

/// Rules that something was found of.
void finding_counts(Json& json, const Snapshot& input) {
    json.key("findings").open('[');
    for (const RuleInfo& rule : rule_table)
        for (const Severity severity : {Severity::error, Severity::warning, Severity::info}) {
            const std::uint64_t count = input.findings.at(rule.rule, severity);
            const std::uint64_t open = input.open.at(rule.rule, severity);
            if (count == 0 && open == 0)
                continue;
            json.open('{').member("rule", rule.id).member("name", rule.name);
            json.member("severity", quarn::word(severity));
            json.member("count", count).member("open", open).key("last");
            json.value(last_found(input, rule.rule)).close('}');
        }
    json.close(']');
}

/// Records stand as they are in the output.
void current(Json& json, std::string& out, const std::vector<CurrentFinding>& findings) {
    json.key("current").open('[');
    for (const CurrentFinding& finding : findings) {
        json.open('{').member("open", finding.open).key("record");
        out += finding.record;
        while (out.back() == '\n')
            out.pop_back();
        json.close('}');
    }
    json.close(']');
}

void analyzer(Json& json, const AnalyzerState& state) {
    json.key("analyzer");
    if (!state.on) {
        json.null();
        return;
    }
    json.open('{').member("running", state.running).member("restarts", state.restarts);
    json.member("dropped", state.dropped).close('}');
}

void figures(Json& json, const Snapshot& input) {
    json.member("packets", input.packets).member("bytes", input.bytes);
    json.member("datagrams", input.datagrams).member("own_drops", input.own_drops);
    json.member("rtp_lost", input.rtp_lost).member("lost_packets", input.lost_packets);
    json.key("last_packet");
    if (input.last_packet_utc_s > 0)
        json.value(utc_text(std::llround(input.last_packet_utc_s * 1e6)));
    else
        json.null();
}

void measured(Json& json, const Snapshot& input) {
    json.member("verdict", quarn::word(input.summary.verdict));
    json.key("av_offset").open('[');
    for (const auto& [program, seconds] : input.av_offset_s)
        json.open('{').member("program", program).member("ms", seconds * 1000).close('}');
    json.close(']').key("bitrate_bps").open('[');
    for (const float rate : input.bitrate_bps)
        json.value(std::llround(rate));
    json.close(']').key("programs");
    write_programs(json, input.summary.programs);
}

} // namespace

std::string inputs_json(const std::vector<Snapshot>& inputs) {
    std::string out;
    Json json(out);
    json.open('{').member("version", QUARN_VERSION).key("inputs").open('[');
    for (const Snapshot& input : inputs) {
        json.open('{').member("name", input.name).member("url", input.url);
        json.member("state", word(input.state)).member("state_text", input.state_text);
        json.member("up", input.up);
        figures(json, input);
        measured(json, input);
        finding_counts(json, input);
        current(json, out, input.current);
        analyzer(json, input.analyzer);
        json.close('}');
    }
    json.close(']').close('}');
    out += '\n';
    return out;
}

} // namespace quarn::live
