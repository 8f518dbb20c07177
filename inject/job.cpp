// job.cpp - requests are taken apart, parameters and places are chosen; see job.h.
#include "job.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace inject {

namespace {

constexpr double FRONT = 4.5; // seconds at the start in which rates and habits are learnt
constexpr double APART = 2.5; // seconds between two faults
constexpr int ATTEMPTS = 200;

std::vector<std::string> split(std::string_view text, char by) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(by), text.size());
        out.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(text.size(), end + 1));
    }
    return out;
}

std::optional<double> to_number(const std::string& text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool all = error == std::errc{} && end == text.data() + text.size();
    return all && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

// The text behind "name=" in the parameters of a kind.
std::optional<std::string> declared(const Kind& kind, const std::string& name) {
    for (const std::string& entry : split(kind.parameters, ',')) {
        if (entry.starts_with(name + "=")) {
            return entry.substr(name.size() + 1);
        }
    }
    return {};
}

// The smallest of the values that are drawn: below it a fault would be none.
double smallest(const std::string& declaration) {
    double out = 0;
    bool first = true;
    for (const std::string& choice : split(declaration.substr(0, declaration.find("..")), '|')) {
        const double number = to_number(choice).value_or(0);
        out = first ? number : std::min(out, number);
        first = false;
    }
    const bool drawn =
        declaration.find("..") != std::string::npos || declaration.find('|') != std::string::npos;
    return drawn ? out : 0;
}

std::string plain(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", number);
    return text;
}

Kind kind_named(const std::string& name) {
    std::string names;
    for (const Kind& kind : all_kinds()) {
        if (kind.name == name) {
            return kind;
        }
        names += std::string(names.empty() ? "" : ", ") + kind.name;
    }
    throw WrongRequest("no fault is called '" + name + "'; there are " + names);
}

} // namespace

std::uint64_t Random::next() {
    state_ += 0x9E3779B97F4A7C15;
    std::uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
}

double Random::between(double low, double high) {
    return low + (high - low) * static_cast<double>(next() >> 11) * 0x1p-53;
}

std::vector<Kind> all_kinds() {
    std::vector<Kind> out;
    for (const auto& group : {counter_kinds(), clock_kinds(), stamp_kinds(), presence_kinds(),
                              table_kinds(), content_kinds(), framing_kinds()}) {
        out.insert(out.end(), group.begin(), group.end());
    }
    return out;
}

Request parse_request(std::string_view text) {
    const std::size_t at = text.rfind('@');
    Request request;
    if (at != std::string_view::npos) {
        request.seconds = to_number(std::string(text.substr(at + 1)));
        if (!request.seconds || *request.seconds < 0) {
            throw WrongRequest(std::string(text) + ": seconds must stand behind '@', such as 12.5");
        }
        text = text.substr(0, at);
    }
    const std::size_t colon = std::min(text.find(':'), text.size());
    request.kind = kind_named(std::string(text.substr(0, colon)));
    for (const std::string& pair : split(text.substr(std::min(text.size(), colon + 1)), ',')) {
        const std::size_t equal = pair.find('=');
        const std::string name = pair.substr(0, equal);
        if (equal == std::string::npos || !declared(request.kind, name)) {
            throw WrongRequest(pair + ": " + request.kind.name + " has the parameters " +
                               (*request.kind.parameters == 0 ? "none" : request.kind.parameters));
        }
        request.values[name] = pair.substr(equal + 1);
    }
    return request;
}

Job::Job(Capture& capture, const Request& request, std::uint64_t seed, Taken& taken)
    : ts(capture), random(seed), request_(request), taken_(taken) {
    record.kind = request.kind.name;
}

std::string Job::value(const char* name) {
    const auto given = request_.values.find(name);
    std::string out =
        given != request_.values.end() ? given->second : declared(request_.kind, name).value_or("");
    if (const auto choices = split(out, '|'); choices.size() > 1) {
        out = choices[random.below(choices.size())];
    }
    if (const std::size_t dots = out.find(".."); dots != std::string::npos) {
        const auto low = to_number(out.substr(0, dots));
        const auto high = to_number(out.substr(dots + 2));
        if (low && high && *high >= *low) {
            const auto steps = static_cast<std::size_t>(*high - *low) + 1;
            out = std::to_string(static_cast<std::int64_t>(*low) +
                                 static_cast<std::int64_t>(random.below(steps)));
        }
    }
    return out;
}

