// Packets around findings of a live input: which of them are in the files, and what happens when
// the disk is slow.
#include "cuts/live_cuts.h"

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>

#include <gmock/gmock.h>

namespace quarn::cuts {
namespace {

namespace fs = std::filesystem;
constexpr Ticks ms = ticks_per_ms;
constexpr std::size_t size = Blocks::packet_size;

/// An empty directory, gone with the test.
struct Directory {
    fs::path path = fs::temp_directory_path() / ("quarn-cuts-" + std::to_string(::getpid()));
    Directory() { fs::create_directory(path); }
    ~Directory() { fs::remove_all(path); }
};

/// An input whose packets have their numbers in them.
struct Source {
    std::shared_ptr<Writer> writer;
    std::optional<LiveCuts> cuts;
    std::vector<Ticks> arrivals = {0}; // by number, from 1
    Ticks now = 0;

    explicit Source(
        const Settings& settings, std::function<void(std::string_view)> tell =
                                      [](std::string_view text) { ADD_FAILURE() << text; })
        : writer(std::make_shared<Writer>(std::move(tell))),
          cuts(std::in_place, settings, "a", writer) {}

    /// Behind it all files are written.
    void end() {
        cuts->end();
        cuts.reset();
        writer.reset();
    }
    void packets(std::size_t count, Ticks apart) {
        for (std::size_t i = 0; i < count; ++i) {
            now += apart;
            std::array<std::uint8_t, size> packet{};
            const std::uint64_t number = arrivals.size();
            std::memcpy(packet.data(), &number, sizeof number);
            cuts->packet(packet.data(), number, now);
            arrivals.push_back(now);
        }
    }
    std::uint64_t last() const { return arrivals.size() - 1; }
    Ticks arrival(std::uint64_t number) const { return arrivals[static_cast<std::size_t>(number)]; }
    /// A finding that is decided now.
    std::optional<Where> finds(std::uint64_t begin, std::uint64_t end) {
        Finding finding;
        finding.shape = begin == end ? Shape::point : Shape::interval;
        finding.begin.packet = begin;
        finding.end.packet = end;
        return cuts->take(finding, 1'700'000'000'000'000);
    }
};

std::vector<std::uint64_t> numbers_in(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<std::uint64_t> numbers;
    std::array<char, size> packet{};
    while (in.read(packet.data(), size))
        std::memcpy(&numbers.emplace_back(), packet.data(), sizeof(std::uint64_t));
    EXPECT_EQ(in.gcount(), 0) << file << " ends inside a packet";
    return numbers;
}

struct Found {
    std::uint64_t begin, end;
    Where where;
};

void check(const Found& found, const Source& source, Ticks around) {
    const auto numbers = numbers_in(found.where.file);
    ASSERT_GE(numbers.size(), found.where.packet);
    for (std::size_t i = 1; i < numbers.size(); ++i)
        ASSERT_EQ(numbers[i], numbers[i - 1] + 1) << found.where.file;
    EXPECT_EQ(numbers[static_cast<std::size_t>(found.where.packet) - 1], found.begin);
    EXPECT_TRUE(numbers.front() == 1 ||
                source.arrival(numbers.front()) <= source.arrival(found.begin) - around)
        << found.begin << " begins " << numbers.front();
    EXPECT_TRUE(numbers.back() == source.last() ||
                source.arrival(numbers.back() + 1) >= source.arrival(found.end) + around)
        << found.end << " ends " << numbers.back();
}

/// Whatever the rate, its bursts and pauses, and in whatever order findings are decided: each has
/// its packets and as much as was asked for on both sides.
TEST(LiveCuts, HaveAllPacketsAroundFindings) {
    for (unsigned seed = 0; seed < 30; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 dice(seed);
        const auto roll = [&](unsigned from, unsigned to) {
            return std::uniform_int_distribution<unsigned>(from, to)(dice);
        };
        const Directory directory;
        const double seconds = seed % 3;
        Source source({directory.path, seconds, 1000, 1U << 30U, 16U << 20U});
        std::vector<Found> all;
        for (int i = 0; i < 60; ++i) {
            source.packets(roll(1, 800), roll(0, 3) == 0 ? 20 * ms : ms / 2);
            if (roll(0, 9) == 0) { // a pause
                for (unsigned t = roll(1, 30); t > 0; --t)
                    source.cuts->tick(source.now += 250 * ms);
            }
            for (unsigned n = roll(0, 2); n > 0; --n) {
                std::uint64_t begin = source.last() - roll(0, 500) % source.last();
                while (source.arrival(begin) < source.now - 3000 * ms && begin < source.last())
                    ++begin;
                const std::uint64_t end =
                    std::min(source.last(), begin + roll(0, 1) * roll(0, 400));
                if (source.arrival(begin) < source.now - 3000 * ms)
                    continue;
                const auto where = source.finds(begin, end);
                ASSERT_TRUE(where) << begin;
                all.push_back({begin, end, *where});
            }
        }
        source.end();
        for (const Found& found : all)
            check(found, source, static_cast<Ticks>(seconds * ticks_per_second));
    }
}

/// Files and bytes are never more than allowed, the first findings have them, and that is said
/// once.
TEST(LiveCuts, KeepToTheirLimits) {
    const struct {
        std::uint64_t files, bytes;
        const char* why;
    } rows[] = {
        {3, 1U << 30U, "there are 3 files, and no more are allowed (cut_files)"},
        {100, 1'000'000, "bytes, and of the 1000000 bytes that are allowed "},
        {100, 2000, "of the 2000 bytes that are allowed 0 are used (cut_bytes)"},
    };
    for (const auto& [files, bytes, why] : rows) {
        const Directory directory;
        Source source({directory.path, 0.5, files, bytes, 1U << 20U});
        std::vector<bool> have;
        std::vector<std::string> remarks;
        for (int i = 0; i < 10; ++i) {
            source.packets(20'000, ms);
            have.push_back(source.finds(source.last(), source.last()).has_value());
            if (const std::string remark = source.cuts->remark(); !remark.empty())
                remarks.push_back(remark);
        }
        source.end();
        EXPECT_TRUE(std::is_sorted(have.rbegin(), have.rend())) << "a later one instead";
        EXPECT_EQ(have.front(), bytes > 2000);
        EXPECT_FALSE(have.back());
        EXPECT_THAT(remarks, testing::ElementsAre(testing::HasSubstr(why)));
        std::uintmax_t all = 0, count = 0;
        for (const auto& entry : fs::directory_iterator(directory.path)) {
            all += entry.file_size();
            ++count;
        }
        EXPECT_LE(all, bytes);
        EXPECT_LE(count, files);
    }
}

/// A cut that was taken away while it was written is lost, which is told.
TEST(LiveCuts, MissWhatIsTakenAway) {
    std::vector<std::string> told;
    Directory directory;
    Source source({directory.path, 0.5, 100, 1U << 30U, 1U << 20U},
                  [&](std::string_view text) { told.emplace_back(text); });
    source.packets(1000, ms);
    const auto cut = source.finds(900, 900);
    ASSERT_TRUE(cut);
    for (int i = 0; !fs::exists(cut->file) && i < 20'000; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    fs::remove_all(directory.path);
    source.packets(1000, ms);
    source.cuts->end();
    EXPECT_FALSE(source.writer->end());
    EXPECT_THAT(told, testing::ElementsAre("cut " + cut->file + ": was removed while it was open"));
}

/// Holds the thread that writes as a disk does that hangs: what cannot be written is told, and
/// telling takes long.
class Hanging {
  public:
    void tell(std::string_view text) {
        std::unique_lock lock(mutex_);
        told_.emplace_back(text);
        hangs_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return released_; });
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return hangs_; });
    }
    void release() {
        const std::lock_guard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    std::vector<std::string> told() {
        const std::lock_guard lock(mutex_);
        return told_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool hangs_ = false, released_ = false;
    std::vector<std::string> told_;
};

/// While the disk hangs the input goes on, and what was cut out then is given up; afterwards all is
/// as before.
TEST(LiveCuts, GoOnWhileTheDiskHangs) {
    const Directory directory;
    const fs::path missing = directory.path / "later";
    Hanging hanging;
    Source source({missing, 0.5, 100, 1U << 30U, 1U << 20U},
                  [&](std::string_view text) { hanging.tell(text); });
    source.packets(1000, ms);
    const auto first = source.finds(500, 500); // cannot be written
    hanging.wait();
    fs::create_directory(missing);
    std::optional<Where> second;
    for (int i = 0; i < 100; ++i) { // much more than the memory has
        if (i == 20)
            second = source.finds(source.last(), source.last());
        source.packets(1000, ms / 10);
        if (i > 20 && i % 10 == 0) // nothing is kept: there is nothing to cut out
            source.finds(source.last(), source.last());
    }
    hanging.release();
    ASSERT_TRUE(first && second);
    for (int i = 0; source.writer->failures() < 2 && i < 20'000; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(source.writer->failures(), 2U);
    source.packets(5000, ms);
    const auto third = source.finds(source.last(), source.last());
    const std::uint64_t third_packet = source.last();
    source.packets(5000, ms);
    source.end();
    EXPECT_THAT(hanging.told(),
                testing::Contains(testing::HasSubstr("No such file or directory; it is given up")));
    EXPECT_THAT(hanging.told(), testing::Contains(testing::HasSubstr("the disk is too slow")));
    const auto cut_short = numbers_in(second->file);
    ASSERT_FALSE(cut_short.empty());
    for (std::size_t i = 1; i < cut_short.size(); ++i)
        ASSERT_EQ(cut_short[i], cut_short[i - 1] + 1);
    ASSERT_TRUE(third);
    check({third_packet, third_packet, *third}, source, 500 * ms);
}

} // namespace
} // namespace quarn::cuts
