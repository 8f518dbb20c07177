// config.cpp - everything that people write: configuration files, -A and -k arguments, numbers,
// names and time stamps. An input is one byte that says which, then the text, which is handed over
// in a block of exactly its size.
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "appcfg.h"
#include "harness.h"
#include "log.h"
#include "strops.h"
#include "timeop.h"

namespace {

void load_file(const char* text, std::size_t size, tsan_config* cfg) {
    // A file may name others, which are no part of the input.
    if (std::strstr(text, "@include") || size == 0)
        return;
    FILE* in = fmemopen(const_cast<char*>(text), size, "r");
    config_t file;
    config_init(&file);
    if (config_read(&file, in) == CONFIG_TRUE) {
        config_setting_t* group = config_lookup(&file, "zbn.stream_analyzer");
        if (group)
            static_cast<void>(tsan_load_config(group, cfg));
    }
    config_destroy(&file);
    std::fclose(in);
}

void parse_numbers(const char* text) {
    double real = 0;
    std::int64_t integer = 0;
    std::size_t size = 0;
    static_cast<void>(a2double(text, &real));
    static_cast<void>(a2double(text, nullptr));
    static_cast<void>(a2int64(text, &integer));
    static_cast<void>(a2size(text, &size));
}

void parse_names(char* text) {
    static_cast<void>(fac2str(str2fac(text)));
    static_cast<void>(timefmt_str(str_to_timefmt(text)));
    int level = 0;
    static_cast<void>(match_log_level(text, &level));
    chomp(text);
}

void parse_time(const char* text) {
    timespec tms = {};
    for (const std::uint32_t flags : {0U, TMF_SECONDS, TMF_GMT, TMF_RAW, TMF_GMT | TMF_SECONDS}) {
        char back[64];
        if (scan_log_time(text, &tms, flags) == 0)
            static_cast<void>(mk_timestr(&tms, flags, back, sizeof back));
    }
}

void run(input_reader* in) {
    log_nowhere();
    tsan_config cfg = {};
    const unsigned which = in->byte();
    std::size_t size = in->left();
    const std::uint8_t* bytes = in->take(&size);
    auto* text = static_cast<char*>(std::malloc(size + 1));
    std::memcpy(text, bytes, size);
    text[size] = '\0';
    switch (which % 6) {
    case 0:
        load_file(text, size, &cfg);
        break;
    case 1:
        static_cast<void>(tsan_cli_opt(text, &cfg));
        break;
    case 2:
        static_cast<void>(tsan_xtrack_opt(text, &cfg));
        break;
    case 3:
        parse_numbers(text);
        break;
    case 4:
        parse_names(text);
        break;
    default:
        parse_time(text);
        break;
    }
    tsan_dump_config(nowhere(), "fuzz", &cfg);
    std::free(text);
}

} // namespace

// libconfig loses the text of a string that the file's end cuts off, once per file.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libconfig.so\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
