// An input with an analyzer beside it, as tests see it: its own folder, a clock that the test
// turns, and waiting that ends when it is true what is waited for, however slow the machine is.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emulated.h"
#include "live/analyzer.h"
#include "ts_builder.h"

namespace alert_lines {

namespace fs = std::filesystem;
using quarn::live::Analyzer;
using quarn::live::AnalyzerEnd;
using quarn::live::AnalyzerSettings;
using Bytes = std::vector<std::uint8_t>;

/// An analyzer is this program, started once more.
template <class Base = testing::Test>
class StartsPrograms : public Base {
    void SetUp() override {
        if (emulated())
            GTEST_SKIP() << "the emulator starts no programs of the other machine";
    }
};

constexpr std::int64_t second = 27'000'000;
constexpr std::size_t datagram_size = std::size_t{7} * 188;

inline std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline Bytes read_bytes(const fs::path& path) {
    const std::string text = read_file(path);
    return {text.begin(), text.end()};
}

/// False: it has not come true within a minute.
inline bool until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Lines with `word` in them, without time and process id; of those that quote a segment or a
/// duration since the start, without these.
inline std::vector<std::string> lines_with(const std::string& log, const std::string& word) {
    static const std::regex prefix("^[-0-9]+ [0-9:.]+ UTC ([0-9]+  )?");
    static const std::regex own("(CC-(?:BRK|RST) \\S+ [0-9]+|CC-MLR \\S+|STAT GLOBAL \\S+) [0-9]+");
    std::vector<std::string> lines;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);)
        if (line.find(word) != std::string::npos)
            lines.push_back(std::regex_replace(std::regex_replace(line, prefix, ""), own, "$1"));
    return lines;
}

/// An analyzer, and the folder of its logs.
class Input {
  public:
    explicit Input(const std::string& name, AnalyzerSettings settings = {}) {
        static int count = 0;
        folder = fs::current_path() /
                 ("input" + std::to_string(++count) + "." + std::to_string(getpid()));
        fs::create_directories(folder);
        settings.name = name;
        if (settings.alert_log.empty())
            settings.alert_log = folder / "alerts";
        if (settings.text_log.empty())
            settings.text_log = folder / "text";
        analyzer = std::make_unique<Analyzer>(
            settings, quarn::live::AnalyzerCalls{
                          [this](const AnalyzerEnd& end) { ends.push_back(end); },
                          [this](std::string_view line) { said += std::string(line) + '\n'; }});
        analyzer->tick(now);
    }
    ~Input() {
        analyzer.reset();
        fs::remove_all(folder);
    }

    /// Waits now and then, so that all of it finds room.
    void feed(const Bytes& bytes, std::size_t block = datagram_size) {
        for (std::size_t at = 0; at < bytes.size(); at += block) {
            if (analyzer->waiting() > 100'000)
                taken();
            analyzer->datagram(std::span(bytes).subspan(at, std::min(block, bytes.size() - at)));
        }
    }
    /// Whether all that was fed has left the ring.
    bool taken() {
        return until([&] {
            analyzer->tick(now);
            return analyzer->waiting() == 0 || !analyzer->running();
        });
    }
    bool ended(std::size_t times) {
        return until([&] {
            analyzer->tick(now);
            return ends.size() >= times;
        });
    }
    /// Until the process writes such a line.
    bool logged(const std::string& text) {
        return until([&] {
            analyzer->tick(now);
            return read_file(folder / "alerts").find(text) != std::string::npos;
        });
    }
    std::vector<std::string> alerts() const {
        return lines_with(read_file(folder / "alerts"), "ALERT ");
    }

    fs::path folder;
    std::vector<AnalyzerEnd> ends;
    std::string said;
    std::int64_t now = 1000 * second;
    std::unique_ptr<Analyzer> analyzer;
};

} // namespace alert_lines
