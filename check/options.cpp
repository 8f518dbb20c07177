#include "options.h"

#include <unistd.h>

#include <functional>
#include <iostream>
#include <sstream>
#include <string_view>
#include <thread>

#include <CLI/CLI.hpp>

#include "meta.h"
#include "ordered.h"
#include "settings/command_line.h"
#include "settings/expect_file.h"
#include "settings/words.h"
#include "status.h"

namespace quarn::check {

namespace {

using settings::complaint;
using settings::flag;
using settings::in_quotes;
using settings::joined;
using settings::number;
using settings::refuse;
using settings::repeated;
using settings::taken;
using settings::with_value;

constexpr unsigned most_jobs = 1024;

Shard parse_shard(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        refuse("--shard", in_quotes(text) + " is not of the form I/N, such as 3/10");
    constexpr std::size_t most = 1'000'000'000;
    Shard shard;
    shard.count = number<std::size_t>(text.substr(slash + 1), 1, most);
    shard.index = number<std::size_t>(text.substr(0, slash), 1, shard.count);
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
    measure.series = line.html.has_value();
    measure.observe = line.write_expect.has_value();
    measure.limits = limits_of(measure.profile);
    for (const std::string& text : given.limits)
        taken("--limit", [&] { settings::set_limit_of(text, measure.limits); });
    for (const std::string& ids : given.require)
        taken("--require", [&] { settings::add_rules(ids, measure.require); });
    for (const std::string& ids : given.ignore)
        taken("--ignore", [&] { settings::add_rules(ids, measure.ignore); });
    taken("--require", [&] { settings::check_rules(measure); });
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
    if (!line.cuts.wanted() && !(line.cuts == cuts::Settings()))
        refuse("--cut", "is missing: without it nothing is cut out");
    if (line.write_expect && (line.files.size() != 1 || line.list))
        refuse("--write-expect", "writes what one capture is like; name one FILE and no --list");
    const auto dashes = std::count(line.files.begin(), line.files.end(), "-");
    if (dashes + (line.list == "-" ? 1 : 0) > 1)
        refuse("FILE", "standard input (\"-\") can be read only once");
}

void add_outputs(CLI::App& app, CommandLine& line) {
    flag(app, "--json", "Records as JSON Lines instead of a report for people", line.json);
    flag(app, "--quiet", "One line a file: verdict, name, why", line.quiet);
    const auto file = [&](const char* name, const char* help, const char* example,
                          std::optional<std::string>& path) {
        with_value(app, name, "FILE", help, [&path, name, example](const std::string& text) {
            if (text == "-")
                refuse(name, "\"-\" is no file, and standard output has the report; name "
                             "one, such as " +
                                 std::string(example));
            path = text;
        });
    };
    file("--junit", "Write JUnit XML as well", "report.xml", line.junit);
    file("--html", "Write a page with plots as well; of several captures an overview and pages",
         "report.html", line.html);
    file("--write-expect", "Write what the capture is like, for --expect", "news.expect",
         line.write_expect);
    with_value(app, "--explain", "ID", "Show the page on a rule, such as 1.4, and end",
               [&](const std::string& text) { line.explain = settings::rule_of(text); });
}

void add_cuts(CLI::App& app, cuts::Settings& cuts) {
    with_value(app, "--cut", "DIR", "Write the packets around each finding to files in DIR",
               [&](const std::string& text) {
                   if (text.empty())
                       refuse("--cut", "name a directory, such as cuts");
                   cuts.directory = text;
               });
    with_value(app, "--cut-seconds", "S", "So long before and behind a finding (default: 2)",
               [&](const std::string& text) {
                   cuts.seconds = settings::seconds_of(text, 0, cuts::longest_seconds);
               });
    with_value(app, "--cut-files", "N", "At most so many files of an input (default: 100)",
               [&](const std::string& text) {
                   cuts.files = number<std::uint64_t>(text, 1, cuts::most_files);
               });
    with_value(app, "--cut-bytes", "SIZE", "At most so many bytes of an input (default: 1G)",
               [&](const std::string& text) {
                   cuts.bytes = settings::size_of(text, cuts::least_bytes, cuts::most_bytes);
               });
}

void add_measuring(CLI::App& app, CommandLine& line, Given& given) {
    Options& m = line.measure;
    with_value(app, "--profile", "NAME", "Limits: dvb (default), strict, segment, tr101290",
               [&](const std::string& text) { m.profile = settings::profile_of(text); });
    repeated(app, "--limit", "NAME=VALUE", "Set a limit, such as 1.3.a=500ms; several times",
             given.limits);
    with_value(app, "--expect", "FILE", "Hold against this file besides (rule q.11)",
               [&](const std::string& text) { m.expect = settings::read_expectation(text); });
    with_value(app, "--bitrate", "N", "Bits a second: the clock of a stream that has none",
               [&](const std::string& text) {
                   m.bitrate = number<std::uint64_t>(text, 1, 1'000'000'000'000);
               });
    flag(app, "--dvb", "Judge all tables of SI, also those that never come", m.dvb);
    with_value(app, "--program", "N", "Findings and verdict of this program only",
               [&](const std::string& text) { m.program = number<std::uint16_t>(text, 1, 65535); });
    repeated(app, "--require", "IDS", "Insufficient where these rules cannot be judged",
             given.require);
    repeated(app, "--ignore", "IDS", "Leave these rules (such as 1.4,2.3.a) out of everything",
             given.ignore);
    with_value(app, "--fail-on", "SEVERITY",
               "The least that makes \"failed\": error (default), "
               "warning",
               [&](const std::string& text) { m.fail_on = settings::least_severity_of(text); });
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
               [&](const std::string& text) { line.jobs = number<unsigned>(text, 1, most_jobs); });
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
               "cannot be read, or an output that cannot be written; of several inputs the worst,\n"
               "in the order 3, 1, 2, 0.");
    app.set_version_flag("--version",
                         get_custom_app_info("quarn-check", "MPEG-TS capture checker", nullptr));
    add_inputs(app, line);
    add_outputs(app, line);
    add_cuts(app, line.cuts);
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
        std::cerr << "quarn-check: " << complaint(app, error, "FILE")
                  << "; see quarn-check --help\n";
        return status_error;
    }
    return line;
}

} // namespace quarn::check
