// Runs quarn-inject as users do, every kind of fault on the captures of samples/clean, and reads
// the results with a reader of its own: what must be damaged is, and what must not be is whole.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr std::size_t SIZE = 188;
constexpr int NULL_PID = 0x1FFF;

struct Outcome {
    int status;
    std::string text; // both outputs
};

Outcome inject(const std::string& arguments) {
    const std::string log = "inject.log";
    const int status = std::system((QUARN_INJECT " " + arguments + " >" + log + " 2>&1").c_str());
    std::ifstream file(log);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            {std::istreambuf_iterator<char>(file), {}}};
}

std::string bytes_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> captures() {
    std::vector<std::string> out;
    for (const auto& entry : fs::directory_iterator(CLEAN_CAPTURES)) {
        out.push_back(entry.path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> kinds() {
    std::istringstream lines(inject("--list").text);
    std::vector<std::string> out;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != ' ') {
            out.push_back(line.substr(0, line.find(' ')));
        }
    }
    return out;
}

unsigned at(const std::string& bytes, std::size_t i) {
    return static_cast<std::uint8_t>(bytes.at(i));
}

int pid_of(const std::string& bytes, std::size_t packet) {
    return static_cast<int>((at(bytes, packet + 1) & 0x1F) << 8 | at(bytes, packet + 2));
}

std::size_t payload_of(const std::string& bytes, std::size_t packet) {
    const unsigned control = at(bytes, packet + 3) >> 4 & 3;
    return control == 1   ? 4
           : control == 3 ? std::min(SIZE, std::size_t{5} + at(bytes, packet + 4))
                          : SIZE;
}

// The packets of each pid but null packets, in order.
std::map<int, std::string> by_pid(const std::string& bytes) {
    std::map<int, std::string> out;
    for (std::size_t p = 0; p + SIZE <= bytes.size(); p += SIZE) {
        if (pid_of(bytes, p) != NULL_PID) {
            out[pid_of(bytes, p)] += bytes.substr(p, SIZE);
        }
    }
    return out;
}

// Pids whose counters do not go up by one with each payload.
std::set<int> broken_counters(const std::map<int, std::string>& pids) {
    std::set<int> out;
    for (const auto& [pid, bytes] : pids) {
        int last = -1;
        for (std::size_t p = 0; p < bytes.size(); p += SIZE) {
            const int counter = static_cast<int>(at(bytes, p + 3) & 15);
            const int step = (at(bytes, p + 3) & 0x10) != 0 ? 1 : 0;
            if (last >= 0 && counter != ((last + step) & 15)) {
                out.insert(pid);
            }
            last = counter;
        }
    }
    return out;
}

bool crc_holds(const std::string& section) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char c : section) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool top = (crc >> 31) != (static_cast<unsigned>(c) >> bit & 1);
            crc = crc << 1 ^ (top ? 0x04C11DB7U : 0U);
        }
    }
    return crc == 0;
}

// Pids of tables with a section whose CRC is wrong, or that is not whole.
std::set<int> broken_sections(const std::map<int, std::string>& pids) {
    std::set<int> out;
    for (const auto& [pid, bytes] : pids) {
        if (pid >= 0x20 && (pid < 0x1000 || pid >= 0x1010)) {
            continue; // no table; PMTs of these captures are from 0x1000 on
        }
        std::string data; // sections one behind the other, each unit's stuffing cut off
        const auto finish = [&out, &data, pid = pid] {
            std::size_t s = 0;
            while (s < data.size() && at(data, s) != 0xFF) {
                const std::size_t end =
                    s + 2 < data.size() ? s + 3 + ((at(data, s + 1) & 15) << 8 | at(data, s + 2))
                                        : data.size() + 1;
                if (end > data.size() ||
                    (at(data, s) != 0x70 && !crc_holds(data.substr(s, end - s)))) {
                    out.insert(pid);
                    return;
                }
                s = end;
            }
        };
        bool begun = false;
        for (std::size_t p = 0; p < bytes.size(); p += SIZE) {
            std::size_t from = p + payload_of(bytes, p);
            if (from == p + SIZE) {
                continue;
            }
            if ((at(bytes, p + 1) & 0x40) != 0) {
                const std::size_t pointer = at(bytes, from++);
                if (begun) {
                    data += bytes.substr(from, pointer);
                    finish();
                }
                from += pointer;
                data.clear();
                begun = true;
            }
            data += bytes.substr(from, p + SIZE - from);
        }
        finish();
    }
    return out;
}

// What a kind may break. Kinds that are not listed break neither counters nor CRCs.
struct Harm {
    bool framing = false; // nothing but the truth is looked at
    bool counters = false;
    bool sections = false;
};

