// render.cpp - the text of a PMT, made by bitstream's printer. Called by pmt for the rendering that
// changes are found by. Owns the room in which the printer keeps the texts of descriptors.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tables.h"

namespace {

// The printer holds two texts at most, each of no more than 255 bytes.
constexpr std::size_t TEXTS = 4;
constexpr std::size_t TEXT_ROOM = 256;
constinit char g_texts[TEXTS][TEXT_ROOM] = {};
constinit unsigned g_turn = 0;

[[maybe_unused]] void* text_room(std::size_t) {
    return g_texts[g_turn++ % TEXTS];
}
[[maybe_unused]] void release_room(const void*) {}

[[maybe_unused]] char* same_chars(const char* text) {
    auto* copy = static_cast<char*>(text_room(TEXT_ROOM));
    std::snprintf(copy, TEXT_ROOM, "%s", text);
    return copy;
}

// Text callback: names in descriptors stay the bytes they are.
char* same_text(void*, const char*, char* text, std::size_t len) {
    auto* copy = static_cast<char*>(text_room(len + 1));
    std::memcpy(copy, text, len);
    copy[len] = '\0';
    return copy;
}

} // namespace

// The printer allocates its texts and does not look whether it got memory: it gets the room above
// instead. The headers that declare the real functions have been read before.
#define malloc(size) text_room(size)
#define strdup(text) same_chars(text)
#define free(room) release_room(room)
#include <bitstream/mpeg/psi/pmt_print.h>
#undef malloc
#undef strdup
#undef free

void render_pmt(std::uint8_t* pld, ctxt_spec* txt) {
    pmt_print(pld, add_ctxt_line, txt, same_text, nullptr, PRINT_TEXT);
}
