#include "text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace quarn {

namespace {

unsigned char byte_at(std::string_view text, std::size_t i) {
    return static_cast<unsigned char>(text[i]);
}

/// Sequences by their first byte (RFC 3629): length, and the range of the second byte that leaves
/// out overlong forms, surrogates and what is beyond U+10FFFF.
struct Lead {
    unsigned char first, last;
    std::size_t length;
    unsigned char second_least, second_most;
};
constexpr std::array leads = std::to_array<Lead>({
    {0x00, 0x7F, 1, 0, 0},
    {0xC2, 0xDF, 2, 0x80, 0xBF},
    {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F},
    {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF},
    {0xF4, 0xF4, 4, 0x80, 0x8F},
});

bool is_control(std::string_view sequence) {
    const unsigned char first = byte_at(sequence, 0);
    return first < 0x20 || first == 0x7F || (first == 0xC2 && byte_at(sequence, 1) < 0xA0);
}

void append_escaped(std::string& out, std::string_view bytes) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += "\\x";
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
}

std::string cleaned(std::string_view text, bool without_controls) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
        if (length == 0 || (without_controls && is_control(sequence)))
            append_escaped(out, sequence);
        else
            out += sequence;
        text.remove_prefix(sequence.size());
    }
    return out;
}

std::string number_text(double value, int decimals, std::string_view unit) {
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%.*f ", decimals, value);
    return text.data() + std::string(unit);
}

/// Three digits that count: 7.35, 73.5, 735.
int decimals_of(double value) {
    return value < 10 ? 2 : value < 100 ? 1 : 0;
}

/// The same, or as many as show that it is over `least`, if it is by a millionth.
int decimals_over(double value, double least) {
    const int usual = decimals_of(value);
    for (int decimals = usual; value > least && decimals <= 6; ++decimals) {
        const double scale = std::pow(10.0, decimals);
        if (std::round(value * scale) > std::round(least * scale))
            return decimals;
    }
    return usual;
}

} // namespace

std::size_t utf8_length(std::string_view text) {
    const unsigned char first = byte_at(text, 0);
    const auto lead = std::find_if(leads.begin(), leads.end(), [&](const Lead& l) {
        return first >= l.first && first <= l.last;
    });
    if (lead == leads.end() || text.size() < lead->length)
        return 0;
    for (std::size_t i = 1; i < lead->length; ++i) {
        const unsigned char least = i == 1 ? lead->second_least : 0x80;
        const unsigned char most = i == 1 ? lead->second_most : 0xBF;
        if (byte_at(text, i) < least || byte_at(text, i) > most)
            return 0;
    }
    return lead->length;
}

std::string valid_utf8(std::string_view text) {
    return cleaned(text, false);
}

std::string printable(std::string_view text) {
    return cleaned(text, true);
}

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::size_t columns(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

void wrap(std::string& out, std::string_view text, std::size_t indent, std::size_t width) {
    std::size_t column = 0;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (word.empty())
            continue;
        if (column > 0 && column + 1 + columns(word) > width) {
            out += '\n';
            column = 0;
        }
        if (column == 0)
            out.append(indent, ' ');
        else
            out += ' ';
        column = (column == 0 ? indent : column + 1) + columns(word);
        out += word;
    }
    out += '\n';
}

std::string duration_text(double ms, std::optional<double> limit) {
    const double size = std::abs(ms);
    const double least = limit.value_or(-1);
    if (size >= 10'000)
        return number_text(ms / 1000, decimals_over(size / 1000, least / 1000), "s");
    if (size >= 1 || size == 0)
        return number_text(ms, size == std::floor(size) ? 0 : decimals_over(size, least), "ms");
    if (size >= 0.001)
        return number_text(ms * 1000, decimals_of(size * 1000), "us");
    return number_text(ms * 1e6, 0, "ns");
}

std::string length_text(Ticks ticks) {
    const auto whole = [&](Ticks unit) { return (ticks + unit / 2) / unit; };
    const Ticks tenths = whole(ticks_per_second / 10);
    const Ticks seconds = whole(ticks_per_second);
    const Ticks minutes = whole(60 * ticks_per_second);
    if (ticks < ticks_per_second)
        return duration_text(static_cast<double>(ticks) / ticks_per_ms);
    if (tenths < 600)
        return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
    if (seconds < 3600)
        return std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s";
    return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
}

std::string rate_text(std::uint64_t bits_per_second) {
    const auto rate = static_cast<double>(bits_per_second);
    if (rate >= 1e6)
        return number_text(rate / 1e6, decimals_of(rate / 1e6), "Mbit/s");
    if (rate >= 1e3)
        return number_text(rate / 1e3, decimals_of(rate / 1e3), "kbit/s");
    return number_text(rate, 0, "bit/s");
}

std::string count_text(std::uint64_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

} // namespace quarn
