# The names of facilities and time formats are tested here as well.
target_link_libraries(lumbra_tests PRIVATE quarn_common)
# The clock and syslog are stood in for, under every name that the C library's headers give them.
target_link_options(lumbra_tests PRIVATE
  LINKER:--wrap=clock_gettime,--wrap=time,--wrap=__clock_gettime64,--wrap=__time64
  LINKER:--wrap=syslog,--wrap=__syslog_chk,--wrap=openlog,--wrap=closelog)
