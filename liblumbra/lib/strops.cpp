// Numbers with size suffixes, and line ends. Called by config.cpp and by hosts that read
// numbers from people. Owns nothing.
#include "strops.h"

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {
constexpr std::size_t NUMBER_MAX = 64; // number part with its NUL

struct size_suffix {
    const char* text;
    double multiplier;
};

// intended: powers of two in the "b" spellings too; a size means the same in all of them.
constexpr size_suffix suffixes[] = {
    {"K", 1024.0},     {"Kb", 1024.0},      {"M", 1048576.0},
    {"Mb", 1048576.0}, {"G", 1073741824.0}, {"Gb", 1073741824.0},
};
} // namespace

static const char* find_alpha(const char* str) {
    while (*str != '\0' && isalpha(static_cast<unsigned char>(*str)) == 0)
        ++str;
    return str;
}

static int convert(const char* number, double* out) {
    errno = 0;
    *out = strtod(number, nullptr);
    return errno != 0 ? NUM_CONV : 0;
}

static int multiplier_of(const char* suffix, double* out) {
    for (const size_suffix& known : suffixes) {
        if (strcasecmp(suffix, known.text) == 0) {
            *out = known.multiplier;
            return 0;
        }
    }
    return NUM_SUFFIX;
}

static int convert_with_suffix(const char* str, const char* suffix, double* out) {
    double multiplier;
    if (multiplier_of(suffix, &multiplier) != 0)
        return NUM_SUFFIX;
    char number[NUMBER_MAX];
    const auto len = static_cast<std::size_t>(suffix - str);
    if (len >= sizeof(number))
        return NUM_LENGTH;
    memcpy(number, str, len);
    number[len] = '\0';
    const int rc = convert(number, out);
    *out *= multiplier;
    return rc;
}

int a2double(const char* str, double* out) {
    assert(str);
    double value;
    const char* suffix = find_alpha(str);
    const int rc =
        *suffix == '\0' ? convert(str, &value) : convert_with_suffix(str, suffix, &value);
    if (rc != 0)
        return rc;
    if (out != nullptr)
        *out = value;
    return 0;
}

int a2int64(const char* str, std::int64_t* out) {
    constexpr double limit = 9223372036854775808.0;
    double value;
    const int rc = a2double(str, &value);
    if (rc != 0)
        return rc;
    if (value > limit || value < -limit)
        return NUM_RANGE;
    // The limit itself passes but is one more than the type holds.
    if (out != nullptr)
        *out = value == limit ? INT64_MAX : static_cast<std::int64_t>(value);
    return 0;
}

int a2size(const char* str, std::size_t* out) {
    double value;
    const int rc = a2double(str, &value);
    if (rc != 0)
        return rc;
    if (value > 2147483647.0 || value < -2147483648.0)
        return NUM_RANGE;
    if (out != nullptr)
        *out = static_cast<std::size_t>(static_cast<std::int32_t>(value));
    return 0;
}

void chomp(char* str) {
    std::size_t len = strlen(str);
    // intended: two characters are the longest line end there is; more are empty lines and stay.
    for (int i = 0; i < 2 && len > 0; ++i) {
        --len;
        if (str[len] != '\n' && str[len] != '\r')
            return;
        str[len] = '\0';
    }
}
