#include "people.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "sentences.h"
#include "text.h"
#include "words.h"

namespace quarn {

namespace {

/// Of more pids with the same fault only so many have a line of their own.
constexpr std::size_t most_lines = 8;

std::string_view colour(const Colours& c, Verdict verdict) {
    switch (verdict) {
    case Verdict::healthy:
        return c.good;
    case Verdict::failed:
        return c.bad;
    case Verdict::insufficient:
        return c.doubtful;
    }
    return {};
}

std::string_view colour(const Colours& c, Severity severity) {
    switch (severity) {
    case Severity::error:
        return c.bad;
    case Severity::warning:
        return c.doubtful;
    case Severity::info:
        return {};
    }
    return {};
}

void coloured(std::string& out, std::string_view colour, const Colours& c, std::string_view text) {
    out += colour;
    out += text;
    if (!colour.empty())
        out += c.off;
}

/// A column of a table: at least one blank behind it.
void padded(std::string& out, std::string_view text, std::size_t width) {
    out += text;
    out.append(std::max(width, columns(text) + 1) - columns(text), ' ');
}

std::string pid_list(const std::vector<std::uint16_t>& pids) {
    std::string text = pids.size() == 1 ? "pid " : "pids ";
    for (std::size_t i = 0; i < pids.size() && i < most_lines; ++i)
        text += (i ? ", " : "") + std::to_string(pids[i]);
    if (pids.size() > most_lines)
        text += " and " + std::to_string(pids.size() - most_lines) + " more";
    return text;
}

std::string clock_text(const ClockSummary& clock) {
    switch (clock.source) {
    case ClockSummary::Source::none:
        return "no clock: nothing that needs time was judged";
    case ClockSummary::Source::pcr:
        return "clock from the PCR" + (clock.pid ? " of pid " + std::to_string(*clock.pid) : "") +
               (clock.announced ? "" : " (which no PMT names)") +
               (clock.constant_rate ? ", constant rate" : ", variable rate");
    case ClockSummary::Source::arrival:
        return "clock from the time of arrival";
    case ClockSummary::Source::bitrate:
        return "clock from the given bit rate";
    }
    return {};
}

void head(std::string& out, const InputFacts& input, const Options& options, const Summary& s,
          const Colours& c) {
    coloured(out, colour(c, s.verdict), c, word(s.verdict));
    out += ": " + printable(input.name) + "\n";
    wrap(out, facts_text(input, options, s), 2);
    for (const std::string& remark : remarks(options, s))
        wrap(out, remark, 2);
}

void stream_line(std::string& out, const StreamSummary& s, const Colours& c) {
    out += "  pid ";
    padded(out, std::to_string(s.pid), 6);
    padded(out, word(s.kind), 10);
    padded(out, word(s.codec), 13);
    padded(out, printable(s.language), 8);
    if (s.packets == 0) {
        coloured(out, c.doubtful, c, "no packets");
    } else {
        const std::string amount =
            s.bitrate ? rate_text(*s.bitrate) : count_text(s.packets, "packet");
        if (s.lost || s.scrambled)
            padded(out, amount, 15);
        else
            out += amount;
        if (s.lost)
            coloured(out, c.bad, c, std::to_string(s.lost) + " lost");
        if (s.scrambled)
            out += std::string(s.lost ? ", " : "") +
                   (s.scrambled == s.packets ? "scrambled" : "partly scrambled");
    }
    out += '\n';
}

void programs(std::string& out, const Summary& s, const Colours& c) {
    for (const ProgramSummary& p : s.programs) {
        std::string title = "Program " + std::to_string(p.number);
        if (p.name)
            title += " \"" + printable(*p.name) + "\"";
        out += '\n';
        coloured(out, c.heading, c, title);
        std::string about = p.provider ? " by " + printable(*p.provider) : std::string();
        about += ", PMT on pid " + std::to_string(p.pmt_pid);
        about += p.pcr_pid ? ", PCR on pid " + std::to_string(*p.pcr_pid)
                           : std::string(p.streams.empty() ? ", which never came" : ", no PCR");
        if (columns(title + about) > 80)
            about = "\n  " + about.substr(about.find_first_not_of(", "));
        out += about + "\n";
        for (const StreamSummary& stream : p.streams)
            stream_line(out, stream, c);
    }
}

using Row = Groups::Key;
using Rows = std::vector<std::pair<Row, const Group*>>;

/// What a group says, told whole.
std::string told(const Group& group, const ProgramNames& names) {
    std::string where = stretch_text(group.finding);
    where[0] = where[0] == 'a' ? 'A' : 'F'; // at, from
    return printable(sentence(group.finding, names)) + " " + where + "." +
           (group.sure ? "" : " A guess.");
}

/// "pid 256 (program 1 "News"): "
std::string whose(const Group& group, const ProgramNames& names) {
    if (!group.finding.pid)
        return {};
    const std::string programs = programs_text(group.finding, names);
    return "pid " + std::to_string(*group.finding.pid) +
           (programs.empty() ? "" : " (" + printable(programs) + ")") + ": ";
}

void cut_line(std::string& out, const Group& group) {
    if (group.cut)
        out += "      cut: " + printable(group.cut->file) + ", packet " +
               std::to_string(group.cut->packet) + "\n";
}

/// A line a pid, and of many pids one for the rest.
void group_lines(std::string& out, Rows rows, const ProgramNames& names) {
    std::stable_sort(rows.begin(), rows.end(), [&](const auto& a, const auto& b) {
        // In the order of pids, unless there are too many: then what happened most.
        return rows.size() > most_lines && a.second->count > b.second->count;
    });
    for (std::size_t i = 0; i < rows.size() && i < most_lines; ++i) {
        const auto& [key, group] = rows[i];
        const bool own = key.rule == Rule::unexpected; // it says what it is about
        if (own && group->count == 1) {
            wrap(out, told(*group, names), 4);
            cut_line(out, *group);
            continue;
        }
        wrap(out, (own ? "" : whose(*group, names)) + group_text(key.rule, *group), 4);
        if (own || key.rule == Rule::table_changed)
            wrap(out, printable(sentence(group->finding, names)),
                 6); // says itself what no figure can
        cut_line(out, *group);
    }
    if (rows.size() <= most_lines)
        return;
    std::uint64_t count = 0;
    for (std::size_t i = most_lines; i < rows.size(); ++i)
        count += rows[i].second->count;
    wrap(out,
         count_text(rows.size() - most_lines,
                    rows.front().first.rule == Rule::unexpected ? "more thing" : "more pid") +
             ": " + std::to_string(count) + (count == 1 ? " time" : " times"),
         4);
}

void rule_heading(std::string& out, const Row& row, const Colours& c) {
    out += "  ";
    coloured(out, colour(c, row.severity), c, word(row.severity));
    out += " " + std::string(info(row.rule).id) + " ";
    coloured(out, c.heading, c, info(row.rule).name);
    if (row.kind != Kind::none)
        out += ", " + std::string(word(row.kind));
    out += '\n';
}

void findings(std::string& out, const Groups& groups, const ProgramNames& names, const Colours& c) {
    const auto& all = groups.all();
    if (all.empty())
        return;
    out += '\n';
    coloured(out, c.heading, c, "Findings");
    out += '\n';
    const auto same = [](const Row& a, const Row& b) {
        return a.rule == b.rule && a.severity == b.severity && a.kind == b.kind;
    };
    for (auto at = all.begin(); at != all.end();) {
        const auto end = std::find_if_not(
            at, all.end(), [&](const auto& other) { return same(at->first, other.first); });
        Rows rows;
        for (auto row = at; row != end; ++row)
            rows.emplace_back(row->first, &row->second);
        rule_heading(out, at->first, c);
        if (rows.size() == 1 && rows[0].second->count == 1) {
            wrap(out, told(*rows[0].second, names), 4);
            cut_line(out, *rows[0].second);
        } else {
            group_lines(out, rows, names);
        }
        wrap(out, meaning(at->first.rule, at->first.kind, at->first.severity), 4);
        at = end;
    }
}

void consequences(std::string& out, const Summary& s) {
    std::uint64_t count = 0;
    for (const RuleSummary& rule : s.rules)
        count += rule.consequences;
    if (count)
        wrap(out,
             count_text(count, "more event") + " followed from these and " +
                 (count == 1 ? "is" : "are") + " not listed.",
             2);
}

void not_judged(std::string& out, const Summary& s, Judged judged, std::string_view title,
                const Colours& c) {
    std::vector<std::pair<std::string, std::string>> reasons; // with the rules, in their order
    for (const RuleSummary& rule : s.rules) {
        if (rule.judged != judged)
            continue;
        std::string reason = rule.why.empty() ? "no reason known" : rule.why;
        if (!rule.pids.empty())
            reason += " (" + pid_list(rule.pids) + ")";
        const std::string id(info(rule.rule).id);
        const auto same = std::find_if(reasons.begin(), reasons.end(),
                                       [&](const auto& r) { return r.first == reason; });
        if (same == reasons.end())
            reasons.emplace_back(reason, id);
        else
            same->second += ", " + id;
    }
    if (reasons.empty())
        return;
    out += '\n';
    coloured(out, c.heading, c, title);
    out += '\n';
    for (const auto& [reason, ids] : reasons)
        wrap(out, ids + ": " + printable(reason), 2);
}

/// Rules with warnings that the verdict does not come from: " (warnings: 2.4, 3.5.a)".
std::string warnings_text(const Summary& summary, const Groups& groups) {
    std::vector<Rule> rules;
    for (const auto& [key, group] : groups.all())
        if (key.severity == Severity::warning && (rules.empty() || rules.back() != key.rule) &&
            !made_failed(summary, key.rule))
            rules.push_back(key.rule);
    return rules.empty() ? "" : " (warnings: " + id_list(rules) + ")";
}

void one_line(std::string& out, std::string_view colour, const Colours& c, std::string_view what,
              std::string_view name, std::string_view why) {
    coloured(out, colour, c, what);
    padded(out, "", 14 - what.size());
    out += printable(name);
    if (!why.empty())
        out += ": " + printable(why);
}

} // namespace

Colours Colours::terminal() {
    return {"\033[1;32m", "\033[1;31m", "\033[1;33m", "\033[1m", "\033[0m"};
}

std::string facts_text(const InputFacts& input, const Options& options, const Summary& s) {
    std::string facts =
        std::to_string(input.packet_size) + "-byte packets, " + count_text(s.packets, "packet");
    if (!input.flow.empty())
        facts = input.flow + ", " + facts;
    if (s.duration)
        facts += ", " + length_text(*s.duration);
    if (s.bitrate)
        facts += ", " + rate_text(*s.bitrate);
    facts += "; " + clock_text(s.clock);
    if (options.profile != Profile::dvb)
        facts += "; profile " + std::string(word(options.profile));
    return facts;
}

std::vector<std::string> remarks(const Options& options, const Summary& s) {
    std::vector<std::string> all;
    if (s.program_missing && options.program)
        all.push_back("There is no program " + std::to_string(*options.program) + " in it.");
    else if (s.verdict == Verdict::insufficient)
        all.push_back("Nothing is known to be wrong, but not all could be judged: " +
                      id_list(s.why) + " (below).");
    if (s.clock.source == ClockSummary::Source::none && s.packets > 0)
        all.emplace_back("If its bit rate is known, --bitrate N gives it a clock.");
    if (s.segment_hint && options.profile != Profile::segment)
        all.emplace_back("One PAT only, at the start: if this is a segment of HLS or the like, "
                         "--profile segment fits better.");
    return all;
}

void people_report(std::string& out, const InputFacts& input, const Options& options,
                   const Summary& summary, const Groups& groups, const Colours& colours) {
    head(out, input, options, summary, colours);
    programs(out, summary, colours);
    findings(out, groups, program_names(summary), colours);
    consequences(out, summary);
    not_judged(out, summary, Judged::no, "Could not be judged", colours);
    not_judged(out, summary, Judged::not_applicable, "Does not apply", colours);
    out += '\n';
}

void quiet_line(std::string& out, const InputFacts& input, const Summary& summary,
                const Groups& groups, const Colours& colours) {
    one_line(out, colour(colours, summary.verdict), colours, word(summary.verdict), input.name,
             why_text(summary));
    out += warnings_text(summary, groups) + "\n";
}

void quiet_error(std::string& out, std::string_view name, std::string_view text,
                 const Colours& colours) {
    one_line(out, colours.bad, colours, "unreadable", name, text);
    out += '\n';
}

} // namespace quarn
