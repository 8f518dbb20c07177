// JUnit XML for build servers: a test suite an input, a test case the verdict and each rule.
#pragma once

#include <string>
#include <string_view>

#include "groups.h"
#include "measure/measure.h"

namespace quarn {

/// What a file begins and ends with.
std::string_view junit_begin();
std::string_view junit_end();

/// The suite of one input. The case `verdict` is a failure when it is `failed`, an error when it is
/// `insufficient`. Rules that made it `failed` are failures, those that were not judged or do not
/// apply are skipped.
void junit_suite(std::string& out, std::string_view input, const Summary& summary,
                 const Groups& groups);

/// The suite of an input that cannot be read: one case with an error.
void junit_error(std::string& out, std::string_view input, std::string_view kind,
                 std::string_view text);

} // namespace quarn