Harm harm_of(const std::string& kind) {
    static const std::map<std::string, Harm> HARMS{
        {"sync", {true}},
        {"garbled", {true}},
        {"cut", {true}},
        {"insert", {true}},
        {"truncate", {true}},
        {"head", {true}},
        {"join", {true}}, // tables change in the middle of theirs
        {"datagram", {false, true, true}},
        {"burst", {false, true, true}},
        {"duplicate_datagram", {false, true, true}},
        {"order_datagram", {false, true, true}},
        {"loss", {false, true}},
        {"loss_15", {false, true}},
        {"loss_16", {false, true}}, // packets without payload tell
        {"loss_many", {false, true}},
        {"loss_flood", {false, true}},
        {"repeat", {false, true}},
        {"repeat_twice", {false, true}},
        {"order", {false, true}},
        {"reset", {false, true}},
        {"flagged_break", {false, true}},
        {"frozen", {false, true}},
        {"pcr_jump_flagged", {false, true}},
        {"transport_error", {false, true}},
        {"off_air", {false, true, true}},
        {"crc", {false, false, true}},
    };
    const auto found = HARMS.find(kind);
    return found != HARMS.end() ? found->second : Harm{};
}

// Kinds that concern the pid of their record alone: every other pid stays as it was, byte for byte.
const std::set<std::string> ONE_PID{
    "loss",         "loss_15",     "loss_16",   "loss_many",       "loss_flood",    "repeat",
    "repeat_twice", "order",       "reset",     "flagged_break",   "frozen",        "pcr_gap",
    "pcr_flag",     "pcr_jitter",  "pcr_end",   "pts_offset",      "pts_jump",      "pts_video",
    "pts_drift",    "pts_late",    "pts_order", "pts_far",         "pts_missing",   "stop",
    "pause",        "pause_short", "never",     "transport_error", "unreferenced",  "table_gap",
    "eit_half",     "table_often", "psi_often", "absent",          "psi_scrambled", "new_version",
    "bits"};

void check_patterns(const Json& patterns, std::uint64_t packets) {
    for (const Json& pattern : patterns) {
        EXPECT_TRUE(pattern.at("rule").is_string());
        const auto& begin = pattern.at("begin");
        EXPECT_LE(1, begin.at(0)) << pattern;
        EXPECT_LE(begin.at(0), begin.at(1)) << pattern;
        EXPECT_LE(begin.at(1), packets) << pattern;
        if (const Json& end = pattern.at("end"); !end.is_null()) {
            EXPECT_LE(begin.at(0), end.at(1)) << pattern;
            EXPECT_LE(end.at(1), packets) << pattern;
        }
    }
}

Json truth_of(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(file.peek(), EOF) << "one fault, one line";
    return Json::parse(line);
}

void check_fault(const std::string& kind, const std::string& clean, const std::string& bad,
                 const Json& truth) {
    EXPECT_EQ(truth.at("schema"), "quarn-truth/1");
    EXPECT_EQ(truth.at("kind"), kind);
    const auto packet = truth.at("packet").get<std::uint64_t>();
    const auto byte = truth.at("byte").get<std::uint64_t>();
    const std::uint64_t packets = (bad.size() + SIZE - 1) / SIZE;
    EXPECT_LE(1U, packet);
    EXPECT_LE(packet, packets);
    check_patterns(truth.at("must"), packets);
    check_patterns(truth.at("may"), packets);
    EXPECT_NE(bad, clean);
    const Harm harm = harm_of(kind);
    if (harm.framing) {
        return;
    }
    EXPECT_EQ(bad.size() % SIZE, 0U);
    EXPECT_EQ(byte, (packet - 1) * SIZE);
    for (std::size_t p = 0; p < bad.size(); p += SIZE) {
        ASSERT_EQ(bad[p], 'G') << "packet " << p / SIZE + 1;
    }
    const auto before = by_pid(clean);
    const auto after = by_pid(bad);
    if (!harm.counters) {
        EXPECT_EQ(broken_counters(after), std::set<int>{});
    }
    if (!harm.sections) {
        EXPECT_EQ(broken_sections(after), std::set<int>{});
    }
    if (ONE_PID.contains(kind)) {
        for (const auto& [pid, bytes] : before) {
            if (pid != truth.at("pid")) {
                EXPECT_TRUE(after.contains(pid) && after.at(pid) == bytes) << "pid " << pid;
            }
        }
    }
}

// Each test in a directory of its own: they run at the same time.
class Inject : public testing::Test {
  protected:
    void SetUp() override {
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all("inject." + name);
        fs::create_directory("inject." + name);
        fs::current_path("inject." + name);
    }
    void TearDown() override { fs::current_path(".."); }
};

TEST_F(Inject, EveryKindDoesWhatItsTruthSaysAndNothingElse) {
    for (const std::string& clean : captures()) {
        const auto pids = by_pid(bytes_of(clean));
        ASSERT_EQ(broken_counters(pids), std::set<int>{}) << clean;
        ASSERT_EQ(broken_sections(pids), std::set<int>{}) << clean;
    }
    std::size_t count = 0;
    for (const std::string& kind : kinds()) {
        SCOPED_TRACE(kind);
        int placed = 0;
        for (int seed = 1; seed <= 2; ++seed) {
            for (const std::string& clean : captures()) {
                if (seed > 1 && placed > seed) {
                    break;
                }
                const std::string command =
                    "--seed " + std::to_string(seed) + " --fault " + kind + " " + clean + " ";
                const Outcome outcome = inject(command + "bad.ts");
                ASSERT_TRUE(outcome.status == 0 || outcome.status == 2) << command << outcome.text;
                if (outcome.status != 0) {
                    continue;
                }
                SCOPED_TRACE(command);
                ++placed;
                const std::string bad = bytes_of("bad.ts");
                check_fault(kind, bytes_of(clean), bad, truth_of("bad.ts.truth.jsonl"));
                if (seed == 1) {
                    EXPECT_EQ(inject(command + "again.ts").status, 0);
                    EXPECT_TRUE(bytes_of("again.ts") == bad);
                    EXPECT_EQ(bytes_of("again.ts.truth.jsonl"), bytes_of("bad.ts.truth.jsonl"));
                }
            }
        }
        EXPECT_GT(placed, 0);
        ++count;
    }
    EXPECT_GT(count, 60U);
}

