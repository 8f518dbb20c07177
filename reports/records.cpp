#include "records.h"

#include <array>
#include <initializer_list>

#include "json.h"
#include "programs.h"
#include "sentences.h"
#include "words.h"

namespace quarn {

namespace {

/// Members of `detail`, as bits: which of them a rule has.
enum Member : unsigned {
    counters = 1U << 0U, // expected, got
    lost = 1U << 1U,
    bytes = 1U << 2U,
    interval = 1U << 3U, // interval_ms, limit_ms
    table_id = 1U << 4U,
    step = 1U << 5U,
    drift = 1U << 6U,
    error_ns = 1U << 7U,
    late = 1U << 8U,
    changes = 1U << 9U,
    datagrams = 1U << 10U,
    packets = 1U << 11U,
    away = 1U << 12U,
    packet_hex = 1U << 13U,
    left_out = 1U << 14U,
};

unsigned members_of(Rule rule) {
    switch (rule) {
    case Rule::ts_sync_loss:
    case Rule::truncated:
        return bytes;
    case Rule::pat_error_2:
    case Rule::pmt_error_2:
    case Rule::cat_error:
    case Rule::nit_actual_error:
    case Rule::nit_other_error:
    case Rule::si_repetition_error:
    case Rule::sdt_actual_error:
    case Rule::sdt_other_error:
    case Rule::eit_actual_error:
    case Rule::eit_other_error:
    case Rule::eit_pf_error:
    case Rule::rst_error:
    case Rule::tdt_error:
        return interval | table_id;
    case Rule::continuity_count_error:
        return counters | lost | packets;
    case Rule::pid_error:
    case Rule::pcr_repetition_error:
    case Rule::pts_error:
    case Rule::unreferenced_pid:
        return interval;
    case Rule::crc_error:
    case Rule::version_unchanged:
        return table_id;
    case Rule::pcr_discontinuity_indicator_error:
    case Rule::stamp_order:
    case Rule::clock_jump:
        return step;
    case Rule::stamp_jump:
        return step | drift;
    case Rule::pcr_accuracy_error:
        return error_ns;
    case Rule::late_stamp:
        return late;
    case Rule::table_changed:
        return changes;
    case Rule::unexpected:
        return changes | interval;
    case Rule::datagram_error:
        return datagrams | packets;
    case Rule::off_air:
        return away;
    case Rule::analyzer_ended:
        return packet_hex;
    case Rule::suppressed:
        return left_out;
    case Rule::sync_byte_error:
    case Rule::transport_error:
    case Rule::scrambling_changed:
    case Rule::buffer_error:
    case Rule::empty_buffer_error:
    case Rule::data_delay_error:
        return 0;
    }
    return 0;
}

void time(Json& json, std::string_view key, std::optional<Ticks> ticks) {
    json.key(key);
    if (ticks && *ticks != no_time)
        json.seconds(*ticks / (ticks_per_second / 1'000'000));
    else
        json.null();
}

void place(Json& json, std::string_view key, const Place& place) {
    json.key(key).open('{');
    json.member("packet", place.packet).member("byte", place.byte);
    time(json, "time_s", place.time);
    json.member("time_estimated", place.estimated).key("ts");
    if (place.utc_us == no_time)
        json.null();
    else
        json.value(utc_text(place.utc_us));
    json.close('}');
}

void optional_place(Json& json, std::string_view key, const std::optional<Place>& at) {
    if (at)
        place(json, key, *at);
    else
        json.key(key).null();
}

void change_list(Json& json, const std::vector<TableChange>& list) {
    json.key("changes").open('[');
    for (const TableChange& change : list) {
        json.open('{');
        json.member("op", word(change.op)).member("what", word(change.what));
        json.member("number", change.number).member("pid", change.pid);
        json.member("old", change.before).member("new", change.after);
        json.member("name", change.name);
        json.close('}');
    }
    json.close(']');
}

void detail(Json& json, const Finding& finding, const Extras& extras) {
    const Detail& d = finding.detail;
    const unsigned has = members_of(finding.rule);
    json.key("detail").open('{');
    if (has & counters)
        json.member("expected", d.expected).member("got", d.got);
    if (has & lost)
        json.member("lost", d.lost);
    if (has & bytes)
        json.member("bytes", d.bytes);
    if (has & interval)
        json.member("interval_ms", d.interval_ms).member("limit_ms", d.limit_ms);
    if (has & table_id)
        json.member("table_id", d.table_id);
    if (has & step)
        json.member("step_ms", d.step_ms);
    if (has & drift)
        json.member("drift_ms_per_s", d.drift_ms_per_s);
    if (has & error_ns)
        json.member("error_ns", d.error_ns);
    if (has & late)
        json.member("late_ms", d.late_ms);
    if (has & changes)
        change_list(json, d.changes);
    if (has & datagrams)
        json.member("datagrams", d.datagrams);
    if (has & packets)
        json.member("packets", d.packets);
    if (has & away)
        json.member("away_ms", d.away_ms);
    if (has & packet_hex)
        json.member("packet_hex", extras.packet_hex);
    if (has & left_out)
        json.member("left_out", extras.left_out);
    if (d.pids.empty())
        json.key("pids").null();
    else
        json.list("pids", d.pids);
    json.member("worst", d.worst);
    json.member("cut_file", extras.cut_file).member("cut_packet", extras.cut_packet);
    json.close('}');
}

void rule(Json& json, const RuleSummary& r) {
    json.open('{');
    json.member("rule", info(r.rule).id).member("severity", word(info(r.rule).severity));
    json.member("judged", word(r.judged));
    json.word_or_null("why", r.why);
    json.list("pids", r.pids);
    json.member("count", r.count).member("consequences", r.consequences);
    optional_place(json, "first", r.first);
    optional_place(json, "last", r.last);
    json.member("worst", r.worst).close('}');
}

void clock(Json& json, const ClockSummary& c) {
    json.key("clock").open('{').member("kind", word(c.source)).member("pid", c.pid);
    json.member("announced", c.announced).member("constant_rate", c.constant_rate).close('}');
}

void hints(Json& json, const Summary& s) {
    json.key("hints").open('[');
    if (s.segment_hint)
        json.value("profile_segment");
    if (s.program_missing)
        json.value("program_missing");
    json.close(']');
}

} // namespace

Records::Records(std::string_view input) {
    Json json(head_);
    json.open('{').member("schema", "quarn-findings/1").member("input", input).key("seq");
}

void Records::begin(std::string& out, std::string_view type) {
    out += head_;
    Json(out).value(++seq_).member("type", type);
}

void Records::start(std::string& out, int packet_size, Profile profile) {
    begin(out, "start");
    Json(out).member("packet_size", packet_size).member("profile", word(profile)).close('}');
    out += '\n';
}

std::uint64_t Records::finding(std::string& out, const Finding& f, const Extras& extras) {
    begin(out, "finding");
    Json json(out);
    json.member("rule", info(f.rule).id).member("name", info(f.rule).name);
    json.word_or_null("kind", word(f.kind));
    json.member("severity", word(f.severity)).member("shape", word(f.shape));
    json.member("state", word(f.state)).member("raised_seq", extras.raised_seq);
    json.member("open", f.open).list("programs", f.programs).member("pid", f.pid);
    json.member("count", f.count).member("sure", word(f.sure));
    place(json, "begin", f.begin);
    place(json, "end", f.shape == Shape::point ? f.begin : f.end);
    detail(json, f, extras);
    json.member("text", sentence(f)).close('}');
    out += '\n';
    return seq_;
}

void Records::summary(std::string& out, const Summary& s) {
    begin(out, "summary");
    Json json(out);
    json.member("verdict", word(s.verdict)).key("why").open('[');
    for (const Rule r : s.why)
        json.value(info(r).id);
    json.close(']').member("packets", s.packets).member("bytes", s.bytes);
    time(json, "duration_s", s.duration);
    json.member("bitrate_bps", s.bitrate);
    clock(json, s.clock);
    hints(json, s);
    json.key("programs");
    write_programs(json, s.programs);
    json.key("rules").open('[');
    for (const RuleSummary& r : s.rules)
        rule(json, r);
    json.close(']').close('}');
    out += '\n';
}

void Records::error(std::string& out, std::string_view kind, std::string_view text) {
    begin(out, "error");
    Json(out).member("kind", kind).member("text", text).close('}');
    out += '\n';
}

} // namespace quarn
