// Checks one input from its first byte to its verdict.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "options.h"
#include "ordered.h"
#include "reports/people.h"

namespace quarn::check {

/// How far a thread is, to be looked at from another one.
struct Position {
    std::atomic<std::uint64_t> read = 0;
    std::atomic<std::uint64_t> total = 0; // 0: not known
};

struct Judgement {
    int status = 0;
    Ending ending;
};

/// Hands what is to be written on standard output to `write` as it comes. `go_on` is asked now and
/// then and may end the work.
Judgement judge(const std::string& input, const CommandLine& line, const Colours& colours,
                const std::function<void(std::string_view)>& write,
                const std::function<bool()>& go_on, Position& position);

} // namespace quarn::check
