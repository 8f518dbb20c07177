// The processes behind the lines: their ends, what does not fit, their logs, their parent's end.
#include <cerrno>
#include <csignal>
#include <ctime>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "inputs.h"
#include "live/analyzer_worker.h"

namespace alert_lines {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Reason = AnalyzerEnd::Reason;

/// A programme of one stream whose counter breaks with each call.
ts::stream& broken_by(ts::stream& s, unsigned packets) {
    if (s.size() == 0)
        s.section(0, ts::pat_section({{1, 4096}}))
            .section(4096, ts::pmt_section(1, 256, {{0x1b, 256}}))
            .data(256);
    return s.lose(256, packets).data(256);
}

ts::stream broken(unsigned packets) {
    ts::stream s;
    broken_by(s, packets);
    return s;
}

/// Whether no child of this process is left, running or dead.
bool no_children() {
    return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

// ---- tables that end it
// --------------------------------------------------------------------------

std::vector<ts::program> programs(unsigned count) {
    std::vector<ts::program> list;
    for (unsigned i = 1; i <= count; ++i)
        list.push_back({i, 4096 + i});
    return list;
}

struct Deadly {
    const char* name;
    void (*add)(ts::stream&);
    const char* invariant;
};

void PrintTo(const Deadly& table, std::ostream* out) {
    *out << table.name;
}

const Deadly deadly_tables[] = {
    {"too_many_programs",
     [](ts::stream& s) {
         s.section(0, ts::pat_section(programs(32)));
         s.section(0, ts::pat_section(programs(33), {.version = 1}));
     },
     "MAX_PMTS"},
    {"no_programs", [](ts::stream& s) { s.section(0, ts::pat_section({})); }, "nprogs"},
    {"pmt_pid_0",
     [](ts::stream& s) {
         s.section(0, ts::pat_section({{1, 0}}));
     },
     "pmt_pid"},
    {"pcr_pid_0",
     [](ts::stream& s) {
         s.section(0, ts::pat_section({{1, 4096}}));
         s.section(4096, ts::pmt_section(1, 0, {{0x1b, 256}}));
     },
     "pcr_pid"},
};

class Tables : public StartsPrograms<testing::TestWithParam<Deadly>> {};
INSTANTIATE_TEST_SUITE_P(, Tables, testing::ValuesIn(deadly_tables),
                         [](const auto& table) { return std::string(table.param.name); });

TEST_P(Tables, EndOneAnalyzerAndNoOther) {
    Input quiet("quiet");
    Input hit("hit");
    const pid_t untouched = quiet.analyzer->pid();
    quiet.feed(broken(3).flat());

    ts::stream s;
    s.null(3);
    GetParam().add(s);
    const ts::packet last = s.packets().back();
    const std::size_t number = s.size();
    s.null(20);
    hit.feed(s.flat());
    ASSERT_TRUE(hit.ended(1));
    const AnalyzerEnd& end = hit.ends[0];
    EXPECT_EQ(end.reason, Reason::invariant) << end.text;
    EXPECT_THAT(end.text, testing::AllOf(HasSubstr("Assertion"), HasSubstr(GetParam().invariant)));
    EXPECT_THAT(end.packet, testing::ElementsAreArray(last));
    EXPECT_EQ(end.packet_index, number);
    EXPECT_EQ(WTERMSIG(end.status), SIGABRT);

    // What comes meanwhile is counted, what caused it is not analysed again, numbers go on.
    hit.feed(ts::stream().null(14).flat());
    EXPECT_EQ(hit.analyzer->unseen(), 2U);
    hit.now += second;
    hit.feed(broken(2).flat());
    EXPECT_EQ(hit.analyzer->unseen(), 3U) << "it is not there before tick()";
    ASSERT_TRUE(until([&] { return hit.analyzer->tick(hit.now), hit.analyzer->running(); }));
    hit.feed(broken(2).flat());
    hit.analyzer->end();
    EXPECT_EQ(hit.ends.size(), 1U);
    EXPECT_EQ(hit.analyzer->restarts(), 1U);
    const std::string tag = std::to_string(number + 3 * 7 + 4);
    EXPECT_THAT(hit.alerts(), ElementsAre("ALERT CC-BRK hit 256 0 3 0:0[" + tag + "]"));
    EXPECT_THAT(lines_with(read_file(hit.folder / "alerts"), "OWN-DROPS"),
                ElementsAre("STAT OWN-DROPS hit 3"));

    EXPECT_EQ(quiet.analyzer->pid(), untouched);
    quiet.analyzer->end();
    EXPECT_THAT(quiet.alerts(), ElementsAre("ALERT CC-BRK quiet 256 0 4 0:0[4]"));
    EXPECT_TRUE(no_children());
}

// ---- other ends, and the next start
// --------------------------------------------------------------

class Process : public StartsPrograms<> {};

TEST_F(Process, IsStartedAgainLaterAndLaterWhileItEndsAtOnce) {
    Input input("again");
    const std::int64_t waits[] = {1, 2, 4, 8, 16, 32, 60, 60};
    std::size_t ends = 0;
    for (const std::int64_t wait : waits) {
        const std::int64_t started = input.now;
        ::kill(input.analyzer->pid(), SIGSEGV);
        ASSERT_TRUE(input.ended(++ends));
        EXPECT_EQ(input.ends.back().reason, Reason::crash);
        EXPECT_THAT(input.ends.back().packet, testing::IsEmpty());
        input.now = started + wait * second - 1;
        input.analyzer->tick(input.now);
        EXPECT_FALSE(input.analyzer->running()) << wait;
        input.analyzer->tick(++input.now);
        EXPECT_TRUE(input.analyzer->running()) << wait;
    }
    // After a long run it is there again at once.
    input.now += 61 * second;
    ::kill(input.analyzer->pid(), SIGKILL);
    ASSERT_TRUE(input.ended(++ends));
    input.analyzer->tick(input.now);
    EXPECT_TRUE(input.analyzer->running());
}

TEST_F(Process, ThatHangsIsEnded) {
    Input input("hangs");
    input.feed(broken(1).flat());
    ASSERT_TRUE(input.logged("CC-BRK"));
    ::kill(input.analyzer->pid(), SIGSTOP);
    input.now += 20 * second;
    input.analyzer->tick(input.now); // nothing waits: all is well
    input.feed(broken(1).flat());
    input.now += 9 * second;
    input.analyzer->tick(input.now);
    EXPECT_TRUE(input.analyzer->running());
    input.now += second;
    ASSERT_TRUE(input.ended(1));
    EXPECT_EQ(input.ends[0].reason, Reason::hang);
}

TEST_F(Process, GivesUpWhatIsNoTransportStream) {
    Input input("noise");
    input.feed(Bytes(20 * datagram_size, 1));
    ASSERT_TRUE(input.ended(1));
    EXPECT_EQ(input.ends[0].reason, Reason::lost_sync);
    EXPECT_EQ(input.alerts().size(), 10U);
    EXPECT_THAT(lines_with(read_file(input.folder / "alerts"), "STAT GLOBAL"), testing::SizeIs(1));
}

TEST_F(Process, SaysWhyItCannotRun) {
    AnalyzerSettings settings;
    settings.alert_log = "/nowhere/alerts";
    Input input("log", settings);
    ASSERT_TRUE(input.ended(1));
    EXPECT_EQ(input.ends[0].reason, Reason::cannot_run);
    EXPECT_THAT(input.ends[0].text, HasSubstr("/nowhere/alerts"));
    EXPECT_THAT(input.said, HasSubstr("/nowhere/alerts"));
}

TEST_F(Process, DropsWhatItIsTooSlowForAndSaysSo) {
    Input input("slow");
    ASSERT_TRUE(input.taken());
    ::kill(input.analyzer->pid(), SIGSTOP);
    ts::stream s = broken(1);
    const Bytes first = s.flat();
    const std::size_t before = s.size();
    const Bytes all = s.null(datagram_size / 188 * 1000).flat();
    const Bytes rest(all.begin() + static_cast<std::ptrdiff_t>(before * 188), all.end());
    const auto give = [&](const Bytes& bytes) {
        for (std::size_t at = 0; at < bytes.size(); at += datagram_size)
            input.analyzer->datagram(
                std::span(bytes).subspan(at, std::min(datagram_size, bytes.size() - at)));
    };
    give(first);
    give(rest);
    const std::uint64_t dropped = input.analyzer->dropped();
    EXPECT_GT(dropped, 500U);
    EXPECT_LT(dropped, 700U);
    ::kill(input.analyzer->pid(), SIGCONT);
    ASSERT_TRUE(input.taken());
    input.analyzer->missing(4); // of the receiver
    broken_by(s, 2);
    input.feed(Bytes(s.packets().back().begin(), s.packets().back().end()));
    input.analyzer->end();
    EXPECT_THAT(lines_with(read_file(input.folder / "alerts"), "OWN-DROPS"),
                ElementsAre("STAT OWN-DROPS slow " + std::to_string(dropped + 4)));
    const std::string tag = std::to_string(before + 7000 + 4 * 7 + 1);
    EXPECT_THAT(input.alerts(), ElementsAre("ALERT CC-BRK slow 256 0 2 0:0[4]",
                                            "ALERT CC-BRK slow 256 2 5 0:0[" + tag + "]"));
    EXPECT_TRUE(input.ends.empty());
}

// ---- logs
// ----------------------------------------------------------------------------------------

class Logs : public StartsPrograms<> {};

TEST_F(Logs, AreRotatedBySizeAndKeepSoManyOfEarlierProcessesToo) {
    AnalyzerSettings settings;
    settings.log_size = 1 << 20;
    settings.log_files = 2;
    settings.log_daily = false;
    ASSERT_EQ(quarn::live::wrong_settings(settings), "");
    Input input("big", settings);
    ASSERT_TRUE(input.logged("") && input.taken());
    ::kill(input.analyzer->pid(), SIGKILL);
    for (const char* name : {"alerts.100", "alerts.300", "alerts.200", "alerts.x", "alerts.old.7"})
        std::ofstream(input.folder / name) << "older\n";
    ASSERT_TRUE(input.ended(1));
    input.now += second;
    input.analyzer->tick(input.now);
    ts::stream s = broken(1);
    constexpr std::size_t breaks = 16000; // 1.3 MB of lines
    for (std::size_t i = 1; i < breaks; ++i)
        broken_by(s, 1);
    input.feed(s.flat());
    input.analyzer->end();
    std::vector<std::string> names;
    std::size_t alerts = 0;
    for (const auto& entry : fs::directory_iterator(input.folder)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("alerts")) {
            names.push_back(name);
            alerts += lines_with(read_file(entry.path()), "CC-BRK").size();
        }
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("alerts", "alerts.100", "alerts.300",
                                                     "alerts.x", "alerts.old.7",
                                                     testing::MatchesRegex("alerts.[0-9]{10}")));
    EXPECT_EQ(alerts, breaks);
    EXPECT_TRUE(fs::exists(input.folder / "text")); // rotated as well
}

TEST_F(Logs, AreRotatedAtTheEndOfTheDayWithoutALine) {
    const time_t east = (86400 - time(nullptr) % 86400 + 86400 - 3) % 86400; // midnight in 3 s
    char zone[32];
    std::snprintf(zone, sizeof zone, "XXX-%02d:%02d:%02d", static_cast<int>(east / 3600),
                  static_cast<int>(east / 60 % 60), static_cast<int>(east % 60));
    setenv("TZ", zone, 1);
    Input input("day");
    setenv("TZ", "UTC0", 1);
    input.feed(broken(1).flat());
    ASSERT_TRUE(until([&] {
        input.analyzer->tick(input.now);
        return std::distance(fs::directory_iterator(input.folder), {}) == 4;
    }));
    EXPECT_THAT(read_file(input.folder / "alerts"), "");
}

TEST_F(Logs, AreOpenedAgain) {
    Input input("moved");
    input.feed(broken(1).flat());
    ASSERT_TRUE(input.logged("CC-BRK"));
    fs::rename(input.folder / "alerts", input.folder / "moved");
    fs::rename(input.folder / "text", input.folder / "moved.text");
    input.analyzer->reopen();
    ASSERT_TRUE(until([&] { return fs::exists(input.folder / "alerts"); }));
    ts::stream s = broken(1);
    broken_by(s, 4);
    input.feed(Bytes(s.packets().back().begin(), s.packets().back().end()));
    input.analyzer->end();
    EXPECT_THAT(lines_with(read_file(input.folder / "moved"), "ALERT"),
                ElementsAre("ALERT CC-BRK moved 256 0 2 0:0[4]"));
    EXPECT_THAT(input.alerts(), ElementsAre("ALERT CC-BRK moved 256 2 7 0:0[5]"));
    EXPECT_THAT(read_file(input.folder / "text"), HasSubstr("tsan_stats END"));
}

TEST(Settings, ThatCannotBeAreNamed) {
    AnalyzerSettings long_path;
    long_path.text_log = std::string(120, 'x');
    AnalyzerSettings one_file;
    one_file.alert_log = one_file.text_log = "/tmp/x";
    AnalyzerSettings small;
    small.log_size = 1000;
    AnalyzerSettings many;
    many.log_files = 128;
    for (const auto& [settings, word] :
         {std::pair(long_path, "alert_text_log"), std::pair(one_file, "one file"),
          std::pair(small, "alert_log_size"), std::pair(many, "1 to 127")})
        EXPECT_THAT(quarn::live::wrong_settings(settings), HasSubstr(word));
    tsan_config cfg{};
    const auto wrong = [&cfg](const char* file) {
        try {
            quarn::live::load_analyzer_file(file, cfg);
        } catch (const quarn::settings::WrongValue& why) {
            return std::string(why.what());
        }
        return std::string();
    };
    for (const auto& [text, word] :
         {std::pair("zbn = { x = 1; };", "zbn.stream_analyzer"), std::pair("zbn = {", "line 1: "),
          std::pair("zbn={stream_analyzer={};};", "enabled"),
          std::pair("zbn={stream_analyzer={enabled=true;"
                    "pcr_freq_ms=\"1Q\";};};",
                    "analyzer.conf, line 1, zbn.stream_analyzer.pcr_freq_ms: must be")}) {
        std::ofstream("analyzer.conf") << text;
        EXPECT_THAT(wrong("analyzer.conf"), HasSubstr(word)) << text;
    }
    fs::remove("analyzer.conf");
    EXPECT_THAT(wrong("/"), HasSubstr("directory"));
}

// ---- the parent
// ----------------------------------------------------------------------------------

class Parent : public StartsPrograms<> {};

TEST_F(Parent, ThatIsKilledTakesItsAnalyzersAlong) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t host = fork();
    if (host == 0) {
        Input one("one");
        Input two("two");
        one.feed(broken(1).flat());
        one.logged("CC-BRK");
        two.feed(broken(1).flat());
        two.logged("CC-BRK");
        for (const int signal : {SIGINT, SIGHUP, SIGTERM}) { // the terminal, a service manager
            ::kill(one.analyzer->pid(), signal);
            ::kill(two.analyzer->pid(), signal);
        }
        one.feed(broken(1).flat());
        const bool alive = one.taken() && one.ends.empty() && two.ends.empty();
        ::kill(getpid(), alive ? SIGKILL : SIGUSR1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(host, &status, 0), host);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_TRUE(until([&] {
        const pid_t done = waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(done <= 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
        return done < 0;
    }));
    int logs = 0;
    for (const auto& folder : fs::directory_iterator(fs::current_path()))
        if (folder.path().extension() == "." + std::to_string(host)) {
            EXPECT_THAT(read_file(folder.path() / "alerts"), HasSubstr("STAT GLOBAL"));
            EXPECT_THAT(read_file(folder.path() / "text"), HasSubstr("tsan_stats END"));
            fs::remove_all(folder.path());
            ++logs;
        }
    EXPECT_EQ(logs, 2);
}

} // namespace
} // namespace alert_lines

// The analyzers' processes are this executable, started again.
int main(int argc, char** argv) {
    if (quarn::live::is_analyzer_worker(argc, argv))
        return quarn::live::run_analyzer_worker();
    setenv("TZ", "UTC0", 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
