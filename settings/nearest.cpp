#include "nearest.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace quarn::settings {

namespace {

bool same(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

/// How many letters must be put in, left out or exchanged (Levenshtein).
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1); // from the letters of `a` so far to those of `b`
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t exchanged = diagonal + (same(a[i], b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

std::vector<std::string> nearest(std::string_view text, const std::vector<std::string>& words) {
    constexpr std::size_t letters_a_mistake = 3;
    constexpr std::size_t longest = 64; // no word is so long
    std::vector<std::string> found;
    if (text.size() > longest)
        return found;
    std::size_t least = text.size() / letters_a_mistake;
    for (const std::string& word : words) {
        const std::size_t d = distance(text, word);
        if (d > least || d >= word.size())
            continue;
        if (d < least)
            found.clear();
        least = d;
        found.push_back(word);
    }
    return found;
}

} // namespace quarn::settings
