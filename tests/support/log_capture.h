// log_capture.h - catches what the two log contexts write while an object of this type lives.
//
// Lines carry no time stamp and no process id, so a test compares whole lines:
// "(WRN)  ALERT ..." on the application log, "ALERT ..." on the access log.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "log.h"

class log_capture {
  public:
    explicit log_capture(int level = NORM_level);
    ~log_capture();
    log_capture(const log_capture&) = delete;

    void set_level(int level) { g_mod_ll[0] = level; } // of the analyzer's and the driver's module

    // All that was written since the start or since the last clear().
    [[nodiscard]] std::string human() { return human_.read(); }
    [[nodiscard]] std::string machine() { return machine_.read(); }
    // The human lines that contain `part`.
    [[nodiscard]] std::vector<std::string> human_lines(std::string_view part);
    void clear();

  private:
    struct sink { // one context and what it looked like before
        explicit sink(log_ctx* captured);
        ~sink();
        void open();
        std::string read();

        log_ctx* log;
        log_ctx saved;
        char* text = nullptr; // owned by fp until it is closed
        std::size_t length = 0;
        FILE* fp = nullptr;
    };
    sink human_{&g_log};
    sink machine_{&g_access_log};
    int saved_levels_[LL_MAX_MODULES];
};

// The lines of a text without their line feeds, and the reverse.
std::vector<std::string> split_lines(std::string_view text);
std::string join_lines(const std::vector<std::string>& lines);
