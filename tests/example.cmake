# Hosts: built out of tree against an installed copy, by the compiler of this build.
add_executable(make_live example/make_live.cpp)
target_link_libraries(make_live PRIVATE tsmake quarn_options)

if(NOT CMAKE_CROSSCOMPILING)
  string(JOIN " " example_flags ${CMAKE_CXX_FLAGS} ${QUARN_SANITIZERS})
  add_test(NAME example
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/example/run ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}
            $<TARGET_FILE:make_live> ${CMAKE_CURRENT_BINARY_DIR}/example
            ${CMAKE_CXX_COMPILER} "${example_flags}")
  set_tests_properties(example PROPERTIES TIMEOUT 300)
endif()

# Alerts through a real syslog daemon (skipped where none is installed or the machine forbids it).
add_test(NAME syslog
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/syslog/run $<TARGET_FILE:quarn>
          ${golden_inputs}/cc_break.ts ${CMAKE_CURRENT_BINARY_DIR}/syslog)
set_tests_properties(syslog PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 60
  ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")
