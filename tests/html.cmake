# Pages of quarn-check --html, in a real browser.
add_test(NAME html
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/html/page $<TARGET_FILE:quarn-check>
          ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/html)
set_tests_properties(html PROPERTIES TIMEOUT 600 ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")
