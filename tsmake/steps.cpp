// steps.cpp - see steps.h.
#include "steps.h"

#include <algorithm>
#include <functional>
#include <sstream>

namespace ts {

namespace {

constexpr auto NONE = std::string::npos;

unsigned number(const std::string& word, int base = 10) {
    return static_cast<unsigned>(std::stoul(word, nullptr, base));
}
unsigned at(const words& w, std::size_t i, unsigned otherwise = 0) {
    return i < w.size() ? number(w[i]) : otherwise;
}
bool has(const words& w, const char* word) {
    return std::find(w.begin(), w.end(), word) != w.end();
}
// What "name=..." says.
std::string option(const words& w, const std::string& name, const std::string& otherwise = "0") {
    for (const std::string& word : w)
        if (word.starts_with(name + "="))
            return word.substr(name.size() + 1);
    return otherwise;
}
table_head head(const words& w) {
    return {.version = number(option(w, "v")),
            .section = number(option(w, "s")),
            .last = number(option(w, "l"))};
}
std::optional<std::uint64_t> ticks(const words& w, std::size_t i) {
    if (i >= w.size() || w[i] == "-")
        return {};
    return std::stoull(w[i]);
}

bytes hex(const std::string& text) {
    bytes all;
    for (std::size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ',') {
            i++;
        } else if (text[i] == '*') {
            std::size_t digits = 0;
            all.resize(all.size() + std::stoul(text.substr(i + 1), &digits) - 1, all.back());
            i += 1 + digits;
        } else {
            all.push_back(static_cast<std::uint8_t>(number(text.substr(i, 2), 16)));
            i += 2;
        }
    }
    return all;
}

// An entry of a table: "left:pid/right" or "left:first..last/right", left and right optional.
struct entry {
    std::string left, right;
    unsigned first, last;
};
entry read_entry(const std::string& word) {
    const std::size_t colon = word.find(':'), slash = word.find('/'), dots = word.find("..");
    const std::size_t begin = colon == NONE ? 0 : colon + 1;
    const unsigned first = number(word.substr(begin));
    return {.left = colon == NONE ? "" : word.substr(0, colon),
            .right = slash == NONE ? "" : word.substr(slash + 1),
            .first = first,
            .last = dots == NONE ? first : number(word.substr(dots + 2))};
}
// The entries among words i and further; the others are options.
std::vector<entry> entries(const words& w, std::size_t i) {
    std::vector<entry> all;
    for (; i < w.size(); i++)
        if (isxdigit(w[i][0]) && w[i].find('=') == NONE && w[i] != "damaged")
            all.push_back(read_entry(w[i]));
    return all;
}

bytes pat(const words& w) {
    std::vector<program> list;
    for (const entry& e : entries(w, 1))
        for (unsigned pid = e.first; pid <= e.last; pid++) {
            const auto next = static_cast<unsigned>(list.size());
            list.push_back({e.left.empty() ? next : number(e.left), pid});
        }
    return pat_section(list, head(w));
}
bytes pmt(const words& w) {
    std::vector<elementary> list;
    for (const entry& e : entries(w, 2))
        for (unsigned pid = e.first; pid <= e.last; pid++)
            list.push_back({number(e.left, 16), pid, hex(e.right)});
    return pmt_section(number(option(w, "n", "1")), number(option(w, "pcr", "101")), list, head(w),
                       hex(option(w, "d", "")));
}

void send(stream& s, const words& w, unsigned pid, bytes section) {
    if (has(w, "damaged"))
        section.back() ^= 1;
    if (has(w, "&")) {
        s.hold(std::move(section));
    } else if (const unsigned part = number(option(w, "part")); part != 0) {
        s.part(pid, section, part - 1);
    } else {
        s.sections(pid, {std::move(section)}, bytes(number(option(w, "prefix")), 0xff));
    }
}
void send_pes(stream& s, const words& w) {
    s.pes(at(w, 1), at(w, 2), {.pts = ticks(w, 3), .dts = ticks(w, 4)}, ticks(w, 5));
}
void send_bad(stream& s, const words& w) {
    packet p = make_packet({.pid = at(w, 1), .cc = 3});
    p[0] = 0x46;
    s.add(p);
}
void send_counters(stream& s, const words& w) {
    for (std::size_t i = 2; i < w.size(); i++)
        s.set_cc(at(w, 1), at(w, i)).data(at(w, 1));
}

// clang-format off
const std::map<std::string, std::function<void(stream&, const words&)>> STEPS = {
    {"pat", [](auto& s, auto& w) { send(s, w, 0, pat(w)); }},
    {"pmt", [](auto& s, auto& w) { send(s, w, at(w, 1), pmt(w)); }},
    {"table", [](auto& s, auto& w) {
        send(s, w, at(w, 1), make_section(at(w, 2), at(w, 3), head(w), hex(w.at(4)))); }},
    {"section", [](auto& s, auto& w) { send(s, w, at(w, 1), hex(w.at(2))); }},
    {"first", [](auto& s, auto& w) { s.add(filled(at(w, 1), true, hex(w.at(2)))); }},
    {"more", [](auto& s, auto& w) { s.add(filled(at(w, 1), false, hex(w.at(2)))); }},
    {"data", [](auto& s, auto& w) { s.data(at(w, 1), at(w, 2, 1)); }},
    {"null", [](auto& s, auto& w) { s.null(at(w, 1, 1)); }},
    {"empty", [](auto& s, auto& w) { s.add({.pid = at(w, 1), .has_payload = false}); }},
    {"bad", send_bad}, {"cc", send_counters}, {"pes", send_pes},
    {"lose", [](auto& s, auto& w) { s.lose(at(w, 1), at(w, 2, 1)).data(at(w, 1)); }},
    {"pcr", [](auto& s, auto& w) { s.pcr(at(w, 1), std::stoull(w.at(2))); }},
};
// clang-format on

} // namespace

words split_words(const std::string& line) {
    std::istringstream in(line);
    words w;
    for (std::string word; in >> word;)
        w.push_back(word);
    return w;
}

bool add_step(stream& s, const words& w) {
    const auto found = STEPS.find(w.at(0));
    if (found != STEPS.end())
        found->second(s, w);
    return found != STEPS.end();
}

} // namespace ts
