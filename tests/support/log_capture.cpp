// log_capture.cpp - see log_capture.h. Owns the memory streams behind the captured contexts.
#include "log_capture.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

log_capture::log_capture(int level) {
    memcpy(saved_levels_, g_mod_ll, sizeof(saved_levels_));
    attach(human_, &g_log);
    attach(machine_, &g_access_log);
    set_level(level);
}

log_capture::~log_capture() {
    detach(human_);
    detach(machine_);
    memcpy(g_mod_ll, saved_levels_, sizeof(saved_levels_));
}

void log_capture::set_level(int level) {
    g_mod_ll[0] = level;
}

std::string log_capture::human() {
    return read(human_);
}

std::string log_capture::machine() {
    return read(machine_);
}

std::vector<std::string> log_capture::human_lines() {
    return split_lines(human());
}

std::vector<std::string> log_capture::machine_lines() {
    return split_lines(machine());
}

std::vector<std::string> log_capture::human_lines(std::string_view part) {
    std::vector<std::string> found;
    for (const std::string& line : human_lines()) {
        if (line.find(part) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

void log_capture::clear() {
    rewind(human_);
    rewind(machine_);
}

void log_capture::attach(sink& s, log_ctx* log) {
    s.log = log;
    s.saved = *log;
    s.fp = open_memstream(&s.text, &s.length);
    assert(s.fp != nullptr);
    *log = {};
    log->time_format = TMF_NONE;
    log->fp = s.fp;
}

void log_capture::detach(sink& s) {
    *s.log = s.saved;
    fclose(s.fp);
    free(s.text);
}

// A memory stream cannot be cut short, so it is replaced.
void log_capture::rewind(sink& s) {
    fclose(s.fp);
    free(s.text);
    s.fp = open_memstream(&s.text, &s.length);
    assert(s.fp != nullptr);
    s.log->fp = s.fp;
}

std::string log_capture::read(sink& s) {
    fflush(s.fp);
    return {s.text, s.length};
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

std::string join_lines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}