double Job::number(const char* name, double most) {
    const std::string text = value(name);
    const auto parsed = to_number(text);
    const double least = smallest(declared(request_.kind, name).value_or(""));
    if (!parsed || *parsed < least || *parsed > most) {
        throw WrongRequest(std::string(name) + "=" + text + ": a number from " + plain(least) +
                           " to " + plain(most) + " is needed");
    }
    record.parameters[name] = *parsed;
    return *parsed;
}

std::string Job::word(const char* name) {
    std::string text = value(name);
    record.parameters[name] = text;
    return text;
}

double Job::start(double length, double behind) {
    const double low = std::min(FRONT, ts.duration / 3);
    const double high = ts.duration - length - behind;
    const auto crosses = [&](double from) {
        return std::any_of(taken_.begin(), taken_.end(), [&](const auto& other) {
            return from < other.second + APART && from + length + APART > other.first;
        });
    };
    double from = request_.seconds.value_or(0);
    if (request_.seconds && from >= ts.duration) {
        throw Refused("the capture ends after " + std::to_string(ts.duration) + " s");
    }
    if (!request_.seconds) {
        if (high <= low) {
            throw Refused("the capture is too short: " + std::to_string(low + length + behind) +
                          " s are needed");
        }
        int left = ATTEMPTS;
        do {
            from = random.between(low, high);
        } while (crosses(from) && --left > 0);
        if (left == 0) {
            throw Refused("there is no room left beside the other faults");
        }
    }
    taken_.emplace_back(from, from + length);
    return from;
}

int Job::media_pid() {
    const std::string wanted = value("pid");
    std::vector<int> pids = ts.media_pids();
    if (wanted == "video" || wanted == "audio") {
        const auto kind = wanted == "video" ? StreamKind::video : StreamKind::audio;
        std::erase_if(pids, [&](int pid) { return ts.kind_of(pid) != kind; });
    } else if (wanted != "any") {
        const auto pid = to_number(wanted);
        if (!pid || ts.payloads(static_cast<int>(*pid)).empty()) {
            throw Refused("pid=" + wanted + ": any, video, audio or a pid with packets is needed");
        }
        pids = {static_cast<int>(*pid)};
    }
    if (pids.empty()) {
        throw Refused("the capture has no " + wanted + " stream");
    }
    const int pid = pids[random.below(pids.size())];
    record.parameters["pid"] = pid;
    return pid;
}

const Programme& Job::programme_by_parameter() {
    const int wanted = whole("programme");
    if (wanted == 0) {
        return ts.programmes[random.below(ts.programmes.size())];
    }
    for (const Programme& programme : ts.programmes) {
        if (programme.number == wanted) {
            return programme;
        }
    }
    throw Refused("programme=" + std::to_string(wanted) + ": there is no such programme");
}

Finding& Job::must(const char* rule, std::vector<std::string> kinds, std::vector<int> pids,
                   Span begin) {
    record.must.push_back({rule, std::move(kinds), std::move(pids), begin, {}, Json::object(), {}});
    return record.must.back();
}

Finding& Job::may(const char* rule, std::vector<int> pids, Span begin) {
    record.may.push_back({rule, {}, std::move(pids), begin, {}, Json::object(), {}});
    return record.may.back();
}

void Job::touches(std::size_t item, int pid) {
    record.item = id(item);
    record.pid = pid;
    if (const Programme* programme = ts.programme_of(pid); programme != nullptr) {
        record.programme = programme->number;
    }
}

Span Job::range(std::size_t first, std::size_t last) const {
    const std::size_t end = ts.items.size() - 1;
    return {id(std::min(first, end)), id(std::min(last, end))};
}

Span Job::until(std::size_t first, std::size_t last, double seconds) const {
    return range(first, ts.at(ts.items[std::min(last, ts.items.size() - 1)].time + seconds));
}

} // namespace inject
