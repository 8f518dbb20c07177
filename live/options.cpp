#include "options.h"

#include <cstdio>
#include <iostream>
#include <sstream>

#include "meta.h"
#include "settings/command_line.h"
#include "status.h"

namespace quarn::live {

namespace {

using settings::flag;
using settings::with_value;

void add_inputs(CLI::App& app, CommandLine& line) {
    app.add_option("URL", line.urls,
                   "What to watch: udp://, rtp://, srt://ADDRESS:PORT, file://PATH; \"-\" is "
                   "standard input")
        ->type_name("");
    with_value(app, "-C,--config", "FILE", "Configuration file; see quarn-live.conf(5)",
               [&](const std::string& text) { line.config = text; });
    flag(app, "--check-config", "Say whether configuration and URLs are right, and end",
         line.check_config);
}

void add_outputs(CLI::App& app, Settings& all) {
    with_value(app, "--findings", "FILE",
               "Append findings as JSON Lines; \"-\": to standard output",
               [&](const std::string& text) { all.findings = text; });
    with_value(app, "--exec", "COMMAND", "Run for each finding, its record on standard input",
               [&](const std::string& text) { all.exec = text; });
    with_value(app, "--syslog", "FACILITY", "Findings to syslog: user, local0 to local7",
               [&](const std::string& text) { all.syslog = facility_of(text); });
    with_value(app, "--http", "ADDRESS:PORT", "Serve metrics, state and a page there",
               [&](const std::string& text) { all.http = server_of(text); });
    with_value(app, "--write-expect", "FILE",
               "At the end write what the one input was like; see quarn-expect(5)",
               [&](const std::string& text) {
                   if (text == "-")
                       settings::refuse("--write-expect", "\"-\" is no file; name one");
                   all.write_expect = text;
               });
    with_value(app, "--for", "SECONDS", "End in order after so long", [&](const std::string& text) {
        constexpr long longest = 1'000'000'000;
        all.run_for = std::chrono::seconds(settings::number<long>(text, 1, longest));
    });
}

void add_cuts(CLI::App& app, CutsGiven& given) {
    with_value(app, "--cut", "DIR", "Write the packets around each finding to files in DIR",
               [&](const std::string& text) { given.directory = text; });
    with_value(app, "--cut-seconds", "S", "So long before and behind a finding (default: 2)",
               [&](const std::string& text) {
                   given.seconds = settings::seconds_of(text, 0, cuts::longest_seconds);
               });
    with_value(app, "--cut-files", "N", "At most so many files of an input (default: 100)",
               [&](const std::string& text) {
                   given.files = settings::number<std::uint64_t>(text, 1, cuts::most_files);
               });
    const auto size = [&](const char* name, const char* help, std::uint64_t least,
                          std::uint64_t most, std::optional<std::uint64_t>& value) {
        with_value(app, name, "SIZE", help, [&value, least, most](const std::string& text) {
            value = settings::size_of(text, least, most);
        });
    };
    size("--cut-bytes", "At most so many bytes of an input (default: 1G)", cuts::least_bytes,
         cuts::most_bytes, given.bytes);
    size("--cut-memory", "Room for the last seconds of an input (default: 32M)", cuts::least_memory,
         cuts::most_memory, given.memory);
}

int show(const CLI::App& app, const CLI::Success& shown) {
    std::ostringstream text;
    app.exit(shown, text, text);
    std::cout << text.str() << std::flush;
    if (std::cout)
        return status_in_order;
    std::cerr << "quarn-live: standard output cannot be written\n";
    return status_wrong;
}

} // namespace

std::variant<CommandLine, int> parse_command_line(int argc, char** argv) {
    CommandLine line;
    CLI::App app("Watches MPEG transport streams day and night, and says what goes wrong when it\n"
                 "begins and when it is over.",
                 "quarn-live");
    app.get_formatter()->column_width(24);
    app.footer("Exit status: 0 after an end in order, 1 where records or commands were lost,\n"
               "3 for a wrong option or configuration, a port that is taken, or an expectation\n"
               "that could not be written.");
    app.set_version_flag("--version",
                         get_custom_app_info("quarn-live", "MPEG-TS channel monitor", nullptr));
    add_inputs(app, line);
    add_outputs(app, line.settings);
    add_cuts(app, line.cuts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& shown) {
        return show(app, shown);
    } catch (const CLI::ParseError& error) {
        std::cerr << "quarn-live: " << settings::complaint(app, error, "URL")
                  << "; see quarn-live --help\n";
        return status_wrong;
    }
    return line;
}

} // namespace quarn::live
