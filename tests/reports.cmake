# Every record that can be written, held against the schema.
find_package(Python3 COMPONENTS Interpreter REQUIRED)
set(schema ${CMAKE_SOURCE_DIR}/reports/quarn-findings-1.schema.json)
set(validate ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/reports/validate ${schema})

add_executable(every_record reports/every_record.cpp)
target_link_libraries(every_record PRIVATE reports quarn_options)
set(every_record ${CMAKE_CURRENT_BINARY_DIR}/every_record)
add_test(NAME reports.write COMMAND every_record ${every_record}.jsonl ${every_record}.xml)
add_test(NAME reports.validate COMMAND ${validate} ${every_record}.jsonl ${every_record}.xml)
set_tests_properties(reports.write PROPERTIES FIXTURES_SETUP every_record)
set_tests_properties(reports.validate PROPERTIES FIXTURES_REQUIRED every_record TIMEOUT 120)
