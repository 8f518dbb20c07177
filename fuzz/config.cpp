// config.cpp - everything that people write: configuration files, -A and -k arguments, numbers,
// names and time stamps. An input is one byte that says which, then the text, which is handed over
// in a block of exactly its size.
#include <cstring>
#include <vector>

#include <libconfig.h>

#include "appcfg.h"
#include "harness.h"
#include "strops.h"
#include "timeop.h"

namespace {

tsan_config g_cfg;

void file(char* text) {
    // A file may name others, which are no part of the input.
    if (std::strstr(text, "@include"))
        return;
    config_t parsed;
    config_init(&parsed);
    if (config_read_string(&parsed, text) == CONFIG_TRUE)
        if (config_setting_t* group = config_lookup(&parsed, "zbn.stream_analyzer"))
            static_cast<void>(tsan_load_config(group, &g_cfg));
    config_destroy(&parsed);
}
void option(char* text) {
    static_cast<void>(tsan_cli_opt(text, &g_cfg));
}
void switches(char* text) {
    tsan_xtrack_opt(text, &g_cfg);
}
void number(char* text) {
    double real = 0;
    std::int64_t integer = 0;
    std::size_t size = 0;
    static_cast<void>(a2double(text, &real));
    static_cast<void>(a2double(text, nullptr));
    static_cast<void>(a2int64(text, &integer));
    static_cast<void>(a2size(text, &size));
}
void name(char* text) {
    int level = 0;
    static_cast<void>(fac2str(str2fac(text)));
    static_cast<void>(timefmt_str(str_to_timefmt(text)));
    static_cast<void>(match_log_level(text, &level));
    chomp(text);
}
void stamp(char* text) {
    timespec tms = {};
    char back[64];
    for (const std::uint32_t flags : {0U, TMF_SECONDS, TMF_GMT, TMF_RAW, TMF_GMT | TMF_SECONDS})
        if (scan_log_time(text, &tms, flags) == 0)
            static_cast<void>(mk_timestr(&tms, flags, back, sizeof back));
}

void run(input_reader& in) {
    static constexpr void (*READERS[])(char*) = {file, option, switches, number, name, stamp};
    const unsigned which = in.byte();
    const ts_bytes bytes = in.take(in.left());
    std::vector<char> text(bytes.begin(), bytes.end());
    text.push_back('\0');
    text.shrink_to_fit();
    g_cfg = {};
    READERS[which % std::size(READERS)](text.data());
    tsan_dump_config(log_fp(&g_log), "fuzz", &g_cfg);
}

} // namespace

// libconfig loses the text of a string that the file's end cuts off, once per file.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libconfig.so\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return run_input(run, data, size);
}
