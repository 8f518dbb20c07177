#include "json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "text.h"

namespace quarn {

namespace {

template <class T>
void append_number(std::string& out, T number) {
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    out.append(digits.data(), end);
}

/// ASCII that stands for itself.
bool is_plain(char c) {
    return c >= 0x20 && c <= 0x7E && c != '"' && c != '\\';
}

void append_escape(std::string& out, char c) {
    switch (c) {
    case '"':
    case '\\':
        out += '\\';
        out += c;
        break;
    case '\n':
        out += "\\n";
        break;
    case '\t':
        out += "\\t";
        break;
    default: {
        std::array<char, 8> text;
        std::snprintf(text.data(), text.size(), "\\u%04x", static_cast<unsigned>(c) & 0xFFU);
        out += text.data();
    }
    }
}

} // namespace

void Json::comma() {
    // A text ends in a quote, so these three can only be the grammar's own.
    if (!out_.empty() && out_.back() != '{' && out_.back() != '[' && out_.back() != ':' &&
        out_.back() != '\n')
        out_ += ',';
}

Json& Json::key(std::string_view name) {
    comma();
    out_ += '"';
    out_ += name;
    out_ += "\":";
    return *this;
}

Json& Json::open(char bracket) {
    comma();
    out_ += bracket;
    return *this;
}

Json& Json::close(char bracket) {
    out_ += bracket;
    return *this;
}

Json& Json::null() {
    comma();
    out_ += "null";
    return *this;
}

Json& Json::value(bool truth) {
    comma();
    out_ += truth ? "true" : "false";
    return *this;
}

Json& Json::value(std::string_view text) {
    comma();
    out_ += '"';
    if (std::all_of(text.begin(), text.end(), is_plain)) {
        out_ += text;
    } else {
        for (const char c : valid_utf8(text))
            if (is_plain(c) || static_cast<unsigned char>(c) > 0x7E)
                out_ += c;
            else
                append_escape(out_, c);
    }
    out_ += '"';
    return *this;
}

Json& Json::value(double number) {
    // Beyond 2^53 thousandths nothing is left of the decimals anyway.
    if (!(std::abs(number) < 9e12))
        return null();
    const std::int64_t thousandths = std::llround(number * 1000);
    const auto size = static_cast<std::uint64_t>(std::abs(thousandths));
    comma();
    if (thousandths < 0)
        out_ += '-';
    append_number(out_, size / 1000);
    if (size % 1000 == 0)
        return *this;
    out_ += '.';
    append_number(out_, size % 1000 + 1000);
    out_.erase(out_.size() - 4, 1); // the 1 that kept the leading zeros
    while (out_.back() == '0')
        out_.pop_back();
    return *this;
}

Json& Json::seconds(std::int64_t microseconds) {
    comma();
    if (microseconds < 0)
        out_ += '-';
    const auto size = static_cast<std::uint64_t>(std::abs(microseconds));
    append_number(out_, size / 1'000'000);
    out_ += '.';
    append_number(out_, size % 1'000'000 + 1'000'000);
    out_.erase(out_.size() - 7, 1);
    return *this;
}

Json& Json::integer(std::int64_t number) {
    comma();
    append_number(out_, number);
    return *this;
}

Json& Json::integer(std::uint64_t number) {
    comma();
    append_number(out_, number);
    return *this;
}

} // namespace quarn
