// analyzer_test.h - a fixture that owns one analyzer context and both logs.
#pragma once

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "context.h"
#include "log_capture.h"
#include "steps.h"
#include "tables.h"

// Settings as the driver starts with them, and the source tag "src".
inline tsan_config default_config() {
    tsan_config cfg = TSAN_DEFAULTS;
    strcpy(cfg.source, "src");
    return cfg;
}

// A test changes `cfg`, feeds packets and compares lines. Lines of the application log begin with
// their level tag and two blanks, "(WRN)  ALERT ...".
class analyzer_test : public testing::Test {
  protected:
    ~analyzer_test() override { release(); }

    void start() { // makes the context from cfg, after releasing an earlier one, and clears logs
        release();
        t = tsan_init(nullptr, &cfg, nullptr);
        log.clear();
    }
    void release() {
        if (t != nullptr)
            tsan_free(t);
        t = nullptr;
    }
    std::string address() const { // of the context, as messages print it
        char text[32];
        snprintf(text, sizeof(text), "%p", static_cast<void*>(t));
        return text;
    }

    tsan_config cfg = default_config();
    log_capture log;
    tsan_t t = nullptr;
};

// Expects a statement to break an invariant.
#define EXPECT_ASSERT(statement, expression)                                                       \
    EXPECT_DEATH(statement, testing::HasSubstr("Assertion `" expression "' failed"))
