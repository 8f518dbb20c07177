#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files.h"

namespace quarn::inputs {
namespace {

using namespace std::string_literals;

class Open : public Files {};

TEST_F(Open, what_is_no_transport_stream_is_named_for_what_it_is) {
    const struct {
        std::string bytes;
        const char* outcome;
    } cases[] = {
        {"", "empty: empty"},
        {"\0\0\0\x18"s + "ftypisom" + std::string(500, 'G'), "not_ts: an MP4 file"},
        {std::string(2000, '\0'), "not_ts: nothing but zero bytes"},
        {"GET / HTTP/1.1\n", "not_ts: text"},
        {"Gr\xC3\xBC\xC3\x9F"
         "e\n" +
             std::string(3000, 'G'),
         "not_ts: text"},
        {" <!DOCTYPE html>", "not_ts: a web page"},
        {"#EXTM3U\n#EXT-X-VERSION:3\n", "not_ts: an HLS playlist"},
        {"\x1F\x8B\x08", "not_ts: compressed with gzip"},
        {std::string(257, 'x') + "ustar", "not_ts: a tar archive"},
        {"\x01\x02\x03\xFF", "not_ts: shorter than one packet"},
        {std::string(188, '\xAA'), "not_ts: binary data"},
        {"\xD4\xC3\xB2\xA1", "unreadable: a pcap that cannot be read: truncated"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(outcome(file({c.bytes.begin(), c.bytes.end()})).substr(0, std::strlen(c.outcome)),
                  c.outcome);
    EXPECT_EQ(outcome(directory_), "directory: a directory: name the files in it");
    EXPECT_EQ(outcome(path("none")), "not_found: no such file");
    EXPECT_EQ(outcome(file({}) + "/none"), "not_found: no such file");
    if (geteuid() != 0) {
        chmod(file({1}, "locked").c_str(), 0);
        EXPECT_EQ(outcome(path("locked")), "unreadable: cannot be read: Permission denied");
    }
    EXPECT_EQ(outcome("/proc/self/mem"), "unreadable: cannot be read: Input/output error");
}

// Larger than what is read at once, with a hole that is longer than what is held back.
TEST_F(Open, files_and_pipes_of_any_size_read_the_same) {
    Capture capture;
    capture.packets(3000).cut(50).packets(2000).junk(1'500'000, 0x46).packets(1000).cut(20);
    const std::string told = "0-2998 missing(563812-563950:50) 3000-4999 "
                             "inserted(939950-2439950:136) 5000-5998 truncated(2627762:168)";
    EXPECT_EQ(outcome(file(capture.bytes)), told);

    EXPECT_EQ(through_pipe(capture.bytes), told);

    const int saved = dup(STDIN_FILENO);
    const int fd = ::open(path("file").c_str(), O_RDONLY);
    dup2(fd, STDIN_FILENO);
    EXPECT_EQ(outcome("-"), told);
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(fd);
}

} // namespace
} // namespace quarn::inputs
