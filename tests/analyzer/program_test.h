// program_test.h - a fixture with one program on the air, and short names for the lines it writes.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "fixture.h"
#include "internal.h"
#include "ts_builder.h"

inline constexpr unsigned PMT = 100; // pids of program 0
inline constexpr unsigned V = 101;   // H.264, carries the PCR
inline constexpr unsigned A = 102;   // AAC
inline constexpr unsigned S = 103;   // private PES data
inline const std::vector<ts::elementary> VAS{{0x1b, V}, {0x0f, A}, {0x06, S}};
inline constexpr u64 WRAP = u64{1} << 33; // the 90 kHz clock counts modulo this

// A packet that carries exactly these bytes: an adaptation field takes the room before them.
inline ts::packet_fields filled(unsigned pid, bool pusi, const ts::bytes& payload) {
    ts::packet_fields fields{.pid = pid, .pusi = pusi, .payload = payload};
    if (payload.size() < 184)
        fields.adapt = ts::adaptation{.pcr = {}, .length = 183 - payload.size()};
    return fields;
}

using lines = std::vector<std::string>;

inline std::string err(const std::string& text) {
    return "(ERR)  " + text;
}
inline std::string wrn(const std::string& text) {
    return "(WRN)  " + text;
}
inline std::string inf(const std::string& text) {
    return "(INF)  " + text;
}
inline std::string dbg(const std::string& text) {
    return "(DBG)  " + text;
}

class program_test : public analyzer_test {
  protected:
    // A context that has read the PAT in packet 1 and the PMT in packet 2; both logs are empty.
    void load(const std::vector<ts::elementary>& streams = VAS, unsigned pcr_pid = V) {
        start();
        s = {};
        s.section(0, ts::pat_section({{1, PMT}}));
        s.sections(PMT, {ts::pmt_section(1, pcr_pid, streams)});
        feed_new(s);
        log.clear();
    }
    program_info& pg(std::size_t i = 0) { return t->pg[i]; }
    stream_info& stm(std::size_t i) { return pg().stm[i]; }

    ts::stream s; // feed_new(s) hands over what was added
};

// Runs a function object in a process of its own: what it changes process-wide ends with it.
template <class Body>
void in_child(Body body) {
    body();
    fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
}
#define EXPECT_IN_CHILD(...) EXPECT_EXIT(in_child(__VA_ARGS__), testing::ExitedWithCode(0), "")

// Expects a statement to break an invariant.
#define EXPECT_ASSERT(statement, expression)                                                       \
    EXPECT_DEATH(statement, testing::HasSubstr("Assertion `" expression "' failed"))
