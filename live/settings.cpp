#include "settings.h"

#include <algorithm>
#include <set>
#include <variant>

#include "appcfg.h"
#include "reports/text.h"
#include "settings/config_file.h"
#include "settings/expect_file.h"

namespace quarn::live {

using settings::Group;
using settings::in_quotes;
using settings::WrongValue;

namespace {

constexpr int most_loops = 64;
constexpr double shortest_run_s = 0.001;
constexpr double longest_run_s = 1e9;

/// Profile, limits and rules: of all inputs at the top of the file, of one in its group.
void read_measuring(const Group& group, Options& measure) {
    if (const auto name = group.text("profile")) {
        measure.profile = group.taken("profile", [&] { return settings::profile_of(*name); });
        measure.limits = limits_of(measure.profile);
    }
    if (const auto limits = group.texts("limits"))
        for (const std::string& limit : *limits)
            group.taken("limits", [&] { settings::set_limit_of(limit, measure.limits); });
    if (const auto rules = group.texts("ignore")) {
        measure.ignore.clear();
        for (const std::string& ids : *rules)
            group.taken("ignore", [&] { settings::add_rules(ids, measure.ignore); });
    }
    measure.dvb = group.flag("dvb").value_or(measure.dvb);
}

const std::vector<const char*> cut_keys = {"cut", "cut_seconds", "cut_files", "cut_bytes",
                                           "cut_memory"};

CutsGiven read_cuts(const Group& group) {
    CutsGiven given;
    const auto size = [&](const char* key, std::uint64_t least, std::uint64_t most) {
        std::optional<std::uint64_t> value;
        if (const auto text = group.text(key))
            value = group.taken(key, [&] { return settings::size_of(*text, least, most); });
        return value;
    };
    given.directory = group.text("cut");
    given.seconds = group.amount("cut_seconds", 0, cuts::longest_seconds);
    if (const auto files = group.number("cut_files", 1, cuts::most_files))
        given.files = static_cast<std::uint64_t>(*files);
    given.bytes = size("cut_bytes", cuts::least_bytes, cuts::most_bytes);
    given.memory = size("cut_memory", cuts::least_memory, cuts::most_memory);
    return given;
}

std::vector<const char*> with(std::vector<const char*> keys,
                              std::initializer_list<const std::vector<const char*>*> others) {
    for (const auto* const more : others)
        keys.insert(keys.end(), more->begin(), more->end());
    return keys;
}

void check_alerts(const Group& group, const AlertSettings& alerts) {
    for (const char* const key : alert_path_keys)
        if (group.text(key) && !alerts.lines)
            throw group.wrong(key,
                              "says where lines of the analyzer go, but alert_lines is not true");
}

inputs::InputUrl url_of(const std::string& text) {
    std::variant<inputs::InputUrl, std::string> parsed = inputs::parse_url(text);
    if (const std::string* const why = std::get_if<std::string>(&parsed))
        throw WrongValue(in_quotes(inputs::without_secrets(text)) +
                         (why->starts_with("has ") || why->starts_with("is ") ? " " : ": ") + *why);
    return std::get<inputs::InputUrl>(std::move(parsed));
}

/// What the analyzer must know of its input.
void tell_analyzer(InputSettings& input) {
    input.alerts.analyzer.name = input.name;
    input.alerts.analyzer.datagrams =
        input.url.datagrams() || input.url.scheme == inputs::InputUrl::Scheme::srt;
}

InputSettings read_input(const Group& group, const InputSettings& usual) {
    group.only(with({"name", "url", "profile", "limits", "ignore", "dvb", "expect"},
                    {&alert_keys, &alert_path_keys, &cut_keys}));
    InputSettings input;
    const auto url = group.text("url");
    if (!url)
        throw group.wrong(nullptr, "has no url, such as \"udp://239.1.1.1:5000\"");
    input.url = group.taken("url", [&] { return url_of(*url); });
    input.name = group.text("name").value_or(input.url.without_secrets());
    if (input.name.empty())
        throw group.wrong("name", "is empty; leave it out, and the URL is the name");
    if (valid_utf8(input.name) != input.name)
        throw group.wrong("name", "is no UTF-8");
    input.measure = usual.measure;
    read_measuring(group, input.measure);
    if (const auto file = group.text("expect"))
        input.measure.expect =
            group.taken("expect", [&] { return settings::read_expectation(*file); });
    input.alerts = usual.alerts;
    tell_analyzer(input);
    read_alerts(group, input.alerts);
    check_alerts(group, input.alerts);
    input.cuts = usual.cuts;
    read_cuts(group).apply(input.cuts);
    return input;
}

void read_outputs(const Group& root, Settings& all) {
    if (const auto http = root.text("http"))
        all.http = root.taken("http", [&] { return server_of(*http); });
    if (const auto file = root.text("findings"))
        all.findings = *file;
    if (const auto command = root.text("exec"))
        all.exec = *command;
    if (const auto name = root.text("syslog"))
        all.syslog = root.taken("syslog", [&] { return facility_of(*name); });
    if (const auto seconds = root.amount("for", shortest_run_s, longest_run_s))
        all.run_for = std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
    if (const auto loops = root.number("loops", 1, most_loops))
        all.loops = static_cast<unsigned>(*loops);
}

void read_file(const std::string& path, Settings& all, InputSettings& usual) {
    const settings::ConfigFile file(path);
    const Group root = file.root();
    root.only(with({"inputs", "http", "findings", "exec", "syslog", "for", "loops", "profile",
                    "limits", "ignore", "dvb"},
                   {&alert_keys, &cut_keys}));
    read_outputs(root, all);
    read_measuring(root, usual.measure);
    read_alerts(root, usual.alerts);
    read_cuts(root).apply(usual.cuts);
    if (const auto inputs = root.groups("inputs"))
        for (const Group& group : *inputs) {
            InputSettings input = read_input(group, usual);
            for (const InputSettings& other : all.inputs)
                if (other.name == input.name)
                    throw group.wrong("name", "two inputs are called " + in_quotes(input.name) +
                                                  "; give each a name of its own");
            all.inputs.push_back(std::move(input));
        }
}

template <class T>
void prefer(std::optional<T>& value, const std::optional<T>& said) {
    if (said)
        value = said;
}

bool is_any(const inputs::Endpoint& endpoint) {
    return std::all_of(endpoint.address.begin(), endpoint.address.end(),
                       [](std::uint8_t byte) { return byte == 0; });
}

/// Whether both would have to have the same socket. Groups are shared.
bool exclude_each_other(const inputs::InputUrl& a, const inputs::InputUrl& b) {
    if (a.scheme == inputs::InputUrl::Scheme::standard_input)
        return a.scheme == b.scheme;
    const bool bound = a.datagrams() && b.datagrams() && !a.multicast() && !b.multicast();
    return bound && a.endpoint.port == b.endpoint.port && a.endpoint.v6 == b.endpoint.v6 &&
           (a.endpoint.address == b.endpoint.address || is_any(a.endpoint) || is_any(b.endpoint));
}

void check_addresses(const std::vector<InputSettings>& all) {
    for (auto b = all.begin(); b != all.end(); ++b)
        for (auto a = all.begin(); a != b; ++a)
            if (exclude_each_other(a->url, b->url))
                throw WrongValue(b->url.scheme == inputs::InputUrl::Scheme::standard_input
                                     ? std::string("standard input can be an input only once")
                                     : "the inputs " + in_quotes(a->name) + " and " +
                                           in_quotes(b->name) + " have one address and port, " +
                                           inputs::to_string(b->url.endpoint) +
                                           "; only one of them can receive there");
}

void check_cuts(const std::vector<InputSettings>& inputs) {
    const auto cuts = [](const InputSettings& input) { return input.cuts.wanted(); };
    const auto said = [](const InputSettings& input) { return !(input.cuts == cuts::Settings()); };
    if (std::none_of(inputs.begin(), inputs.end(), cuts) &&
        std::any_of(inputs.begin(), inputs.end(), said))
        throw WrongValue(
            "it is said how findings are cut out, but not where to: cut, the directory, "
            "is missing");
}

void check(const Settings& all) {
    if (all.exec && all.exec->find_first_not_of(" \t\n") == std::string::npos)
        throw WrongValue("exec: is empty; name a command, such as \"logger -t quarn\"");
    if (all.inputs.empty())
        throw WrongValue("there is no input: name a URL such as udp://239.1.1.1:5000, or list "
                         "inputs in a configuration file");
    check_addresses(all.inputs);
    check_cuts(all.inputs);
    std::set<std::string> names, logs;
    for (const InputSettings& input : all.inputs)
        if (!names.insert(input.name).second)
            throw WrongValue("two inputs are called " + in_quotes(input.name) +
                             "; give each a name of its own");
    for (const InputSettings& input : all.inputs)
        for (const std::string& log :
             {input.alerts.analyzer.alert_log, input.alerts.analyzer.text_log})
            if (!log.empty() && !logs.insert(log).second)
                throw WrongValue("two inputs have the log " + in_quotes(log) +
                                 "; give each one of its own");
}

void observe(Settings& all) {
    if (!all.write_expect)
        return;
    if (all.inputs.size() != 1)
        throw WrongValue("--write-expect writes what one input is like; there are " +
                         std::to_string(all.inputs.size()));
    all.inputs.front().measure.observe = true;
    all.inputs.front().write_expect = all.write_expect;
}

} // namespace

bool InputSettings::operator==(const InputSettings& other) const {
    return name == other.name && url.text == other.url.text && measure == other.measure &&
           alerts == other.alerts && write_expect == other.write_expect && cuts == other.cuts;
}

void CutsGiven::apply(cuts::Settings& cuts) const {
    cuts.directory = directory.value_or(cuts.directory);
    cuts.seconds = seconds.value_or(cuts.seconds);
    cuts.files = files.value_or(cuts.files);
    cuts.bytes = bytes.value_or(cuts.bytes);
    cuts.memory = memory.value_or(cuts.memory);
}

int facility_of(const std::string& name) {
    const int facility = str2fac(name.c_str());
    if (facility < 0)
        throw WrongValue(in_quotes(name) + " is none of user, local0 to local7");
    return facility;
}

inputs::Endpoint server_of(const std::string& text) {
    if (const auto endpoint = inputs::parse_endpoint(text))
        return *endpoint;
    throw WrongValue(in_quotes(text) +
                     " is no address and port, such as 127.0.0.1:9400 or [::1]:9400; names are not "
                     "looked up, and 0.0.0.0 or [::] is any address of this machine");
}

Settings settings_of(const CommandLine& line) {
    Settings all;
    InputSettings usual;
    usual.measure.live = true;
    if (line.config)
        read_file(*line.config, all, usual);
    for (const std::string& text : line.urls) {
        InputSettings input = usual;
        input.url = url_of(text);
        input.name = input.url.without_secrets();
        tell_analyzer(input);
        all.inputs.push_back(std::move(input));
    }
    for (InputSettings& input : all.inputs)
        line.cuts.apply(input.cuts);
    prefer(all.http, line.settings.http);
    prefer(all.findings, line.settings.findings);
    prefer(all.exec, line.settings.exec);
    prefer(all.syslog, line.settings.syslog);
    prefer(all.run_for, line.settings.run_for);
    prefer(all.write_expect, line.settings.write_expect);
    check(all);
    observe(all);
    if (!all.http && !all.findings && !all.exec && !all.syslog)
        all.findings = "-";
    return all;
}

} // namespace quarn::live
