# Where things go, and the Debian packages: quarn (the program) and quarn-dev (what a host links).
include(CMakePackageConfigHelpers)

install(TARGETS quarn quarn-check quarn-inject quarn-live
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT quarn)
install(FILES doc/quarn.1 doc/quarn-check.1 doc/quarn-inject.1 doc/quarn-live.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT quarn)
install(FILES doc/quarn.conf.5 doc/quarn-expect.5 doc/quarn-live.conf.5
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT quarn)
install(FILES doc/alerts.md doc/recipes.md doc/tutorial.md
        doc/findings.md doc/metrics.md doc/recipes-check.md doc/tutorial-check.md
        doc/tutorial-live.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT quarn)
install(FILES reports/quarn-findings-1.schema.json
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/quarn COMPONENT quarn)
install(FILES samples/quarn.conf samples/demo.ts
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT quarn)
foreach(unit quarn-live.service quarn-live@.service)
  configure_file(deploy/${unit}.in ${CMAKE_BINARY_DIR}/${unit} @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${unit} DESTINATION lib/systemd/system COMPONENT quarn)
endforeach()
# Used where they are, so that they follow the program.
install(FILES deploy/prometheus.yml deploy/quarn-alerts.yml deploy/quarn-grafana.json
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/quarn COMPONENT quarn)
install(FILES deploy/quarn-live.conf deploy/quarn-live.logrotate deploy/quarn-live.sysctl
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT quarn)
foreach(program quarn quarn-check quarn-inject quarn-live)
  install(FILES doc/${program}.bash-completion RENAME ${program} COMPONENT quarn
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endforeach()

set(lumbra liblumbra/include)
install(FILES ${lumbra}/config.h ${lumbra}/log.h ${lumbra}/mpegts.h ${lumbra}/strops.h
              ${lumbra}/syswrap.h ${lumbra}/timeop.h zorbin/tsanalyze.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarn COMPONENT dev)
install(FILES measure/counters.h measure/expectation.h measure/finding.h measure/measure.h
        measure/observed.h measure/options.h measure/rules.h
        measure/stream.h measure/summary.h measure/time_series.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarn/measure COMPONENT dev)
install(TARGETS lumbra tsanalyze measure EXPORT quarnTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quarn)
install(EXPORT quarnTargets NAMESPACE quarn:: DESTINATION ${package_dir} COMPONENT dev)
configure_package_config_file(cmake/quarnConfig.cmake.in quarnConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(quarnConfigVersion.cmake COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH QUARN_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/quarn.pc.in quarn.pc @ONLY)
configure_file(cmake/quarn-measure.pc.in quarn-measure.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quarnConfig.cmake ${CMAKE_BINARY_DIR}/quarnConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT dev)
install(FILES ${CMAKE_BINARY_DIR}/quarn.pc ${CMAKE_BINARY_DIR}/quarn-measure.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(FILES doc/library.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quarn-dev COMPONENT dev)
install(FILES examples/live_host.cpp examples/measure_capture.cpp examples/CMakeLists.txt
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quarn-dev/examples COMPONENT dev)

foreach(package quarn quarn-dev)
  string(REGEX REPLACE "^quarn-" "" component ${package})
  install(FILES doc/changelog doc/copyright
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

# cpack in the build directory makes the .deb files; it asks dpkg-shlibdeps (package dpkg-dev) for
# the libraries that the program needs. A real address for the maintainers:
#   cpack -D CPACK_PACKAGE_CONTACT="name <address>"
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quarn)
set(CPACK_PACKAGE_CONTACT "the quarn maintainers <quarn@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/compress.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL quarn dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_QUARN_PACKAGE_NAME quarn)
set(CPACK_DEBIAN_QUARN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME quarn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS libconfig-dev)
set(CPACK_DEBIAN_QUARN_DESCRIPTION "Reads a capture of an MPEG transport stream and reports what is wrong in it:
lost packets, changed tables, clocks and time stamps that are off. Each fault
is a line for people and, on request, a line for scripts. quarn-check gives a
verdict on captures, with places, times and programs, as text, JSON, JUnit or
a page with plots. quarn-live watches channels day and night: UDP, RTP, SRT and
files, with findings as records, metrics for Prometheus and a page.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "The analyzer of quarn as a library that any program can feed packet by packet:
headers, static libraries, an example.")
include(CPack)
