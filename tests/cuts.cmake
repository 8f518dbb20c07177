# Packets around findings, cut out by both programs.
quarn_tests(cuts cuts)
add_test(NAME cuts
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/cuts/run ${CMAKE_BINARY_DIR}
          ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/cuts)
set_tests_properties(cuts PROPERTIES TIMEOUT 900 ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")
