# quarn-inject as users run it, and how much quarn-check finds of what it puts in.
find_package(nlohmann_json REQUIRED)
string(REPLACE ";" " " inject_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
quarn_tests(inject nlohmann_json::nlohmann_json)
add_dependencies(inject_tests quarn-inject)
target_compile_definitions(inject_tests PRIVATE
  QUARN_INJECT="${inject_emulator} $<TARGET_FILE:quarn-inject>"
  CLEAN_CAPTURES="${CMAKE_SOURCE_DIR}/samples/clean")
set_tests_properties(${inject_tests_TESTS} PROPERTIES TIMEOUT 300)

# The scorer is slow under an emulator, and what it counts does not depend on the machine.
if(NOT CMAKE_CROSSCOMPILING)
  add_test(NAME accuracy
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/accuracy/score --inject $<TARGET_FILE:quarn-inject>
            --clean ${CMAKE_SOURCE_DIR}/samples/clean --tool quarn-check=$<TARGET_FILE:quarn-check>
            --seeds 3 --combine 2 --combine 3 --jobs 2
            --expect ${CMAKE_CURRENT_SOURCE_DIR}/accuracy/expected.txt)
  set_tests_properties(accuracy PROPERTIES TIMEOUT 600)
endif()
