# What a live host serves over HTTP, asked by real clients.
add_executable(http_host live/http_host.cpp)
target_link_libraries(http_host PRIVATE live_http reports quarn_options)
add_test(NAME live.http
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/live/http $<TARGET_FILE:http_host>)
set_tests_properties(live.http PROPERTIES TIMEOUT 300
  ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")

# The status page, where there is a browser.
find_program(CHROMEDRIVER chromedriver)
if(CHROMEDRIVER AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME live.page
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/live/page $<TARGET_FILE:http_host>
            ${CMAKE_CURRENT_BINARY_DIR}/live_page)
  set_tests_properties(live.page PROPERTIES TIMEOUT 300)
endif()

# What deploy/ has for Prometheus and Grafana.
find_program(PROMETHEUS prometheus)
if(PROMETHEUS AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME live.prometheus
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/live/prometheus $<TARGET_FILE:http_host>
            ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/live_prometheus)
  set_tests_properties(live.prometheus PROPERTIES TIMEOUT 400)
endif()

find_program(SYSTEMD_ANALYZE systemd-analyze)
if(SYSTEMD_ANALYZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME live.units COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/live/units
    ${CMAKE_BINARY_DIR}/quarn-live.service ${CMAKE_BINARY_DIR}/quarn-live@.service)
endif()

# The whole program, as its users run it.
add_test(NAME live.program
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/live/run ${CMAKE_BINARY_DIR}
          ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/live)
set_tests_properties(live.program PROPERTIES TIMEOUT 900
  ENVIRONMENT "QUARN_EMULATOR=${golden_emulator}")

add_test(NAME live.example_configuration
  COMMAND quarn-live --check-config
          -C ${CMAKE_SOURCE_DIR}/deploy/quarn-live.conf)
