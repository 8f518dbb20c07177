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
    log_capture& operator=(const log_capture&) = delete;

    void set_level(int level); // of module 0, the module of the analyzer and of the driver

    // All that was written since the start or since the last clear().
    [[nodiscard]] std::string human();
    [[nodiscard]] std::string machine();
    [[nodiscard]] std::vector<std::string> human_lines();
    [[nodiscard]] std::vector<std::string> machine_lines();
    // The human lines that contain `part`.
    [[nodiscard]] std::vector<std::string> human_lines(std::string_view part);
    void clear();

  private:
    struct sink { // one context and what it looked like before
        log_ctx* log;
        log_ctx saved;
        char* text; // owned by fp until it is closed
        std::size_t length;
        FILE* fp;
    };
    static void attach(sink& s, log_ctx* log);
    static void detach(sink& s);
    static void rewind(sink& s);
    static std::string read(sink& s);

    sink human_{};
    sink machine_{};
    int saved_levels_[LL_MAX_MODULES];
};

// The lines of a text without their line feeds; a last line need not have one.
std::vector<std::string> split_lines(std::string_view text);
// The reverse, for comparisons whose difference shall be shown line by line.
std::string join_lines(const std::vector<std::string>& lines);
