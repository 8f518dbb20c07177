// The other way: what an input was like, as a file that people read and edit.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "expect_file.h"
#include "reports/text.h"
#include "reports/words.h"
#include "words.h"

namespace quarn::settings {

namespace {

constexpr std::string_view head = R"(#
# A capture is held against it by     quarn-check --expect FILE CAPTURE
# and an input of quarn-live by       expect = "FILE";     in its configuration.
# What is not as it says is a finding of rule q.11.
#
# Edit it: what is taken out is not looked at.
#   numbers   can be ranges: pid = "256-300"; bitrate = "2M-"; (no end), "-4M", "any"
#   words     can be several: language = ["deu", "ger"]; or "any"; "none" is no language
#   optional = true;   behind a service, stream or table: it may be missing
#   other_services, other_streams: "none" makes a finding of each that is not listed
)";

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            (out += '\\') += c;
        else if (byte < 0x20 || byte == 0x7F) {
            std::array<char, 8> hex;
            std::snprintf(hex.data(), hex.size(), "\\x%02X", static_cast<unsigned>(byte));
            out += hex.data();
        } else
            out += c;
    }
    return out + "\"";
}

template <class List, class Word>
std::string list(const List& all, Word one) {
    if (all.empty())
        return "\"any\"";
    if (all.size() == 1)
        return quoted(one(all.front()));
    std::string text = "[";
    for (const auto& value : all)
        text += (text.size() > 1 ? ", " : "") + quoted(one(value));
    return text + "]";
}

std::string pid(const Range& range) {
    return range.one() ? std::to_string(range.least) : "\"any\"";
}

std::string bits(std::int64_t value) {
    constexpr std::int64_t mega = 1'000'000, kilo = 1'000;
    if (value >= mega && value % (mega / 10) == 0)
        return std::to_string(value / mega) +
               (value % mega == 0 ? "" : "." + std::to_string(value % mega / (mega / 10))) + "M";
    return value >= kilo && value % kilo == 0 ? std::to_string(value / kilo) + "k"
                                              : std::to_string(value);
}

std::string bitrate(const Range& range) {
    return range.any() ? "\"any\"" : "\"" + bits(range.least) + "-" + bits(range.most) + "\"";
}

std::string time(Ticks ticks) {
    if (ticks == 0)
        return "\"any\"";
    constexpr Ticks tenth = ticks_per_second / 10;
    if (ticks >= ticks_per_second && ticks % tenth == 0)
        return "\"" + std::to_string(ticks / ticks_per_second) +
               (ticks % ticks_per_second == 0
                    ? ""
                    : "." + std::to_string(ticks % ticks_per_second / tenth)) +
               " s\"";
    return "\"" + std::to_string(ticks / ticks_per_ms) + " ms\"";
}

std::string stream(const Expectation::Stream& s) {
    std::string text = "      { pid = " + pid(s.pid) + ";";
    text += " kind = " + list(s.kinds, [](StreamKind k) { return std::string(word(k)); }) + ";";
    text += " codec = " + list(s.codecs, [](Codec c) { return std::string(word(c)); }) + ";";
    if (!s.languages.empty())
        text += " language = " +
                list(s.languages,
                     [](const std::string& l) { return l.empty() ? std::string("none") : l; }) +
                ";";
    text += std::string("\n        scrambled = ") +
            (s.scrambled ? (*s.scrambled ? "true" : "false") : "\"any\"") + ";";
    return text + " bitrate = " + bitrate(s.bitrate) + "; }";
}

/// "( { ... }, { ... } )" over several lines.
template <class Items, class Text>
std::string groups(const Items& items, const char* indent, Text text) {
    std::string out = "(\n";
    for (std::size_t i = 0; i < items.size(); ++i)
        out += text(items[i]) + (i + 1 < items.size() ? ",\n" : "\n");
    return out + indent + ");\n";
}

