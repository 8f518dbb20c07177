// What the rules found as words, and scripts of "<time in ms>:<what comes>".
#pragma once

#include <cmath>
#include <map>
#include <sstream>
#include <string>

#include "measure/output.h"
#include "measure/programs.h"

namespace quarn {

// Keeps findings and answers as words: "1.3.a gap 0-501", "x3", "open".
struct Book : Output, Judgement {
    static std::string ms(const Place& p) {
        std::ostringstream out;
        out.precision(10);
        out << (p.time == no_time ? -1 : std::round(static_cast<double>(p.time) / 27) / 1000);
        return out.str();
    }
    void finding(Finding&& f) override {
        std::string line = std::string(info(f.rule).id);
        if (f.kind != Kind::none)
            line += " " + std::string(word(f.kind));
        line += " " + ms(f.begin);
        if (f.shape == Shape::interval)
            line += "-" + ms(f.end);
        if (f.count > 1)
            line += " x" + std::to_string(f.count);
        if (f.open)
            line += " open";
        for (const std::uint16_t p : f.programs)
            line += " p" + std::to_string(p);
        for (const std::uint16_t p : f.detail.pids)
            line += " " + std::to_string(p);
        found += (found.empty() ? "" : "; ") + line;
    }
    void consequence(Rule rule) override {
        found += (found.empty() ? "" : "; ") + ("(" + std::string(info(rule).id) + ")");
    }
    void yes(Rule rule) override { answers[info(rule).id] = "yes"; }
    void no(Rule rule, const char* why, std::optional<std::uint16_t>) override {
        answers[info(rule).id] = std::string("no: ") + why;
    }
    void not_applicable(Rule rule, const char*) override { answers[info(rule).id] = "n/a"; }

    std::string found;
    std::map<std::string_view, std::string> answers;
};

// Splits "500.04:pat!" into a place and a word. A packet lasts 40 microseconds.
class Steps {
  public:
    explicit Steps(const std::string& text) : in_(text) {}

    bool next(Place& place, std::string& what) {
        std::string token;
        if (!(in_ >> token))
            return false;
        const auto colon = token.find(':');
        place = at(token.substr(0, colon));
        what = token.substr(colon + 1);
        if (what == "est")
            estimated_ = !estimated_;
        place.estimated = estimated_;
        return true;
    }
    static Place at(const std::string& ms) {
        Place place;
        const double time = std::stod(ms);
        place.time = std::llround(time * ticks_per_ms);
        place.packet = static_cast<std::uint64_t>(std::llround(time * 25)) + 1;
        return place;
    }

  private:
    std::istringstream in_;
    bool estimated_ = false;
};

} // namespace quarn
