// fixture.h - a GoogleTest fixture that owns one analyzer context and both logs.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "ts_builder.h"
#include "tsanalyze.h"

// Settings as the driver starts with them, and the source tag "src".
tsan_config default_config();

// A test changes `cfg`, calls start(), feeds packets and compares lines. Lines of the application
// log begin with their level tag and two blanks, "(WRN)  ALERT ...".
class analyzer_test : public ::testing::Test {
  protected:
    using lines = std::vector<std::string>;

    ~analyzer_test() override { release(); }

    void start();   // creates the context from cfg, after releasing an earlier one, and clears logs
    void release(); // releases the context, if there is one
    [[nodiscard]] std::string address() const; // of the context, as messages print it

    // Hands packets over in order; each must be accepted. The context is started if need be.
    void feed(const ts::packet& p) { ASSERT_EQ(process(p), 0) << "packet " << tsan_get_pidx(t); }
    void feed(const ts::stream& s);
    void feed_new(const ts::stream& s); // the packets that it has got since the last feed_new of it
    [[nodiscard]] int process(const ts::packet& p); // hands one over and returns the result

    // Compares what was written since the last comparison, then clears both logs.
    void expect_lines(const lines& human, const lines& machine);
    void expect_silence() { expect_lines({}, {}); }
    [[nodiscard]] std::string stats(); // the statistics dump

    tsan_config cfg = default_config();
    log_capture log;
    tsan_t t = nullptr;

  private:
    std::size_t fed_ = 0; // packets of the stream given to feed_new
};
