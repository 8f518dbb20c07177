// Rules on tables at their limits, as rows of "<time in ms>:<what comes>" and of what is found.
#include <algorithm>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "book.h"
#include "measure/repetition.h"

namespace quarn {
namespace {

SectionEvent section(std::uint16_t pid, std::uint8_t id, std::uint8_t number = 0) {
    SectionEvent s;
    s.pid = pid;
    s.table_id = id;
    s.number = number;
    s.extension = 1;
    return s;
}

const std::map<std::string, SectionEvent> words = {
    {"pat", section(0, 0)},       {"cat", section(1, 1)},          {"pmt", section(100, 2)},
    {"priv", section(100, 0xC0)}, {"nit", section(16, 0x40)},      {"nito", section(16, 0x41)},
    {"sdt", section(17, 0x42)},   {"sdt1", section(17, 0x42, 1)},  {"sdto", section(17, 0x46)},
    {"bat", section(17, 0x4A)},   {"eit0", section(18, 0x4E)},     {"eit1", section(18, 0x4E, 1)},
    {"eito0", section(18, 0x4F)}, {"eito1", section(18, 0x4F, 1)}, {"sch", section(18, 0x50)},
    {"far", section(18, 0x52)},   {"rst", section(19, 0x71)},      {"tdt", section(20, 0x70)},
    {"tot", section(20, 0x73)},   {"f0", section(0, 2)},           {"f1", section(1, 2)},
    {"f16", section(16, 0x42)},   {"f17", section(17, 0x80)},      {"f18", section(18, 0x42)},
    {"f19", section(19, 0x70)},   {"f20", section(20, 0x71)},      {"stuff", section(18, 0x72)},
};

ProgramsPtr programs(const std::vector<std::uint16_t>& numbers) {
    auto p = std::make_shared<Programs>();
    p->pat_in_force = true;
    for (const std::uint16_t n : numbers) {
        p->programs.push_back({n, 100, false, 256, {}, {}});
    }
    return p;
}

struct Played {
    Book book;
    Repetition tables;
    Played(const std::string& script, const Options& options, bool clock = true)
        : tables(options, book) {
        Steps steps(script);
        Place place;
        std::string what;
        place.time = clock ? 0 : no_time;
        tables.start(place);
        while (steps.next(place, what)) {
            if (!clock)
                place.time = no_time;
            take(what, place);
            if (what != "end")
                tables.advance(place);
        }
        tables.judge(book);
    }
    void take(std::string what, const Place& place) {
        if (what == "end")
            return tables.finish(place);
        if (what == "est")
            return;
        if (what == "on" || what == "off" || what == "two")
            return tables.programs(programs(what == "on"    ? std::vector<std::uint16_t>{1}
                                            : what == "two" ? std::vector<std::uint16_t>{1, 2}
                                                            : std::vector<std::uint16_t>{}),
                                   place);
        if (what == "seen")
            return tables.seen(100);
        const auto number = [&](std::size_t from) {
            return static_cast<std::uint16_t>(std::stoi(what.substr(from)));
        };
        if (what.starts_with("scr"))
            return tables.scrambled(number(3), place);
        if (what.starts_with("away")) // since then
            return tables.outage(Steps::at(what.substr(4)), place);
        if (what.starts_with("loss"))
            return tables.excuse(number(4), place, place);
        if (what.starts_with("burst")) // a second of everything, seen by two pids
            return tables.excuse(0, Steps::at("0"), place),
                   tables.excuse(256, Place{place.packet, 0, place.time - ticks_per_second}, place);
        SectionEvent s;
        Place begin = place;
        while (!words.contains(what) && !what.empty()) {
            s.crc_right = s.crc_right && what.back() != '!';
            s.version = what.back() == '+' ? 1 : s.version;
            what.pop_back();
        }
        const SectionEvent& word = words.at(what);
        const SectionEvent marks = s;
        s = word;
        s.crc_right = marks.crc_right;
        s.version = marks.version;
        tables.section(s, begin, place);
    }
};

struct Row {
    const char* name;
    const char* script;
    const char* found;
    Options options{};
};

void expect(const std::vector<Row>& rows) {
    for (const Row& row : rows)
        EXPECT_EQ(Played(row.script, row.options).book.found, row.found) << row.name;
}

Options profile(Profile p) {
    Options options;
    options.profile = p;
    options.limits = limits_of(p);
    return options;
}
Options dvb() {
    Options options;
    options.dvb = true;
    return options;
}

TEST(Repetition, PatAndPmt) {
    const Options segment = profile(Profile::segment);
    expect({
        {"at the limit", "0:pat 500:pat 1000:pat 1500:end", ""},
        {"a packet behind", "0:pat 500.04:pat 900:end", "1.3.a gap 0-500.04"},
        {"from the first packet", "500.04:pat 900:end", "1.3.a gap 0-500.04"},
        {"to the end", "0:pat 500.04:end", "1.3.a gap 0-500.04 open"},
        {"one run", "0:pat 600:pat 1200:pat 1900:pat 2000:pat 4000:end",
         "1.3.a gap 0-1900 x3; 1.3.a gap 2000-4000 open"},
        {"two gaps", "0:pat 600:pat 1000:pat 1600:pat 1700:end",
         "1.3.a gap 0-600; 1.3.a gap 1000-1600"},
        {"a wrong CRC counts as sent", "0:pat 400:pat! 800:pat 900:end", "2.2 400"},
        {"whatever its id", "0:pat 400:f0! 800:pat 900:end", "2.2 400"},
        {"never", "600:end", "1.3.a absent 0-600 open"},
        {"never, too short to tell", "500:end", ""},
        {"other ids", "0:pat 100:f0 200:pat 300:end", "1.3.a table_id 100"},
        {"scrambled", "0:pat 100:scr0 300:scr0 900:scr0 1000:pat 1100:end",
         "(1.3.a); 1.3.a scrambled 100-900 x3"},
        {"away", "0:pat 400:pat 1100:away900 1200:pat 1300:end", "(1.3.a)"},
        {"lost", "0:pat 400:pat 800:loss0 1200:pat 1300:end", "(1.3.a)"},
        {"lost on another pid", "0:pat 400:pat 800:loss5 1200:pat 1300:end", "1.3.a gap 400-1200"},
        {"more than was lost", "0:pat 400:pat 1000:loss0 2400:pat 2500:end", "1.3.a gap 400-2400"},
        {"told late", "0:pat 400:pat 1200:pat 1300:loss8191 1400:end", "1.3.a gap 400-1200"},
        {"segment", "0:pat 50:f0 60:scr0 900:pat 5000:end", "", segment},
        {"segment without", "5000:end", "1.3.a absent 0-5000 open", segment},
        {"an estimate opens no gap", "0:pat 400:pat 500:est 2000:pat 2500:end", ""},
        {"nor lengthens one", "0:pat 700:seen 700:est 2000:pat 2500:end", "1.3.a gap 0-2000"},
        {"PMT at the limit", "0:pat 0:on 500:pmt 500:pat 900:end", ""},
        {"PMT a packet behind", "0:pat 0:on 500.04:pmt 500:pat 900:end", "1.5.a gap 0-500.04 p1"},
        {"of two programs", "0:pat 0:two 100:pmt 601:pmt 500:pat 900:end",
         "1.5.a gap 100-601 p1 p2"},
        {"announced later", "0:pat 0:off 400:pat 400:on 900:pmt 900:pat 901:end", ""},
        {"other tables", "0:pat 0:on 100:pmt 200:priv 300:priv! 500:pat 601:end",
         "1.5.a gap 100-601 open p1"},
        {"PMT with a wrong id", "0:pat 0:on 100:pmt 550:f0 590:priv! 500:pat 601:end",
         "1.3.a table_id 550; 2.2 590 p1"},
        {"no packet", "0:pat 0:two 500:pat 600:end",
         "1.5.a absent 0-600 open p1; 1.5.a absent 0-600 open p2"},
        {"packets, but no PMT", "0:pat 0:on 300:seen 500:pat 600:end", "1.5.a gap 0-600 open p1"},
        {"not named any more", "0:pat 0:on 100:pmt 500:pat 500:off 900:pat 1200:end", ""},
        {"PMT scrambled", "0:pat 0:on 100:pmt 200:scr100 500:pat 700:pmt 800:end",
         "(1.5.a); 1.5.a scrambled 200-200 p1"},
    });
}

TEST(Repetition, ServiceInformation) {
    Options si; // no PAT is needed
    si.limits.pat = 100 * ticks_per_second;
    std::vector<Row> rows = {
        {"NIT", "100:nit 10100:nit 20100.04:nit 20200:end", "3.1.a gap 10100-20100.04"},
        {"NIT other", "100:nito 10100:nito 20100.04:nito 20200:end", "3.1.b gap 10100-20100.04"},
        {"SDT", "0:sdt 2000:sdt 4000.04:sdt 5000:end", "3.5.a gap 2000-4000.04"},
        {"SDT other", "0:sdto 10000:sdto 20000.04:sdto 20001:end", "3.5.b gap 10000-20000.04"},
        {"BAT", "0:bat 10000:bat 20000.04:bat 20001:end", "3.2 gap 10000-20000.04"},
        {"TOT", "0:tot 30000:tot 60000.04:tot 60001:end", "3.2 gap 30000-60000.04"},
        {"TDT", "0:tdt 30000:tdt 60000.04:tdt 60001:end", "3.8 gap 30000-60000.04"},
        {"schedule", "0:sch 10000:sch 20000.04:sch 20001:end", "3.2 gap 10000-20000.04"},
        {"schedule far", "0:far 30000:far 60000.04:far 60001:end", "3.2 gap 30000-60000.04"},
        {"each section", "0:sdt 100:sdt1 1900:sdt 3800:sdt 3900:sdt1 4000:end",
         "3.5.a gap 100-3900"},
        {"fewer sections", "0:sdt 100:sdt1 1900:sdt+ 3800:sdt+ 5000:end", ""},
        {"its end", "0:sdt 5000:end", "3.5.a gap 0-5000 open"},
        {"both EIT", "0:eit0 100:eit1 2000:eit0 2100:eit1 4100.04:eit0 4200:eit1 4300:end",
         "3.6.a gap 2100-4100.04"},
        {"both EIT away", "0:eit0 100:eit1 9000:eit0 9100:eit1 9200:end", "3.6.a gap 100-9000"},
        {"one EIT alone", "0:eit0 100:eit1 1500:eit0 3000:eit0 4500:eit0 4600:eit1 4700:end",
         "3.6.c gap 100-4600"},
        {"one EIT never", "0:eit0 1500:eit0 2000.04:eit0 2100:end", "3.6.c gap 0-2100 open"},
        {"one EIT other", "0:eito0 9000:eito0 10000.04:eito0 10100:end", "3.6.c gap 0-10100 open"},
        {"both EIT other", "0:eito0 0:eito1 10000.04:eito0 10000.04:eito1 10100:end",
         "3.6.b gap 0-10000.04"},
        {"25 ms", "0:sdt 25:sdt 49.96:sdt 60:end", "3.5.a too_fast 49.96"},
        {"25 ms of all that have it",
         "0:nit 1:nit 2:eit0 3:eit1 4:tdt 5:tdt 6:rst 7:rst 8:nito 9:nito 10:bat 11:bat 20:end",
         "3.1.a too_fast 1; 3.6.a too_fast 3; 3.8 too_fast 5; 3.7 too_fast 7"},
        {"other ids", "0:f16 1:sdt 2:f16 3:f17 4:f18 5:f19 6:f20 7:stuff 8:end",
         "3.1.a table_id 2; 3.5.a table_id 3; 3.6.a table_id 4; 3.7 table_id 5; 3.8 table_id 6"},
        {"other ids on the CAT's", "0:f1 1:cat 2:end", "2.6 table_id 0"},
        {"wrong CRC", "0:sdt 1900:sdt! 3800:sdt 3900:end", "2.2 1900"},
        {"wrong CRC of what was never seen", "0:sdt 1000:bat! 2000:sdt 3900:end", "2.2 1000"},
        {"private sections", "0:pat 0:on 1:pmt 2:priv 3:priv! 4:end", ""},
    };
    for (Row& row : rows)
        row.options = si;
    expect(rows);
    const Options all = dvb();
    expect({
        {"armed", "0:pat 400:pat 800:pat 1000:sdt 1200:pat 1600:pat 2000:pat 2001:end",
         "3.6.a gap 0-2001 open", all},
        {"come too late", "2000.04:sdt 2001:eit0 2001:eit1 2002:end",
         "3.5.a gap 0-2000.04; 3.6.a gap 0-2001; 3.6.a too_fast 2001; 1.3.a absent 0-2002 open",
         all},
    });
}

TEST(Repetition, Judged) {
    const auto answer = [](const char* script, const char* id, const Options& options = {},
                           bool clock = true) {
        return Played(script, options, clock).book.answers[id];
    };
    EXPECT_EQ(answer("0:pat 499:end", "1.3.a"), "no: shorter than its limit");
    EXPECT_EQ(answer("0:pat 500:end", "1.3.a"), "yes");
    EXPECT_EQ(answer("0:pat 900:end", "1.3.a", {}, false), "no: no clock");
    EXPECT_EQ(answer("0:pat 900:end", "1.3.a", profile(Profile::segment), false), "yes");
    EXPECT_EQ(answer("0:pat 900:end", "1.5.a"), "n/a");
    EXPECT_EQ(answer("0:pat 0:on 900:end", "1.5.a"), "yes");
    EXPECT_EQ(answer("900:end", "2.2"), "n/a");
    EXPECT_EQ(answer("0:pat 900:end", "2.2", {}, false), "yes");
    EXPECT_EQ(answer("0:sdt 1900:end", "3.5.a"), "no: shorter than its limit");
    EXPECT_EQ(answer("0:sdt 2000:end", "3.5.a"), "yes");
    EXPECT_EQ(answer("0:sdt 2000:end", "3.5.a", {}, false), "no: no clock");
    EXPECT_EQ(answer("0:sdt 2000:end", "3.7"), "yes");
    EXPECT_EQ(answer("0:sdt 2000:end", "3.1.a"), "n/a");
    EXPECT_EQ(answer("0:eit0 0:eit1 2000:end", "3.6.c"), "yes");
    EXPECT_EQ(answer("0:sdt 11000:end", "3.1.a", dvb()), "yes");
}

TEST(Repetition, PointsWithoutClock) {
    EXPECT_EQ(Played("0:pat 1:pat! 2:f0 9000:pat 9001:end", {}, false).book.found,
              "2.2 -1; 1.3.a table_id -1");
}

// Ever other sections: what is kept in mind stays bounded, what was seen before is still judged.
TEST(Repetition, EndlessSections) {
    Book book;
    const Options options;
    Repetition tables(options, book);
    for (unsigned i = 0; i < 3 * 40'000; ++i) {
        SectionEvent s = section(18, i % 3 == 0 ? 0x50 : i % 3 == 1 ? 0x4F : 0x4E);
        s.extension = static_cast<std::uint16_t>(i / 3);
        s.sub_table = i;
        const Place place = Steps::at(std::to_string(i / 1000.0));
        tables.section(s, place, place);
        tables.advance(place);
    }
    Place end = Steps::at("20000");
    tables.finish(end);
    EXPECT_NE(book.found.find("3.2 gap 0-20000 open"), std::string::npos);
    EXPECT_LT(std::count(book.found.begin(), book.found.end(), ';'), 40'000);
}

} // namespace
} // namespace quarn
