// lumbra_test.h - what the tests of the support library share: a captured application log, a clock,
// a current directory that goes away, and results as text.
#pragma once

#include <filesystem>
#include <fstream>
#include <set>
#include <unistd.h>

#include <gmock/gmock.h>

#include "fake_clock.h"
#include "log_capture.h"
#include "timeop.h"

using std::string;
using std::to_string;

// Results in the order of their calls: string() << f() << g() is "0 -1".
template <class T>
string operator<<(string text, const T& value) {
    std::ostringstream more;
    more << value;
    return text + (text.empty() || more.str().empty() ? "" : " ") + more.str();
}

struct lumbra_test : testing::Test {
    lumbra_test() {
        use_zone("UTC0");
        glog_init("tests");
        renew_directory();
    }
    ~lumbra_test() override { std::filesystem::remove_all(dir); }

    void renew_directory() const { // the current one
        std::filesystem::remove_all(dir);
        std::filesystem::create_directory(dir);
        std::filesystem::current_path(dir);
    }

    static void use_zone(const string& name) {
        setenv("TZ", name == "Berlin" ? "CET-1CEST,M3.5.0,M10.5.0/3" : name.c_str(), 1);
        tzset();
        errno = 0;
        get_timezone(1);
    }
    // Result of a call, and what it writes to standard error.
    template <class Call>
    string outcome(Call call) const {
        testing::internal::CaptureStderr();
        const string result = string() << call();
        return result << testing::internal::GetCapturedStderr();
    }
    static string files() { // of the directory, in order: "[name]line\nline\n[name]"
        std::ostringstream text;
        const std::filesystem::directory_iterator begin("."), end;
        for (const std::filesystem::path& file : std::set<std::filesystem::path>(begin, end)) {
            const string name = file.filename();
            text << '[' << (name.size() < 99 ? name : name[0] + to_string(name.size())) << ']';
            text << std::ifstream(file).rdbuf();
            text.clear(); // from an empty one
        }
        return text.str();
    }

    fake_clock clock;
    log_capture log;
    const string dir = testing::TempDir() + "lumbra" + to_string(getpid());
};
