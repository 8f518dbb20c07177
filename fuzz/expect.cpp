// expect.cpp - what is expected of an input: a text that somebody edited is read or refused with a
// line about it, and what is written of an input is read as it was meant. The first byte says which
// of the two.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "measure/si_text.h"
#include "settings/expect_file.h"
#include "settings/words.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

using namespace quarn;

namespace {

void must(bool holds) {
    if (!holds)
        std::abort();
}

/// A file that only this process has.
class File {
  public:
    explicit File(const std::string& text) : fd_(::memfd_create("expect", MFD_CLOEXEC)) {
        must(fd_ >= 0);
        must(::write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    }
    ~File() { ::close(fd_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    std::string path() const { return "/dev/fd/" + std::to_string(fd_); }

  private:
    int fd_;
};

/// Beyond the end all is 0.
class Bytes {
  public:
    explicit Bytes(std::span<const std::uint8_t> bytes) : left_(bytes) {}
    std::span<const std::uint8_t> take(std::size_t most) {
        const auto taken = left_.first(std::min(most, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    std::uint64_t number(std::size_t bytes) {
        std::uint64_t value = 0;
        for (const std::uint8_t byte : take(bytes))
            value = value << 8U | byte;
        return value;
    }
    std::uint16_t pid() { return static_cast<std::uint16_t>(number(2) & 0x1FFFU); }
    std::uint8_t byte() { return static_cast<std::uint8_t>(number(1)); }
    bool more() const { return !left_.empty(); }

  private:
    std::span<const std::uint8_t> left_;
};

void read(const std::string& text) {
    if (text.find("@include") != std::string::npos)
        return; // others are no part of the input
    const File file(text);
    try {
        const Expectation expected = settings::read_expectation(file.path());
        must(!(expected == Expectation{}) && expected.bitrate_over > 0);
        for (const Expectation::Service& s : expected.services)
            must(s.number > 0 && s.pmt_pid.least <= s.pmt_pid.most);
    } catch (const settings::WrongValue& wrong) {
        must(std::string(wrong.what()).starts_with(file.path()));
    }
}

Observed::Rate rate(Bytes& bytes) {
    const auto least = static_cast<std::int64_t>(bytes.number(6));
    return {least, least + static_cast<std::int64_t>(bytes.number(5))};
}

StreamSummary stream(Bytes& bytes, Observed& observed) {
    StreamSummary s;
    s.pid = bytes.pid();
    s.kind = static_cast<StreamKind>(bytes.byte() % 7);
    s.codec = static_cast<Codec>(bytes.byte() % (static_cast<int>(Codec::private_data) + 1));
    if (const std::uint8_t letter = bytes.byte(); letter < 26)
        s.language = std::string(3, static_cast<char>('a' + letter));
    observed.rates.pids[s.pid] = rate(bytes);
    observed.scrambled[s.pid] = bytes.byte() % 2 == 1;
    return s;
}

ProgramSummary program(Bytes& bytes, Observed& observed) {
    ProgramSummary p;
    p.number = static_cast<std::uint16_t>(1 + bytes.number(2) % 0xFFFF);
    const std::size_t name = bytes.byte() % 253; // what a descriptor has room for
    p.name = si_text(bytes.take(name));
    p.pmt_pid = bytes.pid();
    if (const std::uint16_t pid = bytes.pid(); pid != 0x1FFF)
        p.pcr_pid = pid;
    observed.pmts[p.number] = {static_cast<Ticks>(bytes.number(4)), bytes.byte(), 0};
    observed.rates.programs[p.number] = rate(bytes);
    for (int n = bytes.byte() % 8; n > 0; --n)
        p.streams.push_back(stream(bytes, observed));
    return p;
}

void write(Bytes bytes) {
    Summary summary;
    Observed observed;
    summary.packets = 1;
    observed.rates.over = (1 + bytes.byte() % 10) * ticks_per_second;
    observed.rates.windows = bytes.byte();
    observed.rates.all = rate(bytes);
    const std::uint16_t pid = bytes.pid();
    observed.tables[{pid, bytes.byte()}] = {static_cast<Ticks>(bytes.number(5)), bytes.byte(), 0};
    while (bytes.more()) {
        ProgramSummary p = program(bytes, observed);
        if (std::none_of(summary.programs.begin(), summary.programs.end(),
                         [&](const ProgramSummary& other) { return other.number == p.number; }))
            summary.programs.push_back(std::move(p));
    }
    std::string text;
    try {
        text = settings::expectation_text("fuzz", summary, observed);
    } catch (const settings::WrongValue&) {
        return; // there is nothing to expect
    }
    const File file(text);
    must(settings::read_expectation(file.path()) == expectation_of(summary, observed));
}

} // namespace

// libconfig loses texts in front of what it refuses.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libconfig.so\n";
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::span<const std::uint8_t> rest{data + 1, size - 1};
    if (data[0] % 2 == 0)
        write(Bytes(rest));
    else
        read(std::string(rest.begin(), rest.end()));
    return 0;
}
