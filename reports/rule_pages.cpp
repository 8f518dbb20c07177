#include "rule_pages.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "pages.h"

namespace quarn {

namespace {

/// Whether the heading "## 3.1.a NIT_actual_error, 3.1.b NIT_other_error" names that number.
bool heads(std::string_view page, std::string_view id) {
    const std::string_view heading = page.substr(0, page.find('\n'));
    return heading.find(" " + std::string(id) + " ") != std::string_view::npos;
}

} // namespace

std::string_view rule_page(Rule rule) {
    const auto* const page =
        std::find_if(std::begin(pages), std::end(pages),
                     [&](std::string_view p) { return heads(p, info(rule).id); });
    return page == std::end(pages) ? std::string_view() : *page;
}

} // namespace quarn
