# Writes html_templates.cpp: the pages of --html with style and scripts in them. What stays open is put in
# by html.cpp: {{title}}, {{version}}, {{text}}, {{data}}, {{counts}}, {{rows}}.
#
# The browser runs and applies nothing but what stands in here: the content security policy names
# the hash of each piece.
find_file(DYGRAPHS_SCRIPT dygraph.min.js PATHS /usr/share/javascript/dygraphs REQUIRED)
find_file(DYGRAPHS_STYLE dygraph.min.css PATHS /usr/share/javascript/dygraphs REQUIRED)
find_file(DYGRAPHS_SYNCHRONIZER synchronizer.js PATHS /usr/share/javascript/dygraphs/extras REQUIRED)
find_file(DYGRAPHS_LICENCE NAMES copyright LICENSE.txt
          PATHS /usr/share/doc/libjs-dygraphs /usr/share/javascript/dygraphs REQUIRED)

# The SHA-256 of a text as content security policies have it: in base64.
function(quarn_hash text result)
  string(SHA256 hex "${text}")
  set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  set(base64 "")
  foreach(i RANGE 0 63 3) # three hexadecimal digits are two characters
    string(SUBSTRING "${hex}00" ${i} 3 digits)
    math(EXPR high "0x${digits} >> 6")
    math(EXPR low "0x${digits} & 63")
    string(SUBSTRING ${alphabet} ${high} 1 first)
    string(SUBSTRING ${alphabet} ${low} 1 second)
    string(APPEND base64 ${first}${second})
  endforeach()
  string(SUBSTRING "${base64}" 0 43 base64)
  set(${result} "'sha256-${base64}='" PARENT_SCOPE)
endfunction()

# A file without the address of its source map, which is not there.
function(quarn_read file result)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} text)
  string(REGEX REPLACE "(//# sourceMappingURL=[^\n]*|/\\*# sourceMappingURL=[^\n]*\\*/)" "" text "${text}")
  string(TOLOWER "${text}" lower)
  if(lower MATCHES "</(script|style)|<!--")
    message(FATAL_ERROR "${file} cannot stand inside a page")
  endif()
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

quarn_read(${DYGRAPHS_SCRIPT} dygraphs)
quarn_read(${DYGRAPHS_SYNCHRONIZER} synchronizer)
quarn_read(${DYGRAPHS_STYLE} dygraphs_style)
quarn_read(${CMAKE_CURRENT_SOURCE_DIR}/html/page.js script)
quarn_read(${CMAKE_CURRENT_SOURCE_DIR}/html/palette.css palette)
quarn_read(${CMAKE_CURRENT_SOURCE_DIR}/html/page.css style)
set(style "${dygraphs_style}\n${palette}${style}")
file(READ ${DYGRAPHS_LICENCE} licence)
string(REPLACE "&" "&amp;" licence "${licence}")
string(REPLACE "<" "&lt;" licence "${licence}")

quarn_hash("${dygraphs}" dygraphs_hash)
quarn_hash("${synchronizer}" synchronizer_hash)
quarn_hash("${script}" script_hash)
quarn_hash("${style}" style_hash)
set(closed "default-src 'none'; base-uri 'none'; form-action 'none'; style-src ${style_hash}")
set(scripts "script-src ${dygraphs_hash} ${synchronizer_hash} ${script_hash}")

# The pages as bytes: no compiler has to take literals as long as these.
set(parts "")
foreach(page page overview)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS html/${page}.html)
  file(READ ${CMAKE_CURRENT_SOURCE_DIR}/html/${page}.html text)
  string(REPLACE "{{policy}}" "{{policy_${page}}}" text "${text}")
  string(REPLACE "{{policy_page}}" "${closed}; ${scripts}" text "${text}")
  string(REPLACE "{{policy_overview}}" "${closed}" text "${text}")
  foreach(piece style licence dygraphs synchronizer script)
    string(REPLACE "{{${piece}}}" "${${piece}}" text "${text}")
  endforeach()
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${page}.html "${text}")
  file(READ ${CMAKE_CURRENT_BINARY_DIR}/${page}.html hex HEX)
  string(REGEX REPLACE "(................................)" "\\1\n" hex "${hex}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
  string(APPEND parts "
static const unsigned char ${page}_bytes[] = {
${hex}};
std::string_view html_${page}_template() {
    return {reinterpret_cast<const char*>(${page}_bytes), sizeof ${page}_bytes};
}
")
endforeach()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/html_templates.new
"// Made from reports/html/ and dygraphs.
#include \"html_templates.h\"

namespace quarn {
${parts}
} // namespace quarn
")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/html_templates.new
               ${CMAKE_CURRENT_BINARY_DIR}/html_templates.cpp COPYONLY)
