// JSON text, appended member by member to a string: hundreds of thousands of records a second.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quarn {

/// Writes one JSON text. The caller keeps to the grammar; commas are set by the writer, which knows
/// from the last character whether something stands in front.
class Json {
  public:
    explicit Json(std::string& out) : out_(out) {}

    Json& key(std::string_view name);
    Json& open(char bracket); // { or [
    Json& close(char bracket);

    Json& null();
    Json& value(bool truth);
    /// Bytes that are no valid UTF-8 are written as \xHH.
    Json& value(std::string_view text);
    Json& value(const char* text) { return value(std::string_view(text)); }
    /// Three decimals, trailing zeros left out; null where it is no number.
    Json& value(double number);
    template <std::integral T>
    Json& value(T number) {
        return integer(number);
    }
    /// Microseconds shown as seconds, six decimals.
    Json& seconds(std::int64_t microseconds);
    template <class T>
    Json& value(const std::optional<T>& v) {
        return v ? value(*v) : null();
    }

    /// key() and value().
    template <class T>
    Json& member(std::string_view name, const T& v) {
        return key(name).value(v);
    }
    /// A word, null where it is empty.
    Json& word_or_null(std::string_view name, std::string_view word) {
        key(name);
        return word.empty() ? null() : value(word);
    }
    /// An array of values.
    template <class List>
    Json& list(std::string_view name, const List& values) {
        key(name).open('[');
        for (const auto& v : values)
            value(v);
        return close(']');
    }

  private:
    void comma();
    Json& integer(std::int64_t number);
    Json& integer(std::uint64_t number);
    template <class T>
    Json& integer(T number) {
        if constexpr (std::is_signed_v<T>)
            return integer(static_cast<std::int64_t>(number));
        else
            return integer(static_cast<std::uint64_t>(number));
    }

    std::string& out_;
};

} // namespace quarn
