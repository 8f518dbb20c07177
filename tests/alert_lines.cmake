# The analyzer beside live inputs, held against quarn and the example host. The example is compiled
# here against headers laid out as they are installed.
set(installed ${CMAKE_CURRENT_BINARY_DIR}/installed/quarn)
file(MAKE_DIRECTORY ${installed})
foreach(header liblumbra/include/log.h liblumbra/include/timeop.h zorbin/tsanalyze.h)
  get_filename_component(name ${header} NAME)
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${header} ${installed}/${name} SYMBOLIC)
endforeach()
add_executable(example_live_host ${CMAKE_SOURCE_DIR}/examples/live_host.cpp)
target_include_directories(example_live_host PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/installed)
target_link_libraries(example_live_host PRIVATE tsanalyze quarn_options)

quarn_tests(alert_lines live_analyzer tsmake)
target_compile_definitions(alert_lines_tests PRIVATE
  QUARN="$<TARGET_FILE:quarn>" LIVE_HOST="$<TARGET_FILE:example_live_host>"
  SAMPLES="${CMAKE_SOURCE_DIR}/samples")
add_dependencies(alert_lines_tests quarn example_live_host)
