// tsa.h - the driver: its settings and what its files share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include <sys/types.h>

#include "tsanalyze.h"

inline constexpr std::size_t TS_RECORD_LEN = 188;   // bytes of one record, a transport packet
inline constexpr std::size_t NUM_RECORDS = 100;     // records asked for by one read
inline constexpr std::size_t MAX_SANE_VAL = 100000; // upper bound of option -s

// Everything that the command line and configuration files decide.
struct config {
    char fpath[256];         // input file, cut to 255 bytes
    int verbosity;           // number of -v options
    tsan_config tsa;         // the analyzer's settings
    off_t start_rec;         // 1-based record to start at; 0 is the same as 1
    std::size_t max_records; // records to count before the run ends, 0: no limit
};

extern config g_cfg;

struct file_closer {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// tsa.cpp: name, version and build of the program, a static text.
const char* app_info();

// tsa_options.cpp: applies the command line to g_cfg; the files of -C come first whatever their
// place, so that the other options override them. Does not return for -?, -V, an unknown option or
// a missing operand. Returns 0 to go on, else the exit status; a negative value stands for 2.
[[nodiscard]] int parse_options(int argc, char* argv[]);

// Writes the usage text to standard error and ends the process. `app` is the program's path.
[[noreturn]] void usage(const char* app, int exit_code);

// tsa_config.cpp: reads the group "zbn.stream_analyzer" of the configuration file `fpath` into
// `cfg`. Reports every failure itself. Returns 0, or non-zero when the file cannot be used.
[[nodiscard]] int load_config(const char* fpath, tsan_config* cfg);
