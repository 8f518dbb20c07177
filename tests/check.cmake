# quarn-check as its users run it.
add_test(NAME check
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/check/run $<TARGET_FILE:quarn-check>
          ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/check)
set_tests_properties(check PROPERTIES TIMEOUT 900
  ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")
