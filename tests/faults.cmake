# Faults that come from outside the stream: memory that runs out, and (the scripts) streams and files
# that fail while the program uses them.
quarn_tests(faults test_support tsanalyze lumbra)
target_link_options(faults_tests PRIVATE
  LINKER:--wrap=malloc,--wrap=calloc,--wrap=strdup,--wrap=free)
target_compile_definitions(faults_tests PRIVATE
  TROUBLED_STREAM="${CMAKE_CURRENT_SOURCE_DIR}/faults/troubled.txt")

# One test per case of the script; it runs the real program.
string(REPLACE ";" " " faults_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
file(STRINGS faults/run fault_cases REGEX "^case_[a-z_]+\\(\\)")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS faults/run)
foreach(line IN LISTS fault_cases)
  string(REGEX REPLACE "^case_([a-z_]+).*" "\\1" case ${line})
  add_test(NAME faults.${case}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/faults/run $<TARGET_FILE:quarn>
            ${CMAKE_SOURCE_DIR}/samples/demo.ts ${CMAKE_CURRENT_BINARY_DIR}/faults/${case} ${case})
  set_tests_properties(faults.${case} PROPERTIES
    TIMEOUT 120 SKIP_RETURN_CODE 77 ENVIRONMENT "QUARN_EMULATOR=${faults_emulator}")
endforeach()
