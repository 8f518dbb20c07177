// job.h - one fault as it was asked for: its parameters, its place and its record of truth.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "truth.h"

namespace inject {

// The same numbers from the same seed on every platform (SplitMix64).
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next();
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(next() % limit); }
    double between(double low, double high);

  private:
    std::uint64_t state_;
};

class Job;

struct Kind {
    const char* name;
    // Name and value of each parameter: one value, "a|b" any of them, "a..b" a whole number from a
    // to b, by the seed where the user gives none.
    const char* parameters;
    const char* text;
    void (*apply)(Job&);
};

std::span<const Kind> counter_kinds();
std::span<const Kind> clock_kinds();
std::span<const Kind> stamp_kinds();
std::span<const Kind> presence_kinds();
std::span<const Kind> table_kinds();
std::span<const Kind> content_kinds();
std::span<const Kind> framing_kinds();
std::vector<Kind> all_kinds();

// A CAT twice a second from the first packet on.
void add_cat(Capture& ts);

// A fault as it stands behind --fault.
struct Request {
    Kind kind;
    std::map<std::string, std::string> values;
    std::optional<double> seconds;
};

// KIND[:NAME=VALUE,...][@SECONDS]. Throws Refused, with the names that there are.
Request parse_request(std::string_view text);

// Seconds of the stream clock that faults have taken.
using Taken = std::vector<std::pair<double, double>>;

class Job {
  public:
    Job(Capture& capture, const Request& request, std::uint64_t seed, Taken& taken);

    Capture& ts;
    Random random;
    Record record;

    // A parameter as it was given or drawn. Throws WrongRequest below what the kind draws from and
    // above `most`.
    double number(const char* name, double most = 1e8);
    int whole(const char* name, int most = 100'000'000) {
        return static_cast<int>(number(name, most));
    }
    std::string word(const char* name);
    // A place for something that takes so many seconds, and at least `behind` to the end: far
    // enough from the start, the end and other faults that what follows can be told apart.
    double start(double length, double behind = 1.5);
    // A video or audio pid by the parameter `pid`: any, video, audio or a number.
    int media_pid();
    const Programme& programme_by_parameter();

    Finding& must(const char* rule, std::vector<std::string> kinds, std::vector<int> pids,
                  Span begin);
    Finding& may(const char* rule, std::vector<int> pids, Span begin);
    // Notes the item that the fault first touches.
    void touches(std::size_t item, int pid);
    // Behind the end it is the last item.
    std::uint32_t id(std::size_t item) const {
        return item < ts.items.size() ? ts.items[item].id : last_id();
    }
    Span point(std::size_t item) const { return {id(item), id(item)}; }
    Span range(std::size_t first, std::size_t last) const;
    std::uint32_t last_id() const { return ts.items.back().id; }
    // The items from one to so many seconds behind another.
    Span until(std::size_t first, std::size_t last, double seconds) const;

  private:
    const Request& request_;
    Taken& taken_;
    std::string value(const char* name);
};

} // namespace inject
