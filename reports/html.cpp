#include "html.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <set>
#include <utility>

#include "html_series.h"
#include "html_templates.h"
#include "json.h"
#include "rule_pages.h"
#include "sentences.h"
#include "text.h"
#include "words.h"

namespace quarn {

namespace {

constexpr std::size_t most_groups = 400; // lines of the table of findings

/// Characters that turn the direction of whatever follows (U+202A to U+202E, U+2066 to U+2069) have
/// no place in a name; what is left is kept apart from the text around it.
std::string name_html(std::string_view name) {
    std::string text = printable(name);
    for (std::size_t i = 0; (i = text.find('\xE2', i)) != std::string::npos; ++i) {
        const std::string_view two = std::string_view(text).substr(i + 1, 2);
        if ((two >= "\x80\xAA" && two <= "\x80\xAE") || (two >= "\x81\xA6" && two <= "\x81\xA9"))
            text.replace(i, 3, "\xEF\xBF\xBD");
    }
    return "<bdi>" + escaped(text) + "</bdi>";
}

using Holes = std::initializer_list<std::pair<std::string_view, std::string_view>>;

/// The template with "{{name}}" replaced, each once, in the order given.
std::string filled(std::string_view text, const Holes& holes) {
    std::string out;
    for (const auto& [name, content] : holes) {
        const std::size_t hole = text.find(name);
        if (hole == std::string_view::npos)
            continue;
        out += text.substr(0, hole);
        out += content;
        text.remove_prefix(hole + name.size());
    }
    return out += text;
}

void strings(Json& json, std::string_view key, const std::vector<std::string>& all) {
    json.key(key).open('[');
    for (const std::string& text : all)
        json.value(text);
    json.close(']');
}

void groups(Json& json, const Groups& all) {
    json.key("groups").open('[');
    std::size_t written = 0;
    for (const auto& [key, group] : all.all()) {
        if (++written > most_groups)
            break;
        json.open('{').member("rule", info(key.rule).id).member("severity", word(key.severity));
        json.word_or_null("kind", word(key.kind));
        json.key("pid");
        if (key.pid < 0)
            json.null();
        else
            json.value(key.pid);
        json.list("programs", group.finding.programs);
        json.member("text", group_text(key.rule, group));
        json.member("meaning", meaning(key.rule, key.kind, key.severity)).close('}');
    }
    json.close(']');
    json.member("groups_left_out",
                all.all().size() > most_groups ? all.all().size() - most_groups : std::size_t{0});
}

void rules(Json& json, const Groups& groups) {
    std::set<Rule> found;
    for (const auto& [key, group] : groups.all())
        found.insert(key.rule);
    json.key("rules").open('{');
    for (const RuleInfo& rule : rule_table) {
        json.key(rule.id).open('{').member("name", rule.name);
        if (found.contains(rule.rule))
            json.member("page", rule_page(rule.rule));
        json.close('}');
    }
    json.close('}');
}

/// Records as they are, in the order in which they were decided.
void findings(std::string& out, const KeptFindings& kept) {
    std::vector<const KeptFindings::Kept*> all;
    for (const auto& [key, list] : kept.kept())
        for (const KeptFindings::Kept& finding : list)
            all.push_back(&finding);
    std::sort(all.begin(), all.end(), [](const auto* a, const auto* b) { return a->seq < b->seq; });
    Json(out).key("findings").open('[');
    for (const KeptFindings::Kept* finding : all) {
        if (out.back() != '[')
            out += ',';
        out.append(finding->record, 0, finding->record.size() - 1); // without the line feed
    }
    Json(out).close(']');
}

/// Numbers that grow slowly, each as its distance from the one before: of the buckets with events.
template <class Value>
void steps(Json& json, std::string_view key, const Buckets<KeptFindings::Count>& buckets,
           Value value) {
    std::int64_t last = 0;
    json.key(key).open('[');
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        if (buckets[i].events == 0)
            continue;
        const auto now = static_cast<std::int64_t>(value(buckets[i], i));
        json.value(now - std::exchange(last, now));
    }
    json.close(']');
}

void counts_of(Json& json, Rule rule, const Filling<KeptFindings::Count>& counts, int stride) {
    using Count = KeptFindings::Count;
    json.open('{').member("rule", info(rule).id).member("width", counts.width);
    steps(json, "x", counts.buckets, [](const Count&, std::size_t i) { return i; });
    steps(json, "packet", counts.buckets,
          [](const Count& c, std::size_t) { return c.first.packet; });
    steps(json, "beyond", counts.buckets, [&](const Count& c, std::size_t) {
        return static_cast<std::int64_t>(c.first.byte) -
               static_cast<std::int64_t>(c.first.packet - 1) * stride;
    });
    json.key("events").open('[');
    for (const Count& count : counts.buckets)
        if (count.events > 0)
            json.value(count.events);
    json.close(']').key("severity").open('[');
    for (const Count& count : counts.buckets)
        if (count.events > 0)
            json.value(word(count.severity));
    json.close(']').close('}');
}

void counts(Json& json, const KeptFindings::Counts& all, int stride) {
    json.key("more").open('[');
    for (const auto& [rule, counts] : all)
        counts_of(json, rule, counts, stride);
    json.close(']');
}

/// Without the end of its line, and inside another object.
void summary_record(std::string& out, const std::string& name, const Summary& summary) {
    std::string record;
    Records(name).summary(record, summary);
    record.pop_back();
    Json(out).key("summary");
    out += record;
}

std::string page_data(const HtmlInput& input, TimeSeries&& series) {
    std::string out;
    Json json(out);
    json.open('{').member("input", input.facts.name);
    json.key("error");
    if (input.error.empty())
        json.null();
    else
        json.value(input.error);
    json.member("packet_size", input.facts.packet_size);
    json.member("facts", facts_text(input.facts, input.options, input.summary));
    strings(json, "remarks", remarks(input.options, input.summary));
    json.key("limits").open('{');
    json.member("pcr_ms", static_cast<double>(input.options.limits.pcr_gap) / ticks_per_ms);
    json.member("pcr_accuracy_ns", input.options.limits.pcr_accuracy_ns).close('}');
    summary_record(out, input.facts.name, input.summary);
    groups(json, input.groups);
    rules(json, input.groups);
    findings(out, input.findings);
    counts(json, input.findings.counts(), input.facts.packet_size);
    json.key("series");
    series_json(json, std::move(series), input.summary, input.facts.packet_size);
    json.close('}');
    // Nothing in it may end the element that it stands in.
    std::string safe;
    safe.reserve(out.size() + out.size() / 64);
    for (const char c : out)
        if (c == '<')
            safe += "\\u003c";
        else
            safe += c;
    return safe;
}

std::string_view css_class(Verdict verdict) {
    switch (verdict) {
    case Verdict::healthy:
        return "good";
    case Verdict::failed:
        return "error";
    case Verdict::insufficient:
        break;
    }
    return "warning";
}

std::string cell(std::string_view html, bool number = false) {
    return std::string(number ? "<td class=\"number\">" : "<td>") + std::string(html) + "</td>";
}

std::string row_begin(std::string_view css, std::string_view verdict, std::string_view name,
                      std::string_view link, std::string_view why) {
    std::string shown = name_html(name);
    if (!link.empty())
        shown = "<a href=\"" + escaped(link) + "\">" + shown + "</a>";
    return "<tr>" +
           cell("<span class=\"badge " + std::string(css) + "\">" + std::string(verdict) +
                "</span>") +
           cell(shown) + cell(escaped(printable(why)));
}

std::string program_list(const Summary& summary) {
    constexpr std::size_t most = 4;
    std::string text;
    for (std::size_t i = 0; i < summary.programs.size() && i < most; ++i) {
        const ProgramSummary& p = summary.programs[i];
        text += (i ? ", " : "") + std::to_string(p.number);
        if (p.name)
            text += " " + name_html(*p.name);
    }
    if (summary.programs.size() > most)
        text += " and " + std::to_string(summary.programs.size() - most) + " more";
    return text;
}

} // namespace

