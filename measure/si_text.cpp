// Character tables of service information, by way of the C library's iconv.
#include "si_text.h"

#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

#include <iconv.h>

namespace quarn {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::string_view replacement = "\xEF\xBF\xBD";
constexpr std::uint8_t euro = 0xA4; // in the default table, where ISO 6937 has another sign

struct Selected {
    const char* table; // iconv's name; nullptr: not supported
    std::size_t skip;  // bytes that select it
    bool latin = false;
};

// By a first byte below 0x20.
Selected select(Bytes bytes) {
    static constexpr std::array<const char*, 0x0C> parts = {
        nullptr,       "ISO-8859-5",  "ISO-8859-6", "ISO-8859-7",  "ISO-8859-8",  "ISO-8859-9",
        "ISO-8859-10", "ISO-8859-11", nullptr,      "ISO-8859-13", "ISO-8859-14", "ISO-8859-15"};
    static constexpr std::array<const char*, 16> latin_parts = {
        nullptr,      "ISO-8859-1",  "ISO-8859-2",  "ISO-8859-3", "ISO-8859-4",  "ISO-8859-5",
        "ISO-8859-6", "ISO-8859-7",  "ISO-8859-8",  "ISO-8859-9", "ISO-8859-10", "ISO-8859-11",
        nullptr,      "ISO-8859-13", "ISO-8859-14", "ISO-8859-15"};
    const std::uint8_t first = bytes[0];
    if (first >= 0x20)
        return {"ISO6937", 0, true};
    if (first < parts.size())
        return {parts[first], 1};
    switch (first) {
    case 0x10:
        if (bytes.size() < 3 || bytes[1] != 0 || bytes[2] >= latin_parts.size())
            return {nullptr, bytes.size()};
        return {latin_parts[bytes[2]], 3};
    case 0x11:
        return {"UTF-16BE", 1};
    case 0x12:
        return {"EUC-KR", 1};
    case 0x13:
        return {"GBK", 1};
    case 0x14:
        return {"BIG5", 1};
    case 0x15:
        return {"UTF-8", 1};
    case 0x1F: // encoding_type_id
        return {nullptr, std::min<std::size_t>(2, bytes.size())};
    default:
        return {nullptr, 1};
    }
}

class Converter {
  public:
    explicit Converter(const char* table)
        : handle_(table ? iconv_open("UTF-8", table) : iconv_t(-1)) {}
    ~Converter() {
        if (usable())
            iconv_close(handle_);
    }
    Converter(const Converter&) = delete;

    bool usable() const { return handle_ != iconv_t(-1); }

    void append(Bytes bytes, std::string& out) {
        std::vector<char> from(bytes.begin(), bytes.end());
        char* next = from.data();
        std::size_t left = from.size();
        while (left > 0) {
            std::array<char, 256> buffer;
            char* to = buffer.data();
            std::size_t room = buffer.size();
            const bool stuck = iconv(handle_, &next, &left, &to, &room) == std::size_t(-1);
            const int reason = errno;
            out.append(buffer.data(), to);
            if (stuck && reason != E2BIG) { // not a character of this table, or cut
                out += replacement;
                ++next;
                --left;
            }
        }
        std::array<char, 16> rest; // an accent that waited for its letter
        char* to = rest.data();
        std::size_t room = rest.size();
        iconv(handle_, nullptr, nullptr, &to, &room);
        out.append(rest.data(), to);
    }

  private:
    iconv_t handle_;
};

// Without a table only ASCII can be told.
void append_ascii(Bytes bytes, std::string& out) {
    for (const std::uint8_t b : bytes) {
        if (b < 0x80)
            out.push_back(static_cast<char>(b));
        else
            out += replacement;
    }
}

// Bytes of a character beyond Unicode, which iconv takes for UTF-8 as it once was; 0: it is none.
std::size_t beyond_unicode(std::uint8_t lead, std::uint8_t next) {
    if (lead >= 0xF8)
        return lead >= 0xFC ? 6 : 5;
    return lead > 0xF4 || (lead == 0xF4 && next >= 0x90) ? 4 : 0;
}

// Control codes as UTF-8: C0, C1, and U+E080 to U+E09F, which stand for those of C1 in tables of
// two bytes.
std::string without_controls(std::string_view text) {
    const auto at = [&](std::size_t i) {
        return i < text.size() ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
    };
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        if (const std::size_t size = beyond_unicode(at(i), at(i + 1)); size > 0) {
            out += replacement;
            i += size;
            continue;
        }
        const bool c1 = at(i) == 0xC2 && at(i + 1) < 0xA0;
        const bool wide = at(i) == 0xEE && at(i + 1) == 0x82 && at(i + 2) < 0xA0;
        const bool c0 = at(i) < 0x20 || at(i) == 0x7F;
        const std::size_t size = c1 ? 2 : wide ? 3 : 1;
        const bool line_break = at(i + size - 1) == (c0 ? 0x0A : 0x8A);
        if (!c0 && !c1 && !wide)
            out.push_back(text[i]);
        else if (line_break)
            out.push_back(' ');
        i += size;
    }
    return out;
}

// ISO 6937 is a code of one byte and of accents with a letter; control codes and the euro sign are
// not its own.
void append_latin(Bytes bytes, Converter& converter, std::string& out) {
    std::size_t from = 0;
    for (std::size_t i = 0; i <= bytes.size(); ++i) {
        const bool foreign =
            i < bytes.size() && (bytes[i] == euro || (bytes[i] >= 0x80 && bytes[i] < 0xA0));
        if (i < bytes.size() && !foreign)
            continue;
        converter.append(bytes.subspan(from, i - from), out);
        from = i + 1;
        if (foreign)
            out += bytes[i] == euro ? "\xE2\x82\xAC" : bytes[i] == 0x8A ? " " : "";
    }
}

} // namespace

std::string si_text(Bytes bytes) {
    if (bytes.empty())
        return {};
    const Selected selected = select(bytes);
    const Bytes text = bytes.subspan(selected.skip);
    Converter converter(selected.table);
    std::string out;
    if (!converter.usable())
        append_ascii(text, out);
    else if (selected.latin)
        append_latin(text, converter, out);
    else
        converter.append(text, out);
    return without_controls(out);
}

} // namespace quarn
