#include "options.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include <CLI/CLI.hpp>

#include "measure/rules.h"
#include "meta.h"
#include "nearest.h"
#include "ordered.h"
#include "reports/words.h"
#include "status.h"

namespace quarn::check {

namespace {

constexpr unsigned most_jobs = 1024;

/// What is wrong with the value of an option, and what would be right.
[[noreturn]] void refuse(const std::string& option, const std::string& why) {
    throw CLI::ValidationError(option, why);
}

std::string in_quotes(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

template <class List, class Name>
std::string joined(const List& list, Name name) {
    std::string text;
    for (const auto& item : list)
        text += (text.empty() ? "" : ", ") + std::string(name(item));
    return text;
}

/// The rule with that number or name, in small letters or capitals.
Rule rule_of(const std::string& option, std::string_view text) {
    const std::string wanted = CLI::detail::to_lower(std::string(text));
    for (const RuleInfo& row : rule_table)
        for (const std::string_view own : {row.id, row.name})
            if (CLI::detail::to_lower(std::string(own)) == wanted)
                return row.rule;
    std::vector<std::string> near;
    std::vector<std::string> names;
    for (const RuleInfo& row : rule_table) {
        if (!text.empty() && row.id.starts_with(wanted + "."))
            near.emplace_back(row.id);
        names.emplace_back(row.name);
    }
    if (near.empty())
        near = nearest(text, names);
    const auto itself = [](const std::string& name) { return name; };
    refuse(option,
           "there is no rule " + in_quotes(text) +
               (near.empty() ? "; there are " +
                                   joined(rule_table, [](const RuleInfo& row) { return row.id; })
                             : "; did you mean " + joined(near, itself) + "?"));
}

/// A whole number from `least` to `most`.
template <class T>
T number(const std::string& option, std::string_view text, T least, T most) {
    T value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, wrong] = std::from_chars(text.data(), end, value);
    if (wrong != std::errc{} || rest != end || value < least || value > most)
        refuse(option, in_quotes(text) + " is no whole number from " + std::to_string(least) +
                           " to " + std::to_string(most));
    return value;
}

/// The enumerator with that word.
template <class E, std::size_t N>
E one_of(const std::string& option, std::string_view text, const std::array<E, N>& all) {
    for (const E e : all)
        if (word(e) == text)
            return e;
    refuse(option, in_quotes(text) + " is none of " + joined(all, [](E e) { return word(e); }));
}

void add_rules(const std::string& option, std::string_view ids, std::set<Rule>& rules) {
    for (;;) {
        const std::size_t comma = ids.find(',');
        rules.insert(rule_of(option, ids.substr(0, comma)));
        if (comma == std::string_view::npos)
            return;
        ids.remove_prefix(comma + 1);
    }
}

Shard parse_shard(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        refuse("--shard", in_quotes(text) + " is not of the form I/N, such as 3/10");
    constexpr std::size_t most = 1'000'000'000;
    Shard shard;
    shard.count = number<std::size_t>("--shard", text.substr(slash + 1), 1, most);
    shard.index = number<std::size_t>("--shard", text.substr(0, slash), 1, shard.count);
    return shard;
}

inputs::Endpoint parse_flow(std::string_view text) {
    const std::optional<inputs::Endpoint> flow = inputs::parse_endpoint(text);
    if (!flow)
        refuse("--flow", in_quotes(text) + " is no address and port, such as 239.1.1.1:5000 or "
                                           "[ff15::1]:5000");
    return *flow;
}

/// Values as they stand on the command line, in an order that does not matter.
struct Given {
    std::vector<std::string> limits;
    std::vector<std::string> require;
    std::vector<std::string> ignore;
};

void apply(const Given& given, CommandLine& line) {
    Options& measure = line.measure;
    measure.limits = limits_of(measure.profile);
    for (const std::string& text : given.limits) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos)
            refuse("--limit",
                   in_quotes(text) + " is not of the form NAME=VALUE, such as 1.3.a=500ms");
        if (const std::string wrong =
                set_limit(measure.limits, text.substr(0, equals), text.substr(equals + 1));
            !wrong.empty())
            refuse("--limit", wrong);
    }
    for (const std::string& ids : given.require)
        add_rules("--require", ids, measure.require);
    for (const std::string& ids : given.ignore)
        add_rules("--ignore", ids, measure.ignore);
    for (const Rule rule : measure.require)
        if (measure.ignore.count(rule))
            refuse("--require", std::string(info(rule).id) + " is ignored as well");
}

void check_combination(const CommandLine& line) {
    if (line.explain)
        return;
    if (line.files.empty() && !line.list)
        refuse("FILE", "name at least one, \"-\" for standard input, or a --list");
    if (line.json && line.quiet)
        refuse("--quiet", "goes not with --json: both say what standard output is");
    if (line.list && line.shard && !line.files.empty())
        refuse("--shard", "counts the lines of --list; name no FILE beside it");
    const auto dashes = std::count(line.files.begin(), line.files.end(), "-");
    if (dashes + (line.list == "-" ? 1 : 0) > 1)
        refuse("FILE", "standard input (\"-\") can be read only once");
}

/// An option with a value, handed to `take` as it is parsed.
CLI::Option* with_value(CLI::App& app, const std::string& name, const std::string& value,
                        const std::string& help,
                        const std::function<void(const std::string&)>& take) {
    return app.add_option_function<std::string>(name, take, help)->type_name(value);
}

