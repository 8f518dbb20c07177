# Writes pages.h: the pages of doc/findings.md, one a heading.
set(source ${CMAKE_SOURCE_DIR}/doc/findings.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
file(READ ${source} text)
string(REPLACE "\n## " "\n)~\",\nR\"~(## " text "${text}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/pages.new
"// Made from doc/findings.md.
#pragma once

#include <string_view>

namespace quarn {

inline constexpr std::string_view pages[] = {R\"~(${text})~\"};

} // namespace quarn
")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/pages.new ${CMAKE_CURRENT_BINARY_DIR}/pages.h COPYONLY)
