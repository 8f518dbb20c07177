# Faults that come from outside the stream: tables made to do harm, memory that runs out, and (the
# scripts) streams and files that fail while the program uses them.
quarn_tests(faults test_support tsanalyze lumbra)
if(TARGET faults_tests)
  target_link_options(faults_tests PRIVATE
    LINKER:--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=strdup,--wrap=free)
endif()
