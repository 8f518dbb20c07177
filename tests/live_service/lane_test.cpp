// Outputs that are slow, stuck or away, and what becomes of records meanwhile.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "live/lane.h"
#include "live/record_file.h"

namespace quarn::live {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;

/// What a target of the tests shares with them; it may outlive its lane.
struct Door {
    std::mutex mutex;
    std::condition_variable moved;
    bool open = false;
    std::vector<std::string> taken;

    void set_open() {
        const std::lock_guard lock(mutex);
        open = true;
        moved.notify_all();
    }
};

/// Refuses records while the door is shut, or does not come back from taking one.
class Behind : public Target {
  public:
    Behind(std::shared_ptr<Door> door, bool waits) : door_(std::move(door)), waits_(waits) {}
    bool take(const Record& record) override {
        std::unique_lock lock(door_->mutex);
        if (waits_)
            door_->moved.wait(lock, [this] { return door_->open; });
        if (door_->open)
            door_->taken.push_back(record.text);
        return door_->open;
    }

  private:
    std::shared_ptr<Door> door_;
    bool waits_;
};

Record record(const std::string& text) {
    Record one;
    one.text = text;
    one.finding = true;
    return one;
}

TEST(Lane, keeps_as_much_as_fits_counts_the_rest_and_ends_in_time) {
    const auto door = std::make_shared<Door>();
    std::atomic<std::uint64_t> dropped = 0;
    {
        Lane records(std::make_unique<Behind>(door, false), 3, 1000, dropped);
        for (const char* text : {"a", "b", "c", "d", "e"})
            records.add(record(text));
        EXPECT_EQ(dropped, 2U);
        Lane bytes(std::make_unique<Behind>(std::make_shared<Door>(), false), 1000, 10, dropped);
        for (const char* text : {"1234567", "890", "1"})
            bytes.add(record(text));
        EXPECT_EQ(dropped, 3U);
        door->set_open();
    } // the other door stays shut
    EXPECT_THAT(door->taken, ElementsAre("a", "b", "c"));
    EXPECT_EQ(dropped, 5U);

    const auto stuck = std::make_shared<Door>();
    const auto begin = Clock::now();
    {
        Lane lane(std::make_unique<Behind>(stuck, true), 10, 1000, dropped);
        lane.add(record("a"));
        lane.add(record("b"));
    }
    EXPECT_LT(Clock::now() - begin, Lane::patience + Lane::longer + std::chrono::seconds(2));
    EXPECT_EQ(dropped, 7U);
    stuck->set_open(); // its thread comes back to memory that is still there
}

class RecordFileTest : public testing::Test {
  protected:
    RecordFileTest() { EXPECT_NE(::mkdtemp(folder_.data()), nullptr); }
    ~RecordFileTest() override { std::filesystem::remove_all(folder_); }
    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    std::string folder_ = testing::TempDir() + "records.XXXXXX";
};

/// Takes a record in parts, as pipes do, whoever comes and goes.
TEST_F(RecordFileTest, tears_no_record_in_a_pipe_and_waits_for_a_reader) {
    const std::string pipe = path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THROW(RecordFile(pipe, [] {}), std::system_error); // nobody reads
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    RecordFile file(pipe, [] {});
    const std::string big = std::string(100'000, 'x') + "\n"; // more than a pipe holds
    std::string came;
    std::vector<char> room(70'000);
    int tries = 0;
    while (!file.take(record(big)) && ++tries < 100) {
        const ssize_t n = ::read(reader, room.data(), room.size());
        came.append(room.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    EXPECT_GT(tries, 0);
    for (ssize_t n = 0; (n = ::read(reader, room.data(), room.size())) > 0;)
        came.append(room.data(), static_cast<std::size_t>(n));
    EXPECT_EQ(came, big);
    ::close(reader);
}

TEST_F(RecordFileTest, goes_on_in_a_new_file_or_in_the_old_one_where_there_is_no_new_one) {
    const auto content = [](const std::string& name) {
        std::ifstream in(name);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const std::string log = path("log");
    RecordFile file(log, [] {});
    EXPECT_TRUE(file.take(record("a\n")));
    ASSERT_EQ(::rename(log.c_str(), path("old").c_str()), 0);
    EXPECT_TRUE(file.take(record("b\n"))); // not yet told
    file.reopen();
    EXPECT_TRUE(file.take(record("c\n")));
    EXPECT_EQ(content(path("old")) + content(log), "a\nb\nc\n");
    ASSERT_EQ(::rename(log.c_str(), path("older").c_str()), 0);
    ASSERT_EQ(::mkdir(log.c_str(), 0700), 0); // in the way
    file.reopen();
    EXPECT_TRUE(file.take(record("d\n")));
    EXPECT_EQ(content(path("older")), "c\nd\n");
}

} // namespace
} // namespace quarn::live
