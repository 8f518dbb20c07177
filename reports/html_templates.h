// The pages of --html, made when this was built: style, scripts and content security policy are in
// them. "{{name}}" stands where something is to be put in.
#pragma once

#include <string_view>

namespace quarn {

std::string_view html_page_template();
std::string_view html_overview_template();

} // namespace quarn
