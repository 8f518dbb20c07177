// What the command lines of several programs have in common; CLI11 does the parsing.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "words.h"

namespace quarn::settings {

/// What is wrong with the value of an option, and what would be right.
[[noreturn]] void refuse(const std::string& option, const std::string& why);

/// Runs `take`, which reads the value of that option and may throw WrongValue.
template <class F>
auto taken(const std::string& option, F&& take) {
    try {
        return take();
    } catch (const WrongValue& wrong) {
        refuse(option, wrong.what());
    }
}

/// An option with a value, handed to `take` as it is parsed.
CLI::Option* with_value(CLI::App& app, const std::string& name, const std::string& value,
                        const std::string& help,
                        const std::function<void(const std::string&)>& take);
/// One without a value.
void flag(CLI::App& app, const std::string& name, const std::string& help, bool& value);
/// One with a value that may be given several times.
void repeated(CLI::App& app, const std::string& name, const std::string& value,
              const std::string& help, std::vector<std::string>& values);

/// What is wrong with a command line. CLI11 names the argument that it does not know; what it could
/// have been stands behind. `operands` is what these are called in the help.
std::string complaint(const CLI::App& app, const CLI::ParseError& error,
                      const std::string& operands);

} // namespace quarn::settings
