// Sections over packets, tables in force, what they say and what changes in them.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "measure/packet.h"
#include "measure/sections.h"
#include "measure/si_text.h"
#include "measure/stream_kind.h"
#include "measure/tables.h"
#include "ts_builder.h"

namespace quarn {
namespace {

using ts::bytes;

bytes operator+(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bytes text(const char* s) {
    return {s, s + std::char_traits<char>::length(s)};
}

std::string words(const ElementaryStream& s) {
    std::string out = std::to_string(s.pid) + " " + std::string(word(s.codec));
    return s.language.empty() ? out : out + " " + s.language;
}

std::string words(const Programs& programs) {
    std::string out = programs.pat_in_force ? "pat" : "none";
    if (programs.network_pid)
        out += " net " + std::to_string(*programs.network_pid);
    for (const std::uint16_t pid : programs.cat_pids)
        out += " cat " + std::to_string(pid);
    for (const Program& p : programs.programs) {
        out += "; " + std::to_string(p.number) + "@" + std::to_string(p.pmt_pid);
        if (p.pmt_in_force)
            out += " pcr " + std::to_string(p.pcr_pid);
        for (const ElementaryStream& s : p.streams)
            out += ", " + words(s) + (s.scrambled ? " ca" : "");
    }
    return out;
}

std::string words(const TableChange& c) {
    static const char* const ops[] = {"+", "-", ">", "~"};
    static const char* const whats[] = {"program", "stream",  "pcr",       "pmt",
                                        "service", "network", "descriptor"};
    std::string out = std::string(ops[static_cast<int>(c.op)]) + whats[static_cast<int>(c.what)];
    if (c.number)
        out += " " + std::to_string(*c.number);
    if (c.pid)
        out += " " + std::to_string(*c.pid);
    return out + " [" + c.before.value_or("") + "|" + c.after.value_or("") + "]";
}

// Feeds packets and keeps the events as words.
struct Follower : EventSink {
    void event(const At& at, EventBody&& body) override {
        if (const auto* s = std::get_if<SectionEvent>(&body)) {
            sections += (sections.empty() ? "" : " ") + std::to_string(s->begin.index) + "-" +
                        std::to_string(at.index) + ":" + std::to_string(s->table_id) +
                        (s->crc_right ? "" : "!");
        } else if (const auto* c = std::get_if<TableChangedEvent>(&body)) {
            log.push_back(c->version_unchanged ? "q.5" : "q.4");
            for (const std::uint16_t p : c->programs)
                log.back() += " " + std::to_string(p);
            for (const TableChange& change : c->changes)
                log.back() += ", " + words(change);
        } else {
            log.push_back(words(*std::get<ProgramsEvent>(body).programs));
            EXPECT_EQ(tables.current(), std::get<ProgramsEvent>(body).programs);
        }
    }
    void packet(const ts::packet& bytes_of) {
        const Packet p(bytes_of.data());
        tables.feed({index++, 0}, p.pid(), p.payload(), p.unit_start());
    }
    Follower& feed(const ts::stream& s) {
        for (const ts::packet& p : s.packets())
            packet(p);
        return *this;
    }

    Tables tables{*this};
    std::uint64_t index = 0;
    std::string sections;
    std::vector<std::string> log;
};

bytes sized(std::size_t size, unsigned id = 0x42) { // a section of that many bytes
    return ts::make_section(id, 1, {}, bytes(size - 12, 0x55));
}
bytes flipped(bytes section, std::size_t at, std::uint8_t mask = 1) {
    section[at] ^= mask;
    return section;
}
const bytes tdt{0x70, 0x70, 0x05, 1, 2, 3, 4, 5};
const bytes tot = [] {
    bytes b{0x73, 0x70, 0x0B, 1, 2, 3, 4, 5, 0xF0, 0x00};
    const std::uint32_t crc = ts::crc32(b);
    for (unsigned i = 0; i < 4; ++i)
        b.push_back(static_cast<std::uint8_t>(crc >> (24 - 8 * i)));
    return b;
}();

TEST(Sections, CrcAsBitByBit) {
    bytes b;
    for (unsigned i = 0; i < 40; ++i) {
        EXPECT_EQ(section_crc(b), ts::crc32(b)) << i;
        b.push_back(static_cast<std::uint8_t>(i * 37));
    }
}

TEST(Sections, Assembly) {
    const auto two = [](std::size_t size) { // the next section says where this one ends
        return ts::stream().sections(17, {sized(size), sized(20)});
    };
    struct Row {
        const char* name;
        ts::stream in;
        int disturbed; // before this packet
        const char* out;
    };
    const auto damaged = [&](const bytes& first) {
        return ts::stream().sections(17, {first, sized(20)});
    };
    const Row rows[] = {
        {"one", ts::stream().section(17, sized(30)), -1, "0-0:66"},
        {"fills its packet", two(183), -1, "0-0:66 1-1:66"},
        {"one byte over", two(184), -1, "0-1:66 1-1:66"},
        {"several in a packet", ts::stream().sections(17, {sized(20), tdt, tot, sized(30)}), -1,
         "0-0:66 0-0:112 0-0:115 0-0:66"},
        {"header over packets", ts::stream().sections(17, {sized(181), sized(400)}), -1,
         "0-0:66 0-3:66"},
        {"the longest", two(4096), -1, "0-22:66 22-22:66"},
        {"over several", two(600), -1, "0-3:66 3-3:66"},
        {"disturbed within", two(600), 2, "3-3:66"},
        {"disturbed behind", two(600), 4, "0-3:66 3-3:66"},
        {"a wrong byte", damaged(flipped(sized(600), 300)), -1, "0-3:66! 3-3:66"},
        {"of a TOT", ts::stream().section(20, flipped(tot, 4)), -1, "0-0:115!"},
        {"stuffing, which has none", ts::stream().section(20, flipped(sized(30, 0x72), 20)), -1,
         "0-0:114"},
        {"too short a length", damaged(flipped(sized(100), 2, 0x20)), -1, "0-0:66!"},
        {"too long a length", damaged(flipped(sized(600), 1, 0x01)), -1, "0-3:66! 3-3:66"},
        {"beyond all lengths", damaged(flipped(sized(600), 1, 0x0E)), -1, "0-3:66! 3-3:66"},
        {"too short for its CRC", ts::stream().section(17, {0x42, 0xB0, 0x02, 0, 1}), -1,
         "0-0:66!"},
        {"pointer out of the packet",
         ts::stream().add({.pid = 17, .pusi = true, .payload = {183, 0x42, 0xB0}}), -1, ""},
        {"not its first packet", ts::stream().data(17).section(17, sized(20)), -1, "1-1:66"},
        {"other pids", ts::stream().section(100, sized(20)), -1, ""},
    };
    for (const Row& row : rows) {
        Follower f;
        for (const ts::packet& p : row.in.packets()) {
            if (static_cast<int>(f.index) == row.disturbed)
                f.tables.disturbed(17);
            f.packet(p);
        }
        EXPECT_EQ(f.sections, row.out) << row.name;
    }
}

const bytes german = ts::descriptor(0x0A, text("deu") + bytes{0});
const bytes english = ts::descriptor(0x0A, text("eng") + bytes{0});
const bytes ca = ts::descriptor(0x09, {0x0B, 0x00, 0xE1, 0xF4}); // pid 500

bytes pmt(const std::vector<ts::elementary>& streams, unsigned version = 0, unsigned number = 1,
          unsigned pcr = 256, const bytes& descriptors = {}) {
    return ts::pmt_section(number, pcr, streams, {.version = version}, descriptors);
}
bytes not_current(bytes section) {
    section[5] &= 0xFE;
    section.resize(section.size() - 4);
    const std::uint32_t crc = ts::crc32(section);
    for (unsigned i = 0; i < 4; ++i)
        section.push_back(static_cast<std::uint8_t>(crc >> (24 - 8 * i)));
    return section;
}
bytes service(unsigned id, const char* name, unsigned running = 4, const char* provider = "Prov") {
    const auto counted = [](const char* t) {
        return bytes{static_cast<std::uint8_t>(std::char_traits<char>::length(t))} + text(t);
    };
    const bytes d = ts::descriptor(0x48, bytes{1} + counted(provider) + counted(name));
    return bytes{0, static_cast<std::uint8_t>(id), 0xFC, static_cast<std::uint8_t>(running << 5),
                 static_cast<std::uint8_t>(d.size())} +
           d;
}
bytes sdt(const bytes& services, unsigned version = 0) {
    return ts::make_section(0x42, 1, {.version = version}, bytes{0, 1, 0xFF} + services);
}
bytes nit(const char* name, const std::vector<unsigned>& streams, unsigned version = 0) {
    const bytes own = ts::descriptor(0x40, text(name));
    bytes body{0xF0, static_cast<std::uint8_t>(own.size())};
    body = body + own + bytes{0xF0, static_cast<std::uint8_t>(6 * streams.size())};
    for (const unsigned id : streams)
        body = body + bytes{0, static_cast<std::uint8_t>(id), 0, 9, 0xF0, 0};
    return ts::make_section(0x40, 9, {.version = version}, body);
}

TEST(Tables, Followed) {
    struct Step {
        unsigned pid;
        bytes section;
        std::vector<std::string> log; // what it brings about
    };
    const auto pat = [](const std::vector<ts::program>& programs, const ts::table_head& head = {},
                        unsigned tsid = 1) { return ts::pat_section(programs, head, tsid); };
    const std::vector<ts::elementary> av{{0x1B, 256}, {0x0F, 257, german}};
    const std::string one = "pat; 1@100";
    const std::string with_av = "pat; 1@100 pcr 256, 256 h264, 257 aac deu";
    struct Row {
        const char* name;
        std::vector<Step> steps;
    };
    const Row rows[] = {
        {"repeated, wrong, later",
         {{0, pat({{1, 100}}), {one}},
          {0, pat({{1, 100}}), {}},
          {0, flipped(pat({{1, 101}}, {.version = 1}), 9), {}},
          {0, not_current(pat({{1, 101}}, {.version = 1})), {}},
          {0, pat({{1, 100}}, {.version = 1}), {}},
          {100, pmt(av), {with_av}},
          {100, flipped(pmt({}, 1), 9), {}},
          {100, pmt(av, 1), {}},
          {101, pmt(av, 1), {}}}},
        {"main, backup, main",
         {{0, pat({{1, 100}}), {one}},
          {100, pmt(av), {with_av}},
          {0,
           pat({{2, 200}}, {.version = 1}),
           {"q.4 1 2, -program 1 100 [pid 100|], +program 2 200 [|pid 200]", "pat; 2@200"}},
          {100, pmt(av, 1), {}},
          {0,
           pat({{1, 100}}, {.version = 0}),
           {"q.4 1 2, +program 1 100 [|pid 100], -program 2 200 [pid 200|]", one}},
          {100, pmt(av), {with_av}}}},
        {"empty, and another stream",
         {{0, pat({{1, 100}}), {one}},
          {0, pat({}, {.version = 1}), {"q.4 1, -program 1 100 [pid 100|]", "pat"}},
          {0,
           pat({{1, 100}}, {.version = 1}, 2),
           {"q.4 1, ~network [transport stream 1|transport stream 2], +program 1 100 [|pid 100]",
            one}}}},
        {"moved, network",
         {{0, pat({{0, 16}, {1, 100}}), {"pat net 16; 1@100"}},
          {0,
           pat({{0, 40}, {1, 101}}, {.version = 1}),
           {"q.4 1, >network 40 [pid 16|pid 40], >pmt 1 101 [pid 100|pid 101]",
            "pat net 40; 1@101"}},
          {16, nit("N", {1}), {}},
          {40, nit("N", {1}), {}},
          {40,
           nit("M", {2}, 1),
           {"q.4, ~network [network 9 N|network 9 M], -network [transport stream 1 of network 9|], "
            "+network [|transport stream 2 of network 9]"}}}},
        {"several sections",
         {{0, pat({{2, 200}}, {.section = 1, .last = 1}), {}},
          {0, pat({{1, 100}}, {.section = 0, .last = 1}), {"pat; 1@100; 2@200"}},
          {0, pat({{3, 300}}, {.version = 1, .section = 1, .last = 1}), {}},
          {0,
           pat({{1, 100}}, {.version = 1, .section = 0, .last = 1}),
           {"q.4 2 3, -program 2 200 [pid 200|], +program 3 300 [|pid 300]", "pat; 1@100; 3@300"}},
          {0,
           pat({{4, 400}}, {.version = 1, .section = 1, .last = 1}),
           {"q.5 3 4, -program 3 300 [pid 300|], +program 4 400 [|pid 400]", "pat; 1@100; 4@400"}},
          {0, pat({}, {.section = 2, .last = 1}), {}}}},
        {"a pid of two programs",
         {{0, pat({{1, 100}, {2, 100}}), {"pat; 1@100; 2@100"}},
          {100, pmt({{0x1B, 256}}, 0, 2), {"pat; 1@100; 2@100 pcr 256, 256 h264"}},
          {100,
           pmt({{0x1B, 256}}, 0, 1),
           {"pat; 1@100 pcr 256, 256 h264; 2@100 pcr 256, 256 h264"}},
          {100, pmt({{0x1B, 256}}, 0, 3), {}}}},
        {"streams",
         {{0, pat({{1, 100}}), {one}},
          {100, pmt(av), {with_av}},
          {100,
           pmt({{0x1B, 256}, {0x0F, 300, german}, {0x0F, 301, english}}, 1),
           {"q.4 1, >stream 1 300 [audio aac deu, pid 257|audio aac deu, pid 300], "
            "+stream 1 301 [|audio aac eng]",
            "pat; 1@100 pcr 256, 256 h264, 300 aac deu, 301 aac eng"}},
          {100,
           pmt({{0x24, 256}, {0x0F, 300, german}}, 2, 1, 300),
           {"q.4 1, >pcr 1 300 [pid 256|pid 300], ~stream 1 256 [video h264|video hevc], "
            "-stream 1 301 [audio aac eng|]",
            "pat; 1@100 pcr 300, 256 hevc, 300 aac deu"}},
          {100,
           pmt({{0x24, 256, ca}, {0x0F, 300, german}}, 2, 1, 300),
           {"q.5 1, ~descriptor 1 256 [no descriptors|descriptors 0x09]",
            "pat; 1@100 pcr 300, 256 hevc ca, 300 aac deu"}}}},
        {"conditional access",
         {{1, ts::make_section(1, 0xFFFF, {}, ca), {"none cat 500"}},
          {0, pat({{1, 100}}), {"pat cat 500; 1@100"}},
          {100, pmt({{0x1B, 256}}, 0, 1, 256, ca), {"pat cat 500; 1@100 pcr 256, 256 h264 ca"}},
          {1, ts::make_section(1, 0xFFFF, {}, {}), {"q.5", "pat; 1@100 pcr 256, 256 h264 ca"}}}},
        {"services",
         {{17, sdt(service(1, "News")), {}},
          {17,
           sdt(service(1, "News 2") + service(2, "Two", 1), 1),
           {"q.4 1 2, ~service 1 [News (Prov)|News 2 (Prov)], "
            "+service 2 [|Two (Prov), not running]"}},
          {17, sdt(service(1, "News 2"), 2), {"q.4 2, -service 2 [Two (Prov), not running|]"}},
          {17, sdt(service(1, "News 2", 4, ""), 3), {"q.4 1, ~service 1 [News 2 (Prov)|News 2]"}},
          {17, sdt(service(1, "", 4, ""), 4), {"q.4 1, ~service 1 [News 2|unnamed]"}}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Follower f;
        for (const Step& step : row.steps) {
            f.log.clear();
            f.feed(ts::stream().section(step.pid, step.section));
            EXPECT_EQ(f.log, step.log) << "packet " << f.index;
        }
    }
}

TEST(Tables, NamesOfServices) {
    Follower f;
    f.feed(ts::stream().section(17, sdt(service(7, "News"))));
    ASSERT_EQ(f.tables.services().count(7), 1u);
    EXPECT_EQ(f.tables.services().at(7).name, "News");
    EXPECT_EQ(f.tables.services().at(7).provider, "Prov");
}

// A sender of ever other tables: each copy of the programs is dear, so not all are followed.
TEST(Tables, EndlessChanges) {
    Follower f;
    std::vector<ts::program> programs;
    for (unsigned n = 1; n <= 40; ++n)
        programs.push_back({n, 100});
    f.feed(ts::stream().section(0, ts::pat_section(programs)));
    for (unsigned i = 0; i < 10'000; ++i)
        f.feed(ts::stream().section(100, pmt({{0x1B, 1000 + i % 512}}, i % 32, 1 + i % 40)));
    EXPECT_LT(f.log.size(), 4000u);
    f.index += 100;
    f.log.clear();
    f.feed(ts::stream().section(100, pmt({{0x24, 33}}, 31, 1)));
    EXPECT_EQ(f.log.size(), 2u) << "followed again";
}

TEST(Tables, Classes) {
    const auto d = [](unsigned tag, const bytes& data) { return ts::descriptor(tag, data); };
    const auto format = [&](const char* id) { return d(0x05, text(id)); };
    struct Row {
        std::uint8_t type;
        bytes descriptors;
        const char* out;
        bytes program{};
    };
    const Row rows[] = {
        {0x02, d(0x02, {0x19}), "video mpeg2video still"},
        {0x02, d(0x02, {0x1A}), "video mpeg2video"},
        {0x03, d(0x03, {0x70}), "audio mp1"},
        {0x03, d(0x03, {0x60}), "audio mp2"},
        {0x0F, german, "audio aac deu"},
        {0x11, d(0x0A, text("D?U")), "audio aac_latm"},
        {0x1B, d(0x28, {100, 0, 40, 0x80}), "video h264 still"},
        {0x1B, d(0x28, {100, 0, 40}), "video h264"},
        {0x24, d(0x38, bytes(12, 0) + bytes{0x40}), "video hevc still"},
        {0x33, d(0x39, bytes{0, 1, 0, 0, 0, 0, 0, 0, 0x40}), "video vvc still"},
        {0x06, {}, "data private_data"},
        {0x06, d(0x6A, {0}), "audio ac3"},
        {0x06, german + d(0x7A, {0}), "audio eac3 deu"},
        {0x06, d(0x7B, {0}), "audio dts"},
        {0x06, d(0x7C, {0}), "audio aac"},
        {0x06, d(0x7F, {0x15}), "audio ac4"},
        {0x06, d(0x7F, {}), "data private_data"},
        {0x06, d(0x56, text("ENG") + bytes{8, 0}), "teletext dvb_teletext eng"},
        {0x06, d(0x59, text("fra") + bytes(5, 0)), "subtitles dvb_subtitle fra"},
        {0x06, d(0x45, {}), "data private_data"},
        {0x06, format("AC-3"), "audio ac3"},
        {0x06, format("EAC3"), "audio eac3"},
        {0x06, format("HEVC"), "video hevc"},
        {0x06, format("DTS1"), "audio dts"},
        {0x06, format("Opus") + d(0x7F, {0x80, 2}), "audio opus"},
        {0x06, format("Opu"), "data private_data"},
        {0x06, format("BSSD"), "audio lpcm"},
        {0x15, d(0x26, {0xFF, 0xFF, 'I', 'D', '3', ' ', 0xFF, 'I', 'D', '3', ' ', 0}), "data id3"},
        {0x15, d(0x26, {0xFF, 0xFF}), "data private_data"},
        {0x1B, d(0x6A, {0}), "video h264"},
        {0x81, {}, "audio ac3"},
        {0x82, {}, "subtitles private_data"},
        {0x86, {}, "scte35 scte35"},
        {0x87, {}, "audio eac3"},
        {0x80, {}, "unknown unknown"},
        {0x80, {}, "audio lpcm", format("HDMV")},
        {0x86, {}, "audio dts", format("HDMV")},
        {0x42, {}, "video avs"},
        {0xD1, {}, "video dirac"},
        {0xD2, {}, "video avs2"},
        {0xD4, {}, "video avs3"},
        {0xEA, {}, "video vc1"},
        {0x00, {}, "unknown unknown"},
    };
    for (const Row& row : rows) {
        const StreamClass is = classify(row.type, row.descriptors, row.program);
        std::string out = std::string(word(is.kind)) + " " + std::string(word(is.codec));
        if (!is.language.empty())
            out += " " + is.language;
        EXPECT_EQ(out + (is.still_picture ? " still" : ""), row.out) << &row - rows;
    }
}

TEST(Tables, TextsOfServiceInformation) {
    const struct {
        bytes in;
        const char* out;
    } rows[] = {
        {text("News"), "News"},
        {{}, ""},
        {{'a', 0x86, 'b', 0x87, 0x8A, 'c'}, "ab c"},
        {{0xC8, 'u', 0xA4, 0xC2}, "ü€\uFFFD"}, // an accent without its letter
        {{0x01, 0xC0}, "Р"},
        {{0x05, 0xE9, 0x8A, 0xDD}, "é İ"},
        {{0x10, 0, 2, 0xA1}, "Ą"},
        {{0x10, 0, 0x0C, 0xA1}, "\uFFFD"},
        {{0x10, 0}, ""},
        {{0x11, 0x20, 0xAC, 0xE0, 0x86, 0, 'x'}, "€x"},
        {{0x15, 0xC3, 0xA9, 0xFF, 0xC3}, "é\uFFFD\uFFFD"},
        // What was UTF-8 once, and the last character that still is.
        {{0x15, 'a', 0xFB, 0xBC, 0x8F, 0x89, 0xBD, 'b', 0xF4, 0x90, 0x80, 0x80, 'c'},
         "a\uFFFDb\uFFFDc"},
        {{0x15, 0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0xF4, 0x8F, 0xBF, 0xBF}, "\uFFFD\U0010FFFF"},
        {{0x1F}, ""},
        {{0x1F, 9, 'a', 0xE4}, "a\uFFFD"},
        {{0x08, 'a', 1, 2}, "a"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(si_text(row.in), row.out) << &row - rows;
}

} // namespace
} // namespace quarn
