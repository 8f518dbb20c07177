# Faults that come from outside the stream: tables made to do harm, memory that runs out, and (the
# scripts) streams and files that fail while the program uses them.
quarn_tests(faults test_support tsanalyze lumbra)
