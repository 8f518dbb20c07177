// Checks one input from its first byte to its verdict.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "options.h"
#include "ordered.h"
#include "reports/html.h"
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
    std::string html_row; // of the overview
    bool page_written = false;
};

/// Where the page on an input goes; nothing where it has none.
struct PageFile {
    std::string path;
    std::string link; // from the overview
};

/// Hands what is to be written on standard output to `write` as it comes. `go_on` is asked now and
/// then and may end the work. The page is written when the input is over; where that fails it is
/// said in the ending, and the status is that of an error.
Judgement judge(const std::string& input, const CommandLine& line, const Colours& colours,
                const std::optional<PageFile>& page,
                const std::function<void(std::string_view)>& write,
                const std::function<bool()>& go_on, Position& position);

} // namespace quarn::check
