#include "config_text.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <limits>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "words.h"

namespace quarn::settings {

namespace {

constexpr int deepest_include = 8;
constexpr std::size_t largest = 16 << 20; // bytes of a file
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

std::string why(int error) {
    return std::generic_category().message(error);
}

std::string read_all(const std::string& path) {
    struct stat about {};
    if (::stat(path.c_str(), &about) != 0)
        throw WrongValue(path + ": " + why(errno));
    if (S_ISDIR(about.st_mode))
        throw WrongValue(path + ": is a directory; name a file");
    // A named pipe may have nobody who ever writes. That of a shell's <(...) has.
    const bool piped = path.starts_with("/dev/fd/") || path == "/dev/stdin";
    if (!S_ISREG(about.st_mode) && !(piped && S_ISFIFO(about.st_mode)))
        throw WrongValue(path + ": is no regular file");
    std::ifstream in(path, std::ios::binary);
    std::string text;
    std::vector<char> block(1 << 16);
    while (in && text.size() <= largest) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (text.size() > largest)
        throw WrongValue(path + ": has over 16 MiB; that is no configuration");
    if (!in.eof())
        throw WrongValue(path + ": " + why(errno == 0 ? EIO : errno));
    if (text.find('\0') != std::string::npos)
        throw WrongValue(path + ": is no text, there are bytes of 0 in it");
    return text;
}

/// Where a text ends: behind all that began in it, or inside of something that began in `line`.
struct Ending {
    enum class In { nothing, line_comment, comment, quotes };
    In in = In::nothing;
    int line = 0;
};

/// Hands out what is neither comment nor text in quotes, with its line; a comment is one blank, a
/// text one quote.
template <class Take>
Ending scan(std::string_view text, Take&& take) {
    using In = Ending::In;
    int line = 1;
    const auto past = [&](std::size_t length, In in) {
        if (length > text.size())
            return Ending{in, line};
        const auto end = text.begin() + static_cast<std::ptrdiff_t>(length);
        line += static_cast<int>(std::count(text.begin(), end, '\n'));
        text.remove_prefix(length);
        return Ending{};
    };
    const auto behind = [&](std::string_view closing) {
        const std::size_t at = text.find(closing, 2);
        return at == std::string_view::npos ? text.size() + 1 : at + closing.size();
    };
    Ending ending;
    while (!text.empty() && ending.in == In::nothing) {
        if (text.front() == '"') {
            take('"', line);
            std::size_t i = 1;
            while (i < text.size() && text[i] != '"')
                i += text[i] == '\\' ? 2 : 1;
            ending = past(i + 1, In::quotes);
        } else if (text.front() == '#' || text.starts_with("//")) {
            take(' ', line);
            const std::size_t end = text.find('\n');
            ending = past(end == std::string_view::npos ? text.size() + 1 : end, In::line_comment);
        } else if (text.starts_with("/*")) {
            take(' ', line);
            ending = past(behind("*/"), In::comment);
        } else {
            take(text.front(), line);
            past(1, In::nothing);
        }
    }
    return ending;
}

/// libconfig keeps the lower 32 bits of a whole number without L, and of one with L whatever
/// becomes of it.
bool is_kept(std::string_view number) {
    const bool wide = number.ends_with('L');
    while (number.ends_with('L'))
        number.remove_suffix(1);
    if (number.starts_with('+'))
        number.remove_prefix(1);
    const bool hex = number.starts_with("0x") || number.starts_with("0X");
    if (hex)
        number.remove_prefix(2);
    std::int64_t value = 0;
    const char* const end = number.data() + number.size();
    const auto [rest, wrong] = std::from_chars(number.data(), end, value, hex ? 16 : 10);
    if (rest != end || wrong == std::errc::invalid_argument)
        return true; // no whole number
    using Narrow = std::numeric_limits<std::int32_t>;
    return wrong == std::errc{} && (wide || (value >= Narrow::min() && value <= Narrow::max()));
}

void check_text(const std::string& text, const std::string& path, bool included) {
    std::string word; // name or number
    int begins = 0;
    const auto refuse = [&](int line, const std::string& what) {
        throw WrongValue(path + ", line " + std::to_string(line) + ": " + what);
    };
    const auto check_word = [&] {
        if (!is_kept(word))
            refuse(begins, word + " is out of range; whole numbers are from -2147483648 to "
                                  "2147483647, or end with L and have 64 bits");
        word.clear();
    };
    const Ending ending = scan(text, [&](char c, int line) {
        const bool of_word = std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                             std::string_view("+-_.*").find(c) != std::string_view::npos;
        if (!of_word)
            return check_word();
        if (word.empty())
            begins = line;
        word += c;
    });
    check_word();
    if (ending.in == Ending::In::comment)
        refuse(ending.line, "a comment begins there with /* and has no end");
    if (ending.in == Ending::In::quotes)
        refuse(ending.line, "a text in quotes begins there and has no end");
    if (ending.in == Ending::In::line_comment && included)
        refuse(ending.line, "a comment at the end of an included file needs a line end behind it");
    if (included && text.starts_with(byte_order_mark))
        refuse(1, "begins with a byte order mark; save it as UTF-8 without one");
}

/// The library ends the process when it includes what cannot be read, so that is tried before.
void check_includes(const std::string& text, const std::string& path, int depth) {
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const std::size_t at = line.find_first_not_of(" \t");
        if (at == std::string::npos || line.compare(at, 8, "@include") != 0)
            continue;
        const std::string where = path + ", line " + std::to_string(number) + ": @include";
        if (depth == deepest_include)
            throw WrongValue(where + ": more than " + std::to_string(deepest_include) +
                             " files deep");
        const std::size_t open = line.find('"', at);
        const std::size_t close = open == std::string::npos ? open : line.find('"', open + 1);
        if (close == std::string::npos)
            throw WrongValue(where + ": needs a file in quotes");
        const std::string included = line.substr(open + 1, close - open - 1);
        try {
            const std::string its_text = read_all(included);
            check_includes(its_text, included, depth + 1);
            check_text(its_text, included, true);
        } catch (const WrongValue& wrong) {
            throw WrongValue(where + ": " + wrong.what());
        }
    }
}

} // namespace

std::string config_text(const std::string& path) {
    std::string text = read_all(path);
    if (text.starts_with(byte_order_mark))
        text.erase(0, byte_order_mark.size());
    check_includes(text, path, 0);
    check_text(text, path, false);
    return text;
}

bool comma_before_closing(const std::string& text, int line) {
    char last = ' '; // what is no blank and no comment
    bool found = false;
    scan(text, [&](char c, int at) {
        found = found || (at == line && last == ',' && (c == ')' || c == ']'));
        if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
            last = c;
    });
    return found;
}

} // namespace quarn::settings
