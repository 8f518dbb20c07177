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
    ~analyzer_test() override;

    void start();   // creates the context from cfg, after releasing an earlier one, and clears logs
    void release(); // releases the context, if there is one
    [[nodiscard]] std::string address() const; // of the context, as messages print it

    // Hands packets over in order; each must be accepted. feed() starts the context if need be.
    void feed(const ts::packet& p);
    void feed(const ts::stream& s);
    // Hands over the packets that a stream has got since the last feed_new of it.
    void feed_new(const ts::stream& s);
    // Hands one over and returns the result.
    [[nodiscard]] int process(const ts::packet& p);

    // Compare what was written since the last comparison, then clear both logs. expect_alerts
    // leaves out human lines other than alerts.
    void expect_lines(const std::vector<std::string>& human,
                      const std::vector<std::string>& machine);
    void expect_alerts(const std::vector<std::string>& human,
                       const std::vector<std::string>& machine);
    void expect_silence() { expect_lines({}, {}); }
    // The statistics dump.
    [[nodiscard]] std::string stats();

    tsan_config cfg = default_config();
    log_capture log;
    tsan_t t = nullptr;

  private:
    std::size_t fed_ = 0; // packets of the stream given to feed_new
};
