// The command line of quarn-check.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "cuts/settings.h"
#include "inputs/endpoint.h"
#include "measure/options.h"

namespace quarn::check {

/// Part `index` of `count` parts, from 1.
struct Shard {
    std::size_t index = 1;
    std::size_t count = 1;
};

struct CommandLine {
    std::vector<std::string> files;
    std::optional<std::string> list; // file with an input a line, "-": standard input
    std::optional<Shard> shard;
    bool json = false;
    bool quiet = false;
    std::optional<std::string> junit;        // file to write
    std::optional<std::string> html;         // page to write, of several inputs the overview
    std::optional<std::string> write_expect; // file to write what is expected of others to
    cuts::Settings cuts;
    std::optional<inputs::Endpoint> flow;
    unsigned jobs = 1;
    std::optional<Rule> explain; // nothing else is done then
    Options measure;
};

/// What to do, or the exit status when that is all: help and version were shown on standard output,
/// a mistake on standard error.
std::variant<CommandLine, int> parse_command_line(int argc, char** argv);

} // namespace quarn::check
