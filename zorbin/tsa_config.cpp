// tsa_config.cpp - the configuration file of option -C. Called by the options; the file and what
// libconfig makes of it live as long as the call.
#include <cstdio>

#include <libconfig.h>

#include "log.h"
#include "tsa.h"

LOG_MODULE(0);

static constexpr char SECTION[] = "zbn.stream_analyzer";

// Null when the file cannot be read.
static file_ptr open_config(const char* fpath) {
    file_ptr in(std::fopen(fpath, "r"));
    if (!in)
        return in;
    // A directory can be opened, and libconfig ends the process when its first read fails: so the
    // first byte is tried here.
    std::ungetc(std::getc(in.get()), in.get());
    if (std::ferror(in.get()))
        in.reset();
    return in;
}

static int read_config(FILE* in, const char* fpath, config_t* file, tsan_config* cfg) {
    if (config_read(file, in) != CONFIG_TRUE) {
        LOG(&g_log, ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", fpath,
            config_error_line(file), config_error_text(file));
        return -1;
    }
    config_setting_t* const section = config_lookup(file, SECTION);
    if (!section) {
        LOG(&g_log, ERR_level, "%s: missing %s section\n", "load_config", SECTION);
        return -1;
    }
    return tsan_load_config(section, cfg);
}

int load_config(const char* fpath, tsan_config* cfg) {
    const file_ptr in = open_config(fpath);
    if (!in) {
        std::fprintf(stderr, "Failed to load [%s]\n", fpath);
        return -1;
    }
    config_t file;
    config_init(&file);
    const int rc = read_config(in.get(), fpath, &file, cfg);
    config_destroy(&file);
    if (rc != 0)
        LOG(&g_log, ERR_level, "%s: [%s] FAILED (%d)\n", __func__, fpath, rc);
    return rc;
}
