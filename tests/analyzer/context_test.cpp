// context_test.cpp - life of a context.
#include "analyzer_test.h"

namespace {

class context_test : public analyzer_test {};

TEST_F(context_test, life) {
    log.set_level(DEBUG_level);
    const std::string tag(70, 'x');
    int error = 55;
    t = tsan_init(tag.c_str(), &cfg, &error);
    EXPECT_EQ(error, 55);
    const std::string made = "(DBG)  tsan_init: tsan[" + tag.substr(0, 63) + "] (" + address();
    t->cfg.source[0] = '\0'; // as a context that was released before looks
    tsan_free(t);
    EXPECT_EQ(log.human(), made +
                               ") created\n(WRN)  tsan_free: avoiding double-freeing of tsan[] (" +
                               address() + ")\n");
    strcpy(t->cfg.source, "src");
    log.clear();
    const std::string freed = "(DBG)  tsan_free: freeing up tsan[src] (" + address() + ")\n";
    release();
    EXPECT_EQ(log.human(), freed);
}

} // namespace
