# What is expected of inputs: files, and what is held against them.
quarn_tests(expect settings reports measure nlohmann_json::nlohmann_json)
add_dependencies(expect_tests quarn-inject quarn-check)
target_compile_definitions(expect_tests PRIVATE
  QUARN_INJECT="${inject_emulator} $<TARGET_FILE:quarn-inject>"
  QUARN_CHECK="${inject_emulator} $<TARGET_FILE:quarn-check>"
  CLEAN_CAPTURES="${CMAKE_SOURCE_DIR}/samples/clean")
set_tests_properties(${expect_tests_TESTS} PROPERTIES TIMEOUT 300)