/// One that may be given several times.
void repeated(CLI::App& app, const std::string& name, const std::string& value,
              const std::string& help, std::vector<std::string>& values) {
    with_value(app, name, value, help, [&values](const std::string& text) {
        values.push_back(text);
    })->trigger_on_parse();
}

void add_outputs(CLI::App& app, CommandLine& line) {
    app.add_flag("--json", line.json, "Records as JSON Lines instead of a report for people");
    app.add_flag("--quiet", line.quiet, "One line a file: verdict, name, why");
    with_value(app, "--junit", "FILE", "Write JUnit XML as well", [&](const std::string& text) {
        if (text == "-")
            refuse("--junit", "\"-\" is no file, and standard output has the report; name "
                              "one, such as report.xml");
        line.junit = text;
    });
    with_value(app, "--explain", "ID", "Show the page on a rule, such as 1.4, and end",
               [&](const std::string& text) { line.explain = rule_of("--explain", text); });
}

void add_measuring(CLI::App& app, CommandLine& line, Given& given) {
    Options& m = line.measure;
    with_value(app, "--profile", "NAME", "Limits: dvb (default), strict, segment, tr101290",
               [&](const std::string& text) {
                   m.profile = one_of("--profile", text,
                                      std::array{Profile::dvb, Profile::strict, Profile::segment,
                                                 Profile::tr101290});
               });
    repeated(app, "--limit", "NAME=VALUE", "Set a limit, such as 1.3.a=500ms; several times",
             given.limits);
    with_value(app, "--bitrate", "N", "Bits a second: the clock of a stream that has none",
               [&](const std::string& text) {
                   m.bitrate = number<std::uint64_t>("--bitrate", text, 1, 1'000'000'000'000);
               });
    app.add_flag("--dvb", m.dvb, "Judge all tables of SI, also those that never come");
    with_value(app, "--program", "N", "Findings and verdict of this program only",
               [&](const std::string& text) {
                   m.program = number<std::uint16_t>("--program", text, 1, 65535);
               });
    repeated(app, "--require", "IDS", "Insufficient where these rules cannot be judged",
             given.require);
    repeated(app, "--ignore", "IDS", "Leave these rules (such as 1.4,2.3.a) out of everything",
             given.ignore);
    with_value(
        app, "--fail-on", "SEVERITY",
        "The least that makes \"failed\": error (default), "
        "warning",
        [&](const std::string& text) {
            m.fail_on = one_of("--fail-on", text, std::array{Severity::error, Severity::warning});
        });
}

void add_inputs(CLI::App& app, CommandLine& line) {
    app.add_option("FILE", line.files,
                   "Captures: packets of 188, 192 or 204 bytes, pcap, pcapng; "
                   "\"-\" is standard input")
        ->type_name("");
    with_value(app, "--list", "FILE", "Captures, one path a line; \"-\": from standard input",
               [&](const std::string& text) { line.list = text; });
    with_value(app, "--shard", "I/N", "Only lines I, I + N, I + 2N, ... of the list",
               [&](const std::string& text) { line.shard = parse_shard(text); });
    with_value(app, "--flow", "ADDRESS:PORT", "Of a pcap: the datagrams to this destination",
               [&](const std::string& text) { line.flow = parse_flow(text); });
    with_value(app, "--jobs", "N", "Files at the same time (default: as many as processors)",
               [&](const std::string& text) {
                   line.jobs = number<unsigned>("--jobs", text, 1, most_jobs);
               });
}

/// CLI11 names the argument it does not know; what it could have been stands behind.
std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
    std::string text = error.what();
    if (!dynamic_cast<const CLI::ExtrasError*>(&error))
        return text;
    std::vector<std::string> options;
    for (const CLI::Option* const option : app.get_options())
        options.push_back(option->get_positional() ? "FILE" : option->get_name());
    const std::vector<std::string> unknown = app.remaining();
    const std::string given = unknown.empty() ? "" : unknown[0].substr(0, unknown[0].find('='));
    const std::vector<std::string> near = nearest(given, options);
    const auto itself = [](const std::string& name) { return name; };
    text += near.empty() ? "; options are " + joined(options, itself)
                         : "; did you mean " + joined(near, itself) + "?";
    return text;
}

} // namespace

std::variant<CommandLine, int> parse_command_line(int argc, char** argv) {
    CommandLine line;
    Given given;
    line.jobs = std::max(1U, std::thread::hardware_concurrency());

    CLI::App app(
        "Is this capture of an MPEG transport stream all right? Where and when is it\nnot, and what could not be judged?",
        "quarn-check");
    app.get_formatter()->column_width(24);
    app.footer("Exit status: 0 healthy, 1 failed, 2 insufficient, 3 wrong option or input that\n"
               "cannot be read; of several inputs the worst, in the order 3, 1, 2, 0.");
    app.set_version_flag("--version",
                         get_custom_app_info("quarn-check", "MPEG-TS capture checker", nullptr));
    add_inputs(app, line);
    add_outputs(app, line);
    add_measuring(app, line, given);
    try {
        app.parse(argc, argv);
        apply(given, line);
        check_combination(line);
    } catch (const CLI::Success& shown) {
        std::ostringstream text;
        app.exit(shown, text, text);
        Target out(STDOUT_FILENO, "standard output");
        out.write(text.str());
        return out.failed() ? status_error : status_healthy;
    } catch (const CLI::ParseError& error) {
        std::cerr << "quarn-check: " << complaint(app, error) << "; see quarn-check --help\n";
        return status_error;
    }
    return line;
}

} // namespace quarn::check
