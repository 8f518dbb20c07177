// log_capture.cpp - see log_capture.h. Owns the memory streams behind the captured contexts.
#include "log_capture.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>

log_capture::log_capture(int level) {
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), saved_levels_);
    set_level(level);
}

log_capture::~log_capture() {
    std::copy(std::begin(saved_levels_), std::end(saved_levels_), g_mod_ll);
}

std::vector<std::string> log_capture::human_lines(std::string_view part) {
    std::vector<std::string> lines = split_lines(human());
    std::erase_if(lines, [part](const std::string& l) { return l.find(part) == l.npos; });
    return lines;
}

void log_capture::clear() {
    human_.open();
    machine_.open();
}

log_capture::sink::sink(log_ctx* captured) : log(captured), saved(*captured) {
    *log = {};
    log->time_format = TMF_NONE;
    open();
}

log_capture::sink::~sink() {
    *log = saved;
    fclose(fp);
    free(text);
}

// A memory stream cannot be cut short, so it is replaced.
void log_capture::sink::open() {
    if (fp != nullptr)
        fclose(fp);
    free(text);
    fp = open_memstream(&text, &length);
    assert(fp != nullptr);
    log->fp = fp;
}

std::string log_capture::sink::read() {
    fflush(fp);
    return {text, length};
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::string join_lines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}
