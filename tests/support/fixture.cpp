// fixture.cpp - see fixture.h.
#include "fixture.h"

#include <cstdlib>
#include <cstring>

tsan_config default_config() {
    tsan_config cfg{};
    cfg.is_enabled = true;
    strcpy(cfg.source, "src");
    cfg.max_skip_pkts = 5000;
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 30;
    return cfg;
}

void analyzer_test::start() {
    release();
    t = tsan_init(nullptr, &cfg, nullptr);
    ASSERT_NE(t, nullptr);
    fed_ = 0;
    log.clear();
}

void analyzer_test::release() {
    if (t != nullptr)
        tsan_free(t);
    t = nullptr;
}

std::string analyzer_test::address() const {
    char text[32];
    snprintf(text, sizeof(text), "%p", static_cast<void*>(t));
    return text;
}

int analyzer_test::process(const ts::packet& p) {
    if (t == nullptr)
        start();
    return tsan_process(t, p.data());
}

void analyzer_test::feed(const ts::stream& s) {
    for (const ts::packet& p : s.packets())
        feed(p);
}

void analyzer_test::feed_new(const ts::stream& s) {
    for (; fed_ < s.size(); fed_++)
        feed(s.packets()[fed_]);
}

void analyzer_test::expect_lines(const lines& human, const lines& machine) {
    EXPECT_EQ(log.human(), join_lines(human));
    EXPECT_EQ(log.machine(), join_lines(machine));
    log.clear();
}

std::string analyzer_test::stats() {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* fp = open_memstream(&text, &length);
    tsan_dump_stats(fp, t);
    fclose(fp);
    std::string result(text, length);
    free(text);
    return result;
}