std::string service(const Expectation::Service& s) {
    std::string text = "  {\n    number = " + std::to_string(s.number) + ";\n";
    if (!s.names.empty())
        text += "    name = " + list(s.names, [](const std::string& name) { return name; }) + ";\n";
    text += "    pmt_pid = " + pid(s.pmt_pid) + ";\n";
    text += "    pmt_interval = " + time(s.pmt_interval) + "; # the longest\n";
    text += "    pcr_pid = " + pid(s.pcr_pid) + ";\n";
    text += "    bitrate = " + bitrate(s.bitrate) + "; # of all its streams\n";
    text += "    streams = " + groups(s.streams, "    ", stream);
    return text + "    other_streams = \"any\";\n  }";
}

std::string table(const Expectation::Table& t) {
    std::array<char, 8> id;
    std::snprintf(id.data(), id.size(), "0x%02X", static_cast<unsigned>(t.id));
    return std::string("  # ") + table_name(t.id) + "\n  { table_id = " + id.data() +
           "; pid = " + pid(t.pid) + "; interval = " + time(t.interval) + "; }";
}

/// Programs that were announced, and no more.
std::string left_out(const Summary& summary) {
    std::string text;
    for (const ProgramSummary& p : summary.programs)
        if (p.streams.empty() && !p.pcr_pid)
            text += "# Left out: service " + std::to_string(p.number) + ", whose PMT (pid " +
                    std::to_string(p.pmt_pid) + ") did not come.\n";
    return text;
}

[[noreturn]] void failed(const std::string& path, int error) {
    throw WrongValue(path + ": " + std::generic_category().message(error));
}

/// The file itself, behind symbolic links.
std::string real_path(const std::string& path) {
    struct stat about {};
    if (::lstat(path.c_str(), &about) != 0) {
        if (errno == ENOENT)
            return path;
        failed(path, errno);
    }
    if (::stat(path.c_str(), &about) == 0 && !S_ISREG(about.st_mode))
        throw WrongValue(path + ": is no regular file; name one, or one that is not there yet");
    char* const real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr)
        failed(path, errno);
    std::string result = real;
    std::free(real);
    return result;
}

/// The new file beside the one that is to be.
struct Beside {
    explicit Beside(const std::string& path)
        : real(real_path(path)), name(real + "." + std::to_string(::getpid()) + ".new"),
          fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
        if (fd < 0)
            failed(path, errno);
    }
    const std::string real;
    const std::string name;
    const int fd;
};

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return ::fsync(fd) == 0 || errno == EINVAL || errno == EROFS;
}

} // namespace

std::string expectation_text(const std::string& input, const Summary& summary,
                             const Observed& observed) {
    const Expectation e = expectation_of(summary, observed);
    if (summary.packets == 0)
        throw WrongValue("there is nothing to expect: no packet came");
    if (summary.programs.empty())
        throw WrongValue("there is nothing to expect: no PAT came, or no program is in it");
    if (e.services.empty())
        throw WrongValue("there is nothing to expect: no PMT came");
    std::string text = "# What is expected of an input, as " + printable(input) + " was";
    text += summary.duration ? " for " + length_text(*summary.duration) + ".\n" : ".\n";
    text += head;
    text += left_out(summary) + "\n";
    text += "services = " + groups(e.services, "", service);
    text += "other_services = \"any\";\n\n";
    if (!e.tables.empty())
        text += "# At most from one section of a table to the next.\ntables = " +
                groups(e.tables, "", table) + "\n";
    text += "# Bits a second: means over so long, wider than they were.\n";
    text += "bitrate_over = " + time(e.bitrate_over) + ";\n";
    text += "bitrate = " + bitrate(e.bitrate) + "; # of the whole stream, null packets included\n";
    text += std::string("rate = \"") +
            (e.constant_rate ? (*e.constant_rate ? "constant" : "variable") : "any") + "\";\n";
    return text;
}

void check_expectation_place(const std::string& path) {
    const Beside beside(path);
    ::close(beside.fd);
    ::unlink(beside.name.c_str());
}

void write_expectation(const std::string& path, const std::string& text) {
    const Beside beside(path);
    const bool written = write_all(beside.fd, text);
    const int error = errno;
    const bool closed = ::close(beside.fd) == 0;
    if (written && closed && ::rename(beside.name.c_str(), beside.real.c_str()) == 0)
        return;
    const int why = written ? errno : error;
    ::unlink(beside.name.c_str());
    failed(path, why);
}

} // namespace quarn::settings