// Places and values that the command line names are taken, not drawn; several faults share a
// capture, in order of place.
TEST_F(Inject, TakesPlacesAndValuesFromTheCommandLine) {
    const std::string clean = captures().front();
    ASSERT_EQ(inject("--fault loss:count=5,pid=257@8 --fault pcr_gap:ms=300@6 " + clean + " two.ts")
                  .status,
              0);
    std::ifstream file("two.ts.truth.jsonl");
    std::vector<Json> truth;
    for (std::string line; std::getline(file, line);) {
        truth.push_back(Json::parse(line));
    }
    ASSERT_EQ(truth.size(), 2U);
    EXPECT_EQ(truth[0].at("kind"), "pcr_gap");
    EXPECT_NEAR(truth[0].at("time_s").get<double>(), 6, 0.1);
    EXPECT_EQ(truth[1].at("pid"), 257);
    EXPECT_NEAR(truth[1].at("time_s").get<double>(), 8, 0.3);
    EXPECT_EQ(truth[1].at("must").at(0).at("detail").at("lost").at("in"), Json({5}));
    const auto before = by_pid(bytes_of(clean)).at(257).size();
    EXPECT_EQ(by_pid(bytes_of("two.ts")).at(257).size(), before - 5 * SIZE);
}

TEST_F(Inject, SaysWhatIsWrongAndWhatWouldBeRight) {
    std::ofstream("no.ts") << std::string(SIZE * 10, 'x');
    std::ofstream("short.ts") << bytes_of(captures().front()).substr(0, 5 * SIZE + 7);
    std::ofstream("null.ts") << "";
    const std::string clean = captures().front();
    ASSERT_EQ(inject("--fault pat_sections " + clean + " packed.ts").status, 0);
    const struct {
        std::string arguments;
        int status;
        std::vector<std::string> words;
    } cases[] = {
        {"--help", 0, {"--fault", "--seed", "--list"}},
        {"", 3, {"IN and OUT"}},
        {"--fault los " + clean + " o.ts", 3, {"'los'", "loss,", "pcr_gap", "truncate"}},
        {"--fault loss:cnt=3 " + clean + " o.ts", 3, {"cnt=3", "count=1..14", "pid=any"}},
        {"--fault sync:x=1 " + clean + " o.ts", 3, {"x=1", "none"}},
        {"--fault loss:count " + clean + " o.ts", 3, {"count=1..14"}},
        {"--fault loss:count=0 " + clean + " o.ts", 3, {"count=0", "from 1 to"}},
        {"--fault loss:count=many " + clean + " o.ts", 3, {"count=many", "a number"}},
        {"--fault loss@soon " + clean + " o.ts", 3, {"loss@soon", "12.5"}},
        {"--seed -1 " + clean + " o.ts", 3, {"--seed"}},
        {"--fault loss none.ts o.ts", 3, {"none.ts", "No such file"}},
        {"--fault loss " + clean + " away/o.ts", 3, {"away/o.ts", "No such file"}},
        {"--fault loss no.ts o.ts", 3, {"no.ts", "packet 1", "0x47", "188-byte"}},
        {"--fault loss short.ts o.ts", 3, {"inside packet 6"}},
        {"--fault loss null.ts o.ts", 3, {"PAT and PMT"}},
        {"--fault loss short.ts short.ts", 3, {"same file"}},
        {"--fault loss@1000 " + clean + " o.ts", 2, {"loss", "ends after"}},
        {"--fault loss:pid=77 " + clean + " o.ts", 2, {"pid=77", "video, audio or a pid"}},
        {"--fault crc:table=bat " + clean + " o.ts", 2, {"table=bat", "pat, cat, pmt, nit"}},
        {"--fault table_change:table=pat packed.ts o.ts", 2, {"shares its packets"}},
        {"--fault table_gap:table=pat packed.ts o.ts", 2, {"shares its packets"}},
    };
    for (const auto& c : cases) {
        const Outcome outcome = inject(c.arguments);
        EXPECT_EQ(outcome.status, c.status) << c.arguments << outcome.text;
        for (const std::string& word : c.words) {
            EXPECT_NE(outcome.text.find(word), std::string::npos)
                << c.arguments << ": no \"" << word << "\" in: " << outcome.text;
        }
    }
    EXPECT_FALSE(fs::exists("o.ts"));
}

} // namespace
