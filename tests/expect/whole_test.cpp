// Expectations as their users have them: quarn-check writes one from a capture, somebody edits it,
// and what quarn-inject has done to the capture is held against it.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

std::string text_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Outcome run(const std::string& command) {
    const int status = std::system((command + " >out 2>err").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text_of("out"), text_of("err")};
}

Outcome check(const std::string& arguments) {
    return run(QUARN_CHECK " " + arguments);
}

void inject(const std::string& faults, const std::string& from, const std::string& to) {
    const Outcome o = run(QUARN_INJECT " --seed 1 " + faults + " " + from + " " + to);
    ASSERT_EQ(o.status, 0) << faults << o.err;
}

std::string sample(const std::string& name) {
    return std::string(CLEAN_CAPTURES) + "/" + name + "-small.ts";
}

struct Edit {
    std::string from;
    std::string to;
};

void edit(const std::string& path, const std::vector<Edit>& edits) {
    std::string text = text_of(path);
    for (const Edit& e : edits) {
        const std::size_t at = text.find(e.from);
        ASSERT_NE(at, std::string::npos) << e.from << " is not in\n" << text;
        text.replace(at, e.from.size(), e.to);
    }
    std::ofstream(path, std::ios::binary) << text;
}

// What was found that is unexpected, a line each, how long it lasts left out; "[1.5.a]" where that
// was found, and the row where it is not `yes`.
std::string found(const std::string& json) {
    std::vector<std::string> lines;
    std::istringstream in(json);
    for (std::string line; std::getline(in, line);) {
        const Json record = Json::parse(line);
        if (record.at("type") == "finding" && record.at("rule") == "1.5.a")
            lines.emplace_back("[1.5.a]\n");
        if (record.at("type") == "finding" && record.at("rule") == "q.11") {
            std::string text = record.at("text");
            if (const auto end = text.find(" It lasts"); end != std::string::npos)
                text.erase(end);
            if (const auto time = text.find(" for "); time != std::string::npos)
                text.erase(time);
            lines.push_back(text + "\n");
            EXPECT_EQ(record.at("severity"), "error");
            EXPECT_EQ(record.at("detail").at("changes").size(), 1U);
        }
        if (record.at("type") == "summary")
            for (const Json& row : record.at("rules"))
                if (row.at("rule") == "q.11" && row.at("judged") != "yes")
                    lines.push_back("row: " + row.at("why").get<std::string>() + "\n");
    }
    std::sort(lines.begin(), lines.end());
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

class Expect : public testing::Test {
  protected:
    void SetUp() override {
        directory_ = fs::temp_directory_path() / ("quarn-expect-" + std::to_string(::getpid()));
        fs::create_directories(directory_);
        before_ = fs::current_path();
        fs::current_path(directory_);
    }
    void TearDown() override {
        fs::current_path(before_);
        fs::remove_all(directory_);
    }
    fs::path directory_, before_;
};

struct Case {
    const char* name;
    const char* capture;
    const char* was; // faults of what the expectation is written from
    std::vector<Edit> edits;
    const char* is; // faults of what is held against it
    const char* expected;
};

TEST_F(Expect, FindsWhatWasDoneToTheCapture) {
    const std::string scrambled = "--fault scramble_all:cat=1";
    const std::vector<Case> cases = {
        {"the same, constant rate", "cbr-two", "", {}, "", ""},
        {"the same, one picture", "cbr-hevc", "", {}, "", ""},
        {"the same, variable rate", "vbr", "", {}, "", ""},
        {"the same, all scrambled",
         "cbr-two",
         "--fault scramble_all:cat=1",
         {},
         "--fault scramble_all:cat=1",
         ""},
        {"a service goes",
         "cbr-two",
         "",
         {},
         "--fault pat_remove:programme=1,packets=drop@6",
         "Service 1 \"Alpha\" is missing.\n"},
        {"a service that may",
         "cbr-two",
         "",
         {{"number = 1;", "number = 1; optional = true;"}},
         "--fault pat_remove:programme=1,packets=drop@6",
         ""},
        {"a service that nobody has heard of",
         "vbr",
         "",
         {{"other_services = \"any\"", "other_services = \"none\""}},
         "--fault pat_add@6",
         "Service 2 is there, which is not expected.\n"},
        {"a service that is announced only", "cbr-two", "", {}, "--fault pat_ghost@6", ""},
        {"the same where it is expected",
         "cbr-two",
         "",
         {{"number = 2;", "number = 2; }, { number = 3; pmt_interval = \"2 s\"; }, { number = 4; "
                          "optional = true;"}},
         "--fault pat_ghost@6",
         "Service 3 is missing.\n[1.5.a]\n"},
        {"a stream goes",
         "cbr-two",
         "",
         {},
         "--fault pmt_remove:packets=drop,pid=257@6",
         "Pid 257 (audio mp2) of service 1 \"Alpha\" is missing.\n"},
        {"a stream that may",
         "cbr-two",
         "",
         {{"{ pid = 257;", "{ pid = 257; optional = true;"}},
         "--fault pmt_remove:packets=drop,pid=257@6",
         ""},
        {"a stream comes",
         "vbr",
         "--fault pmt_remove:packets=drop,pid=257@6",
         {{"other_streams = \"any\"", "other_streams = \"none\""}},
         "",
         "Pid 257 (audio aac) of service 1 \"Alpha\" is there, which is not expected.\n"},
        {"a stream moves",
         "cbr-two",
         "",
         {},
         "--fault pmt_move:pid=257@6",
         "Audio mp2, pid 257, of service 1 \"Alpha\" is now on pid 512.\n"},
        {"to where it may",
         "cbr-two",
         "",
         {{"{ pid = 257;", "{ pid = \"257-\";"}},
         "--fault pmt_move:pid=257@6",
         ""},
        {"another language",
         "cbr-two",
         "--fault pmt_language:pid=257,to=deu@3",
         {},
         "--fault pmt_language:pid=257,to=fra@3",
         "Pid 257 was audio deu, now fra (service 1 \"Alpha\").\n"
         "Pid 257 was audio deu, now without language (service 1 \"Alpha\").\n"},
        {"of several",
         "cbr-two",
         "",
         {{"language = \"none\"", "language = [\"none\", \"fra\"]"}},
         "--fault pmt_language:pid=257,to=fra@3",
         ""},
        {"another codec",
         "cbr-two",
         "",
         {},
         "--fault pmt_type:pid=256@6",
         "Pid 256 was video h264, now hevc (service 1 \"Alpha\").\n"},
        {"no longer scrambled",
         "cbr-two",
         "--fault scramble_all:cat=1",
         {{"  { table_id = 0x01;", "  { table_id = 0x01; optional = true;"}},
         "",
         "Pid 256 was scrambled, now clear (service 1 \"Alpha\").\n"
         "Pid 257 was scrambled, now clear (service 1 \"Alpha\").\n"
         "Pid 258 was scrambled, now clear (service 2 \"Beta\").\n"
         "Pid 259 was scrambled, now clear (service 2 \"Beta\").\n"},
        {"scrambled for a while",
         "cbr-two",
         "",
         {},
         "--fault scramble:cat=1,pid=259,seconds=3@6",
         "Pid 259 was clear, now scrambled (service 2 \"Beta\").\n"},
        {"for a moment", "cbr-two", "", {}, "--fault scramble:cat=1,pid=259,seconds=0.6@6", ""},
        {"half of the bit rate",
         "cbr-two",
         "",
         {},
         "--fault thin:pid=256@4",
         "Bit rate of pid 256 (program 1 \"Alpha\") below 95.0 kbit/s"},
        {"half of it at a variable rate",
         "vbr",
         "",
         {},
         "--fault thin:pid=256@6",
         "Bit rate of pid 256 (program 1 \"Alpha\") below 91.0 kbit/s"},
        {"twice the bit rate",
         "cbr-two",
         "",
         {{"bitrate = \"320k-640k\"", "bitrate = \"200k-250k\""}},
         "",
         "Bit rate of the whole stream above 250 kbit/s"},
        {"which may be",
         "cbr-two",
         "",
         {{"bitrate = \"95k-220k\"", "bitrate = \"any\""},
          {"bitrate = \"110k-", "bitrate = \"1k-"}},
         "--fault thin:pid=256@4",
         ""},
        {"a table stops",
         "cbr-two",
         "",
         {{"pid = 17; interval = \"3.7 s\"", "pid = 17; interval = "
                                             "\"600 ms\""}},
         "",
         "The SDT of this stream (0x42) on pid 17 does not come\n"},
        {"another name",
         "cbr-two",
         "",
         {{"name = \"Beta\"", "name = [\"Gamma\", \"Delta\"]"}},
         "",
         "Service 2 is called \"Beta\", not \"Gamma\".\n"},
        {"other pids",
         "cbr-two",
         "",
         {{"pmt_pid = 4097", "pmt_pid = \"5000-\""}, {"pcr_pid = 258", "pcr_pid = 259"}},
         "",
         "The PCR of service 2 \"Beta\" was on pid 259, now 258.\n"
         "The PMT of service 2 \"Beta\" was on pid 5000 or higher, now 4097.\n"},
        {"rate",
         "cbr-two",
         "",
         {{"rate = \"constant\"", "rate = \"variable\""}},
         "",
         "The rate of the stream was variable, now constant.\n"},
        {"too short for its means",
         "cbr-two",
         "",
         {{"bitrate_over = \"3 s\"", "bitrate_over = \"30 s\""}},
         "",
         "row: shorter than its limit\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string clean = sample(c.capture);
        std::string was = clean, is = clean;
        if (*c.was != '\0')
            inject(c.was, clean, was = "was.ts");
        if (*c.is != '\0')
            inject(c.is, clean, is = "is.ts");
        ASSERT_NE(check("--write-expect file.expect " + was).status, 3) << text_of("err");
        edit("file.expect", c.edits);
        const Outcome o = check("--json --expect file.expect " + is);
        const std::string got = found(o.out);
        const std::string expected = c.expected;
        if (expected.ends_with("below") || expected.ends_with("kbit/s"))
            EXPECT_TRUE(got.starts_with(expected)) << got;
        else
            EXPECT_EQ(got, expected) << o.err;
        EXPECT_EQ(o.status == 1, got.find(' ') != std::string::npos && !got.starts_with("row"))
            << got;
    }
}

// Nothing is half written, and what cannot be a measure is refused.
TEST_F(Expect, WritesAllOrNothing) {
    std::ofstream("old.expect") << "old";
    const std::string clean = sample("cbr-two");
    inject("--fault absent:table=pat", clean, "no-pat.ts");
    fs::create_directory("directory");
    fs::create_symlink("target.expect", "link.expect");
    std::ofstream("target.expect") << "old";
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"--write-expect old.expect no-pat.ts", "no PAT came"},
        {"--write-expect nowhere/x " + clean, "nowhere/x: No such file or directory"},
        {"--write-expect directory " + clean, "is no regular file"},
        {"--write-expect /dev/full " + clean, "is no regular file"},
        {"--write-expect old.expect " + clean + " " + clean, "name one FILE"},
        {"--write-expect - " + clean, "\"-\" is no file"},
        {"--expect nowhere.expect " + clean, "nowhere.expect: No such file"},
        {"--expect directory " + clean, "is a directory"},
    };
    for (const auto& [arguments, message] : refused) {
        const Outcome o = check("--quiet " + arguments);
        EXPECT_EQ(o.status, 3) << arguments;
        EXPECT_NE(o.err.find(message), std::string::npos) << arguments << ": " << o.err;
    }
    EXPECT_EQ(text_of("old.expect"), "old");
    // A disk that is full in the middle of it.
    const Outcome full = run("bash -c \"ulimit -f 1; trap '' XFSZ; " QUARN_CHECK
                             " --quiet --write-expect old.expect " +
                             clean + "\"");
    EXPECT_EQ(full.status, 3) << full.err;
    EXPECT_EQ(text_of("old.expect"), "old");
    EXPECT_EQ(check("--quiet --write-expect link.expect " + clean).status, 0);
    EXPECT_TRUE(fs::is_symlink("link.expect"));
    EXPECT_NE(text_of("target.expect").find("services = ("), std::string::npos);
    std::size_t left = 0;
    for (const auto& entry : fs::directory_iterator("."))
        left += entry.path().string().find(".new") != std::string::npos ? 1 : 0;
    EXPECT_EQ(left, 0U);
}

} // namespace
