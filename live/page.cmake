# Writes live/page_files.h: the files of the status page, as they are.
set(page_files "// Made from live/page.
#pragma once

#include <string_view>

namespace quarn::live {
")
set(palette ${CMAKE_SOURCE_DIR}/reports/html/palette.css)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${palette})
foreach(file page.html page.css page.js icon.svg)
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/page/${file})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  if(file STREQUAL page.css)
    file(READ ${palette} colours)
    string(PREPEND text "${colours}")
  endif()
  string(REPLACE "." "_" variable ${file})
  string(APPEND page_files
    "\ninline constexpr std::string_view ${variable} = R\"~page~(${text})~page~\";\n")
endforeach()
string(APPEND page_files "\n} // namespace quarn::live\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/page_files.new "${page_files}")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/page_files.new ${CMAKE_CURRENT_BINARY_DIR}/page_files.h COPYONLY)
