// Whole streams through the library: what is sent and done to it, what is found and said of it.
//
// A case of a file:  "== name", "stream" or "stream = NAME: words" (kept under that name), faults,
// "with options", then what is expected: findings, the verdict and answers of rows. The same is to
// be found live, with the times of the clean stream as arrival; where arrival tells more than PCRs
// do, "live" lines say what is found then ("live" alone: nothing).
#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>

#include <gtest/gtest.h>

#include "multiplex.h"

namespace quarn {
namespace {

std::string number(double value) {
    std::ostringstream out;
    out.precision(9);
    out << std::round(value * 1000) / 1000;
    return out.str();
}

// "@1001:1000", the packet and its time in ms; an estimate has a "~".
std::string at(const Place& p) {
    const std::string time =
        p.time == no_time ? "-" : number(static_cast<double>(p.time) / ticks_per_ms);
    return std::to_string(p.packet) + ":" + (p.time != no_time && p.estimated ? "~" : "") + time;
}

std::string line(const Finding& f) {
    std::string text(info(f.rule).id);
    if (f.kind != Kind::none)
        text += " " + std::string(word(f.kind));
    if (f.severity != info(f.rule).severity)
        text += " " + std::string(word(f.severity));
    text += (f.pid ? " " + std::to_string(*f.pid) : "") + " @" + at(f.begin);
    if (f.shape == Shape::interval)
        text += "-" + at(f.end);
    text += f.open ? " open" : "";
    if (f.count > 1)
        text += " x" + std::to_string(f.count);
    if (f.detail.expected)
        text += " " + std::to_string(*f.detail.expected) + "/" + std::to_string(*f.detail.got);
    const auto figure = [&](const char* name, const auto& value) {
        if (value)
            text += std::string(" ") + name + "=" + number(static_cast<double>(*value));
    };
    const Detail& d = f.detail;
    figure("lost", d.lost), figure("bytes", d.bytes), figure("ms", d.interval_ms);
    figure("step", d.step_ms), figure("ns", d.error_ns), figure("late", d.late_ms);
    figure("datagrams", d.datagrams), figure("packets", d.packets), figure("away", d.away_ms),
        figure("worst", d.worst);
    for (const TableChange& c : f.rule == Rule::unexpected ? d.changes : std::vector<TableChange>())
        text += " " + std::to_string(static_cast<int>(c.op)) + "/" +
                std::to_string(static_cast<int>(c.what)) + " " + c.before.value_or("-") + " > " +
                c.after.value_or("-");
    for (const std::uint16_t pid : d.pids)
        text += " +" + std::to_string(pid);
    if (f.sure != Sure::exact)
        text += f.sure == Sure::guess ? " guess" : " mod16";
    return text + "\n";
}

std::string verdict(const Summary& s) {
    std::string text = s.verdict == Verdict::healthy  ? "healthy"
                       : s.verdict == Verdict::failed ? "failed"
                                                      : "insufficient";
    for (const Rule r : s.why)
        text += " " + std::string(info(r).id);
    for (const RuleSummary& r : s.rules)
        if (r.consequences > 0)
            text +=
                " (" + std::string(info(r.rule).id) + " x" + std::to_string(r.consequences) + ")";
    return text + "\n";
}

std::string row(const Summary& s, const std::string& id) {
    if (id == "clock") {
        static constexpr const char* sources[] = {"none", "pcr", "arrival", "bitrate"};
        return std::string("row clock ") + sources[static_cast<int>(s.clock.source)] +
               (s.clock.pid ? " " + std::to_string(*s.clock.pid) : "") +
               (s.clock.constant_rate ? " constant" : "") + " " +
               (s.duration ? number(static_cast<double>(*s.duration) / ticks_per_ms) : "-") + "\n";
    }
    for (const RuleSummary& r : s.rules)
        if (info(r.rule).id == id) {
            std::string text = "row " + id +
                               (r.judged == Judged::yes  ? " yes"
                                : r.judged == Judged::no ? " no"
                                                         : " n/a");
            text += r.why.empty() ? "" : ", " + r.why;
            for (const std::uint16_t pid : r.pids)
                text += " " + std::to_string(pid);
            return text + (r.count > 0 ? " x" + std::to_string(r.count) : "") + "\n";
        }
    return "no row " + id + "\n";
}

// "service 1", then what is said of it; numbers as "least-most", times in ms. Returns false where
// the word is none of these.
bool expects(Expectation& e, const std::string& name, const std::string& value) {
    const auto number = [&] { return std::stoll(value); };
    const auto range = [&] {
        return Range{std::stoll(value), std::stoll(value.substr(value.find('-') + 1))};
    };
    if (name == "service") {
        e.services.emplace_back().number = static_cast<std::uint16_t>(number());
    } else if (name == "pmt") {
        e.services.back().pmt_interval = number() * ticks_per_ms;
    } else if (name == "pid") {
        e.services.back().streams.emplace_back().pid = {number(), number()};
    } else if (name == "of") {
        e.services.back().streams.back().bitrate = range();
    } else if (name == "clear") {
        e.services.back().streams.back().scrambled = number() == 0;
    } else if (name == "all") {
        e.bitrate = range();
    } else if (name == "over") {
        e.bitrate_over = number() * ticks_per_ms;
    } else if (name == "table") {
        e.tables.push_back({static_cast<std::uint8_t>(number()), {}, 0, false});
    } else if (name == "within") {
        e.tables.back().interval = number() * ticks_per_ms;
    } else if (name == "constant") {
        e.constant_rate = number() != 0;
    } else {
        return false;
    }
    return true;
}

Options options_of(const std::string& words) {
    Options o;
    Expectation expected;
    std::istringstream in(words);
    for (std::string name, value; in >> name >> value;) {
        if (name == "profile") {
            static const std::map<std::string, Profile> profiles = {
                {"strict", Profile::strict},
                {"segment", Profile::segment},
                {"tr101290", Profile::tr101290}};
            o.profile = profiles.at(value);
            o.limits = limits_of(o.profile);
        } else if (name == "program") {
            o.program = static_cast<std::uint16_t>(std::stoul(value));
        } else if (name == "bitrate") {
            o.bitrate = std::stoull(value);
        } else if (name == "ignore") {
            o.ignore.insert(rule_by_id(value).value());
        } else if (name == "require") {
            o.require.insert(rule_by_id(value).value());
        } else if (name == "fail") {
            o.fail_on = value == "warning" ? Severity::warning : Severity::error;
        } else if (!expects(expected, name, value)) {
            EXPECT_EQ(set_limit(o.limits, name, value), "");
        }
    }
    if (!(expected == Expectation{}))
        o.expect = expected;
    return o;
}

std::string sorted(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        lines.push_back(l + "\n");
    std::sort(lines.begin(), lines.end());
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

// Puts raise and clear together, and sees to it that all comes in order and in time.
struct LiveHost : Sink {
    void finding(const Finding& f) override {
        story += number(now) + " " + states[static_cast<int>(f.state)] + " " + line(f);
        ASSERT_EQ(f.state == State::event, f.shape == Shape::point) << line(f);
        ASSERT_EQ(f.id == 0, f.shape == Shape::point) << line(f);
        const double moment = f.state == State::raise ? ms(f.begin) + f.detail.limit_ms.value_or(0)
                                                      : std::max(ms(f.end), raised_at(f.id));
        EXPECT_LE(f.begin.time == no_time ? 0 : now - moment, 2000 + allowed(f)) << line(f);
        if (f.rule == Rule::off_air && f.end.packet <= f.begin.packet + 1) { // nothing came
            EXPECT_NEAR(static_cast<double>(f.end.utc_us - f.begin.utc_us) / 1000,
                        f.detail.away_ms.value_or(0), 1)
                << line(f);
        }
        if (f.state == State::raise) {
            EXPECT_TRUE(open.emplace(f.id, std::pair(f, now)).second) << line(f);
            return;
        }
        events += f.count;
        if (f.state == State::clear) {
            const auto raised = open.find(f.id);
            ASSERT_NE(raised, open.end()) << line(f);
            EXPECT_EQ(raised->second.first.begin.packet, f.begin.packet) << line(f);
            EXPECT_TRUE(raised->second.first.open);
            open.erase(raised);
        }
        text += line(f);
    }
    void end(const Stream& stream) const {
        EXPECT_TRUE(open.empty());
        const Counters counters = stream.counters();
        std::uint64_t counted = 0;
        for (const RuleInfo& r : rule_table)
            for (const Severity s : {Severity::info, Severity::warning, Severity::error}) {
                counted += counters.findings.at(r.rule, s);
                EXPECT_EQ(counters.open.at(r.rule, s), 0U) << r.id;
            }
        EXPECT_EQ(counted, events);
    }
    double raised_at(std::uint64_t id) const {
        const auto raised = open.find(id);
        return raised == open.end() ? 0 : raised->second.second;
    }
    static double ms(const Place& p) { return static_cast<double>(p.time) / ticks_per_ms; }
    // What can only be said later.
    static double allowed(const Finding& f) {
        if (f.rule == Rule::off_air && f.state == State::raise)
            return 2000; // without a packet
        if (f.rule == Rule::unreferenced_pid)
            return 5000; // without a packet
        if (f.rule == Rule::pcr_accuracy_error)
            return 2000; // ten PCRs, or twenty
        if (f.kind == Kind::frozen)
            return 1000; // the next packet of its pid
        if (f.kind == Kind::absent || f.begin.packet == 1)
            return 10'000;                // what never came yet may come as well
        return f.detail.worst ? 1000 : 0; // quiet behind a flood
    }

    static constexpr const char* states[] = {"event", "raise", "clear"};

    std::string text;                                         // what was found
    std::string story;                                        // what was told, and when
    std::map<std::uint64_t, std::pair<Finding, double>> open; // and when they were raised
    std::uint64_t events = 0;
    double now = 0;
};

struct Case {
    std::string name, stream, options, expected;
    std::vector<std::string> faults, rows;

    std::optional<std::string> by_arrival; // what is found live where that is something else

    // `rest`: what is said behind the findings.
    std::string run(const Multiplex& multiplex, std::size_t piece, std::string& rest) const {
        struct Found : Sink {
            std::string text;
            void finding(const Finding& f) override { text += line(f); }
        } found;
        Stream stream_of(options_of(options), found);
        multiplex.feed(stream_of, piece);
        const Summary s = stream_of.summary();
        rest = verdict(s);
        for (const std::string& id : rows)
            rest += row(s, id);
        return found.text + rest;
    }
    // As a live host gets it, raise and clear put together.
    std::string live(const Multiplex& multiplex, bool told = false) const {
        LiveHost host;
        Options o = options_of(options);
        o.live = true;
        Stream stream_of(o, host);
        multiplex.play(stream_of, 250, [&](double now) { host.now = now; });
        host.end(stream_of);
        return told ? host.story : sorted(host.text);
    }
    void check() const {
        SCOPED_TRACE(name);
        Multiplex multiplex(stream);
        for (const std::string& f : faults)
            multiplex.fault(f);
        std::string rest;
        const std::string found = run(multiplex, SIZE_MAX, rest);
        EXPECT_EQ(found, expected);
        for (const std::size_t piece : {std::size_t{0}, std::size_t{7}}) // however it is cut
            EXPECT_EQ(run(multiplex, piece, rest), found) << "pieces of " << piece;
        const std::string findings = found.substr(0, found.size() - rest.size());
        EXPECT_EQ(live(multiplex), sorted(by_arrival.value_or(findings)));
    }
};

std::vector<Case> read(const std::string& path) {
    std::ifstream in(path);
    std::vector<Case> cases;
    std::map<std::string, std::string> streams;
    for (std::string text; std::getline(in, text);) {
        const std::string first = text.substr(0, text.find(' '));
        const std::string rest = text.size() > first.size() ? text.substr(first.size() + 1) : "";
        if (first.empty() || first == "#")
            continue;
        if (first == "stream") { // "stream NAME: words" or "on NAME"
            const auto colon = rest.find(": ");
            streams[rest.substr(0, colon)] = rest.substr(colon + 2);
        } else if (first == "==") {
            cases.emplace_back().name = rest;
        } else if (first == "on") {
            const std::string name = rest.substr(0, rest.find(' '));
            const auto known = streams.find(name);
            cases.back().stream =
                known == streams.end() ? rest : known->second + rest.substr(name.size());
        } else if (first == "do") {
            cases.back().faults.push_back(rest);
        } else if (first == "live") {
            std::string& lines =
                cases.back().by_arrival.emplace(cases.back().by_arrival.value_or(""));
            lines += rest.empty() ? "" : rest + "\n";
        } else if (first == "with") {
            cases.back().options = rest;
        } else {
            if (first == "row")
                cases.back().rows.push_back(rest.substr(0, rest.find(' ')));
            cases.back().expected += text + "\n";
        }
    }
    return cases;
}

// What a live host is told, and when (ms of the arrival clock).
TEST(LiveStreams, AreToldWhileTheyLast) {
    for (const Case& c : read(MEASURE_CASES "/live.txt")) {
        SCOPED_TRACE(c.name);
        Multiplex multiplex(c.stream);
        for (const std::string& f : c.faults)
            multiplex.fault(f);
        EXPECT_EQ(c.live(multiplex, true), c.expected);
    }
}

class Streams : public testing::TestWithParam<const char*> {};

TEST_P(Streams, AreFoundAndSaidToBeWhatTheyAre) {
    const auto cases = read(std::string(MEASURE_CASES) + "/" + GetParam() + ".txt");
    ASSERT_FALSE(cases.empty());
    for (const Case& c : cases)
        c.check();
}

INSTANTIATE_TEST_SUITE_P(All, Streams,
                         testing::Values("continuity", "clock", "presence", "verdict", "expected"),
                         [](const auto& of) { return std::string(of.param); });

} // namespace
} // namespace quarn