std::string html_page(const HtmlInput& input, TimeSeries&& series, std::string_view version) {
    std::string text;
    people_report(text, input.facts, input.options, input.summary, input.groups, Colours::none());
    const std::string verdict(input.error.empty() ? word(input.summary.verdict) : "unreadable");
    const std::string title = escaped(printable(input.facts.name)) + ": " + verdict;
    return filled(html_page_template(), {{"{{title}}", title},
                                         {"{{text}}", escaped(text)},
                                         {"{{version}}", version},
                                         {"{{data}}", page_data(input, std::move(series))}});
}

std::string html_row(const InputFacts& facts, const Summary& summary, const Groups& groups,
                     std::string_view link) {
    std::uint64_t errors = 0;
    std::uint64_t warnings = 0;
    for (const auto& [key, group] : groups.all()) {
        errors += key.severity == Severity::error ? group.count : 0;
        warnings += key.severity == Severity::warning ? group.count : 0;
    }
    return row_begin(css_class(summary.verdict), word(summary.verdict), facts.name, link,
                     why_text(summary)) +
           cell(summary.duration ? length_text(*summary.duration) : "", true) +
           cell(summary.bitrate ? rate_text(*summary.bitrate) : "", true) +
           cell(program_list(summary)) + cell(std::to_string(errors), true) +
           cell(std::to_string(warnings), true) + "</tr>\n";
}

std::string html_error_row(std::string_view name, std::string_view text, std::string_view link) {
    return row_begin("error", "unreadable", name, link, text) +
           "<td></td><td></td><td></td><td></td><td></td></tr>\n";
}

std::string html_overview_begin(const HtmlCounts& counts) {
    const std::size_t all =
        counts.failed + counts.insufficient + counts.healthy + counts.unreadable;
    const std::string title = count_text(all, "capture");
    std::string text;
    for (const auto& [count, what] : {std::pair{counts.failed, "failed"},
                                      {counts.insufficient, "insufficient"},
                                      {counts.healthy, "healthy"},
                                      {counts.unreadable, "unreadable"}})
        if (count > 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + what;
    const std::string whole =
        filled(html_overview_template(),
               {{"{{title}}", title}, {"{{title}}", title}, {"{{counts}}", text}});
    return whole.substr(0, whole.find("{{rows}}"));
}

std::string html_overview_end(std::string_view version) {
    constexpr std::string_view hole = "{{rows}}";
    const std::string_view whole = html_overview_template();
    return filled(whole.substr(whole.find(hole) + hole.size()), {{"{{version}}", version}});
}

} // namespace quarn
