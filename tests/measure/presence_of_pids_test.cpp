// Scrambled streams and pids that no table names, as rows of what comes and what is found.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "book.h"
#include "measure/scrambling.h"
#include "measure/unreferenced.h"

namespace quarn {
namespace {

// Streams on these pids, PCRs on 258, ECMs on 259, EMMs on 260.
ProgramsPtr tables(const std::vector<std::uint16_t>& pids, bool all = true) {
    auto p = std::make_shared<Programs>();
    p->pat_in_force = p->cat_in_force = true;
    p->cat_pids = {260};
    p->network_pid = 261;
    Program program{1, 100, all, 258, {}, {259}};
    for (const std::uint16_t pid : pids)
        program.streams.push_back({pid, 0x1B, StreamKind::video, Codec::h264, "", false, true});
    p->programs.push_back(program);
    return p;
}

struct Row {
    const char* name;
    const char* script;
    const char* found;
    const char* answer;
};

// The tables of a row: "on" names 256 and 257, "one" only 256, "half" has no PMT.
ProgramsPtr tables_of(const std::string& word) {
    return word == "one" ? tables({256}) : tables({256, 257}, word == "on");
}

TEST(Scrambling, Rows) {
    // "s256" and "c256": becomes scrambled, clear; "256": packets of it since the last step.
    const Row rows[] = {
        {"nothing", "0:on 0:c256 500:256 3000:256 3000:end", "", "n/a"},
        {"with a CAT",
         "0:on 0:cat 0:s256 900:256 1900:cat 2000:256 3000:256 3800:cat 4000:256 4500:end",
         "q.6 0 p1", "yes"},
        {"a packet too far before",
         "0:on 0:cat 0:c256 1000.04:s256 1000.04:256 2500:c256 2500:256 4000:end",
         "q.6 1000.04 p1; q.6 2500 p1; 2.6 absent 1000.04-1000.04 p1 256", "yes"},
        {"at the limit", "0:on 0:cat 0:c256 1000:s256 1000:256 1000:c256 1000:256 4000:end",
         "q.6 1000 p1; q.6 1000 p1", "yes"},
        {"a packet too far behind",
         "0:on 0:c256 1500:s256 1500:256 1500:c256 1500:256 2500.04:cat 4000:end",
         "q.6 1500 p1; q.6 1500 p1; 2.6 absent 1500-1500 p1 256", "yes"},
        {"near enough behind",
         "0:on 0:c256 1500:s256 1500:256 1500:c256 1500:256 2500:cat 4000:end",
         "q.6 1500 p1; q.6 1500 p1", "yes"},
        {"never a CAT, two pids",
         "0:on 0:s256 0:s257 100:256 100:257 2000:256 2000:257 3000:256 4000:end",
         "q.6 0 p1; q.6 0 p1; 2.6 absent 0-3000 p1 256 257", "yes"},
        {"a CAT before the input may be near", "0:on 0:s256 300:256 1350:cat 1400:256 2000:end",
         "q.6 0 p1", "yes"},
        {"too short", "0:on 0:s256 300:256 900:256 900:end", "q.6 0 p1",
         "no: shorter than its limit"},
        {"named later", "0:s256 300:256 500:cat 600:on 700:256 1400:cat 1500:end", "q.6 0 p1",
         "yes"},
        {"no stream", "0:on 0:s400 300:400 3000:400 3000:end", "", "yes"},
        {"to and fro", "0:on 0:c256 200:s256 300:c256 300:256 400:cat 1500:end",
         "q.6 200 p1; q.6 300 p1", "yes"},
    };
    const Options options;
    for (const Row& row : rows) {
        Book book;
        Scrambling rule(options, book);
        std::map<std::string, Place> last;
        Steps steps(row.script);
        Place place;
        std::string what;
        while (steps.next(place, what)) {
            if (what == "on") {
                rule.programs(tables_of(what), place);
            } else if (what == "cat") {
                SectionEvent cat;
                cat.pid = cat.table_id = 1;
                rule.section(cat, place);
            } else if (what == "end") {
                rule.finish(place);
            } else if (what[0] == 's' || what[0] == 'c') {
                const std::string pid = what.substr(1);
                const bool first = last.try_emplace(pid, place).second;
                rule.scrambling(
                    {static_cast<std::uint16_t>(std::stoi(pid)), first, what[0] == 's', {}},
                    last[pid], place);
            } else {
                rule.seen(static_cast<std::uint16_t>(std::stoi(what)), last[what], place);
                last[what] = place;
                rule.advance(place);
            }
        }
        rule.judge(book);
        EXPECT_EQ(book.found, row.found) << row.name;
        EXPECT_EQ(book.answers["2.6"], row.answer) << row.name;
    }
}

TEST(Unreferenced, Rows) {
    // "300-500": packets of pid 300 from 500 ms to now.
    const Row rows[] = {
        {"at the limit", "0:on 501:300-1 2000:end", "", "yes"},
        {"a packet behind", "0:on 501.04:300-1 2000:end", "3.4.a 1-501.04", "yes"},
        {"from where the tables are there", "0:half 300:on 600:300-0 800.04:300-650 2000:end", "",
         "yes"},
        {"over steps, to the end", "0:on 400:300-100 800:300-500 1000:end", "3.4.a 100-1000 open",
         "yes"},
        {"named", "0:on 900:256-1 900:258-1 900:259-1 900:260-1 900:261-1 900:100-1 1000:end", "",
         "yes"},
        {"of tables", "0:on 900:0-1 900:18-1 900:31-1 900:8187-1 900:8191-1 1000:end", "", "yes"},
        {"just above them", "0:on 900:32-1 2000:end", "3.4.a 1-900", "yes"},
        {"named in time", "0:one 400:257-1 450:on 900:257-401 1000:end", "", "yes"},
        {"named too late", "0:one 600:257-1 650:on 900:257-601 1000:end", "3.4.a 1-600", "yes"},
        {"no longer named", "0:on 400:257-1 400:one 900:257-401 1400:257-901 2000:end",
         "3.4.a 401-1400", "yes"},
        {"two stays", "0:on 600:300-1 7000:300-6000 9000:end", "3.4.a 1-600; 3.4.a 6000-7000",
         "yes"},
        {"no PMT", "0:half 900:300-1 1000:end", "", "no: not all tables came"},
        {"too short", "0:on 499:300-0 499:end", "", "no: shorter than its limit"},
    };
    const Options options;
    for (const Row& row : rows) {
        Book book;
        Unreferenced rule(options, book);
        Steps steps(row.script);
        Place place;
        std::string what;
        while (steps.next(place, what)) {
            if (what == "end") {
                rule.finish(place);
            } else if (const auto dash = what.find('-'); dash != std::string::npos) {
                rule.seen(static_cast<std::uint16_t>(std::stoi(what)),
                          Steps::at(what.substr(dash + 1)), place);
                rule.advance(place);
            } else {
                rule.programs(tables_of(what), place);
            }
        }
        rule.judge(book);
        EXPECT_EQ(book.found, row.found) << row.name;
        EXPECT_EQ(book.answers["3.4.a"], row.answer) << row.name;
    }
}

} // namespace
} // namespace quarn
