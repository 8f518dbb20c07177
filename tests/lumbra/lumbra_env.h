// What the tests of the support library share: a clock and a syslog of their own, captured
// streams, a directory that goes away, and a logging module that starts every test as new.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log.h"

// Readings of the two clocks; unset: the real ones.
struct fake_clock {
    std::optional<timespec> real;
    std::optional<timespec> mono;
};
extern fake_clock g_clock;

struct fake_syslog {
    std::vector<std::pair<int, std::string>> lines; // priority with facility, text
    std::string ident;
    int option;
    int facility;
    int closed;
};
extern fake_syslog g_syslog;

// A stream into memory.
class text_stream {
  public:
    text_stream() : fp(open_memstream(&buf, &len)) {}
    ~text_stream() {
        fclose(fp);
        free(buf);
    }
    std::string text() {
        fflush(fp);
        return {buf, len};
    }

  private:
    char* buf = nullptr;
    std::size_t len = 0;

  public:
    FILE* const fp;
};

// What a call writes to standard error.
std::string stderr_of(const std::function<void()>& call);

// Sets the time zone; an empty zone text is asked for anew.
void use_zone(const char* tz);

inline constexpr const char* BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";

class lumbra_test : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    static std::string read_file(const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void write_file(const std::string& name, const std::string& text) const {
        std::ofstream(dir / name, std::ios::binary) << text;
    }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    std::vector<std::string> files() const; // names in `dir`, sorted

    std::filesystem::path dir;
};
