# Golden runs: one test per case directory. The program runs on small captures that are written at
# build time; golden/run says what a case holds, golden/renew records them anew.

set(golden_captures ${CMAKE_CURRENT_SOURCE_DIR}/golden/captures.txt)
set(golden_inputs ${CMAKE_CURRENT_BINARY_DIR}/golden/inputs)
set(samples ${CMAKE_SOURCE_DIR}/samples/demo.ts ${CMAKE_SOURCE_DIR}/samples/quarn.conf)
add_custom_command(OUTPUT ${golden_inputs}.stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${golden_inputs}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${golden_inputs}
  COMMAND make_captures ${golden_captures} ${golden_inputs}
  COMMAND ${CMAKE_COMMAND} -E copy ${samples} ${golden_inputs}
  COMMAND ${CMAKE_COMMAND} -E touch ${golden_inputs}.stamp
  DEPENDS make_captures ${golden_captures} ${samples} VERBATIM)
add_custom_target(golden_inputs ALL DEPENDS ${golden_inputs}.stamp)

string(REPLACE ";" " " golden_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
file(GLOB golden_cases CONFIGURE_DEPENDS golden/*/args)
foreach(args IN LISTS golden_cases)
  get_filename_component(case_dir ${args} DIRECTORY)
  get_filename_component(case ${case_dir} NAME)
  add_test(NAME golden.${case}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/golden/run $<TARGET_FILE:quarn> ${golden_inputs}
            ${case_dir} ${CMAKE_CURRENT_BINARY_DIR}/golden/work/${case})
  set_tests_properties(golden.${case} PROPERTIES
    TIMEOUT 120 ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")
endforeach()

# Only compiled here, so that it keeps compiling; samples/make-demo runs it.
add_executable(sample_damage ${CMAKE_SOURCE_DIR}/samples/damage.cpp)
target_link_libraries(sample_damage PRIVATE tsmake quarn_options)
