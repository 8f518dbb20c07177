// What is different between two versions of a table, in words of the field.
#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string>
#include <tuple>

#include "psi.h"
#include "psi_read.h"
#include "si_text.h"
#include "stream_kind.h"

namespace quarn {

namespace {

using Op = TableChange::Op;
using What = TableChange::What;
using Changes = std::vector<TableChange>;

void add(Changes& changes, TableChange&& change) {
    if (changes.size() < changes_max)
        changes.push_back(std::move(change));
}

std::string pid_words(std::uint16_t pid) {
    return "pid " + std::to_string(pid);
}

std::string tag_words(Bytes descriptors) {
    std::string words;
    each_descriptor(descriptors, [&](std::uint8_t tag, Bytes) {
        std::array<char, 8> text;
        std::snprintf(text.data(), text.size(), "0x%02X", static_cast<unsigned>(tag));
        words += words.empty() ? "descriptors " : " ";
        words += text.data();
    });
    return words.empty() ? "no descriptors" : words;
}

std::uint16_t extension_of(const Sections& sections) {
    return section_head(sections.front()).extension;
}

bool equal(Bytes a, Bytes b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// Walks two maps side by side: `f(key, old value or nullptr, new value or nullptr)`.
template <typename Map, typename F>
void side_by_side(const Map& before, const Map& after, F&& f) {
    auto b = before.begin();
    auto a = after.begin();
    while (b != before.end() || a != after.end()) {
        if (a == after.end() || (b != before.end() && b->first < a->first)) {
            f(b->first, &b->second, nullptr);
            ++b;
        } else if (b == before.end() || a->first < b->first) {
            f(a->first, nullptr, &a->second);
            ++a;
        } else {
            f(a->first, &b->second, &a->second);
            ++a;
            ++b;
        }
    }
}

// A pid that is there, goes, comes or moves.
void pid_change(Changes& changes, What what, std::optional<int> number,
                std::optional<std::uint16_t> before, std::optional<std::uint16_t> after) {
    if (before == after)
        return;
    const Op op = !before ? Op::added : !after ? Op::removed : Op::moved;
    TableChange change{op, what, number, after ? *after : *before, std::nullopt, std::nullopt};
    if (before)
        change.before = pid_words(*before);
    if (after)
        change.after = pid_words(*after);
    add(changes, std::move(change));
}

void descriptor_change(Changes& changes, std::optional<int> number, std::optional<int> pid,
                       Bytes before, Bytes after) {
    if (!equal(before, after))
        add(changes,
            {Op::changed, What::descriptor, number, pid, tag_words(before), tag_words(after)});
}

// ---- PMT ---------------------------------------------------------------------------------------

struct Entry {
    std::uint8_t type = 0;
    std::uint16_t pid = 0;
    Bytes descriptors;
    StreamClass is;
    bool matched = false;

    bool carries_same(const Entry& other) const {
        return std::tie(type, is.kind, is.codec, is.language) ==
               std::tie(other.type, other.is.kind, other.is.codec, other.is.language);
    }
    // "audio aac deu"
    std::string words() const {
        std::string text(word(is.kind));
        if (is.codec != Codec::unknown)
            text.append(" ").append(word(is.codec));
        else
            text += " type " + std::to_string(type);
        return is.language.empty() ? text : text + " " + is.language;
    }
};

struct PmtContent {
    std::uint16_t pcr_pid = null_pid;
    std::vector<std::uint8_t> descriptors;
    std::vector<Entry> entries;
};

PmtContent content_of(const Sections& sections) {
    PmtContent content;
    for (const auto& section : sections) {
        const PmtSection pmt = pmt_section(section);
        if (&section == &sections.front())
            content.pcr_pid = pmt.pcr_pid;
        content.descriptors.insert(content.descriptors.end(), pmt.descriptors.begin(),
                                   pmt.descriptors.end());
        each_stream(pmt, [&](std::uint8_t type, std::uint16_t pid, Bytes descriptors) {
            if (content.entries.size() < streams_max)
                content.entries.push_back(
                    {type, pid, descriptors, classify(type, descriptors, pmt.descriptors), false});
        });
    }
    return content;
}

// Marks both as dealt with.
template <typename Same>
Entry* match(const Entry& entry, std::vector<Entry>& others, Same&& same) {
    const auto other = std::find_if(others.begin(), others.end(),
                                    [&](const Entry& o) { return !o.matched && same(entry, o); });
    if (other == others.end())
        return nullptr;
    other->matched = true;
    return &*other;
}

void stream_changes(Changes& changes, int number, PmtContent& before, PmtContent& after) {
    for (Entry& now : after.entries) {
        const Entry* was = match(now, before.entries,
                                 [](const Entry& a, const Entry& b) { return a.pid == b.pid; });
        if (!was)
            continue;
        now.matched = true;
        if (!now.carries_same(*was))
            add(changes, {Op::changed, What::stream, number, now.pid, was->words(), now.words()});
        else
            descriptor_change(changes, number, now.pid, was->descriptors, now.descriptors);
    }
    for (Entry& now : after.entries) {
        if (now.matched)
            continue;
        const Entry* was = match(now, before.entries,
                                 [](const Entry& a, const Entry& b) { return a.carries_same(b); });
        if (was)
            add(changes, {Op::moved, What::stream, number, now.pid,
                          was->words() + ", " + pid_words(was->pid),
                          now.words() + ", " + pid_words(now.pid)});
        else
            add(changes, {Op::added, What::stream, number, now.pid, std::nullopt, now.words()});
    }
    for (const Entry& was : before.entries)
        if (!was.matched)
            add(changes, {Op::removed, What::stream, number, was.pid, was.words(), std::nullopt});
}

// ---- SDT and NIT -------------------------------------------------------------------------------

// What an entry of a loop says besides its key, and its descriptors.
struct Item {
    std::string words;
    std::vector<std::uint8_t> descriptors;
};
template <typename Key>
using Items = std::map<Key, Item>;

std::string service_words(const ServiceNames& names, std::uint8_t flags) {
    static constexpr std::array<const char*, 8> running = {
        "", ", not running", ", starts soon", ", pausing", "", ", off air", "", ""};
    std::string words = names.name && !names.name->empty() ? *names.name : "unnamed";
    if (names.provider && !names.provider->empty())
        words += " (" + *names.provider + ")";
    words += running[flags >> 5];
    return (flags & 0x10) != 0 ? words + ", scrambled" : words;
}

Items<std::uint16_t> services_of(const Sections& sections) {
    const auto names = read_sdt(sections);
    Items<std::uint16_t> items;
    for (const auto& section : sections)
        each_service(section, [&](std::uint16_t id, std::uint8_t flags, Bytes descriptors) {
            const auto known = names.find(id);
            if (known != names.end())
                items[id] = {service_words(known->second, flags),
                             {descriptors.begin(), descriptors.end()}};
        });
    return items;
}

struct Network {
    std::uint16_t id = 0;
    Item own;                                               // its name, its descriptors
    Items<std::pair<std::uint16_t, std::uint16_t>> streams; // by network and transport stream
};

constexpr std::uint8_t network_name_descriptor = 0x40;

Network network_of(const Sections& sections) {
    Network network;
    network.id = extension_of(sections);
    network.own.words = "network " + std::to_string(network.id);
    for (const auto& section : sections) {
        Bytes body = section_body(section);
        if (body.size() < 2)
            continue;
        const std::size_t size = read_12(body, 0);
        body = body.subspan(2);
        const Bytes own = take_front(body, size);
        network.own.descriptors.insert(network.own.descriptors.end(), own.begin(), own.end());
        each_descriptor(own, [&](std::uint8_t tag, Bytes name) {
            if (tag == network_name_descriptor)
                network.own.words += " " + si_text(name);
        });
        each_transport_stream(section, [&](std::uint16_t stream, std::uint16_t of, Bytes bytes) {
            if (network.streams.size() < programs_max)
                network.streams[{of, stream}] = {"transport stream " + std::to_string(stream) +
                                                     " of network " + std::to_string(of),
                                                 {bytes.begin(), bytes.end()}};
        });
    }
    return network;
}

void item_change(Changes& changes, What what, std::optional<int> number, const Item* before,
                 const Item* after) {
    if (before && after) {
        if (before->words != after->words)
            add(changes, {Op::changed, what, number, std::nullopt, before->words, after->words});
        else
            descriptor_change(changes, number, std::nullopt, before->descriptors,
                              after->descriptors);
    } else if (after) {
        add(changes, {Op::added, what, number, std::nullopt, std::nullopt, after->words});
    } else if (before) {
        add(changes, {Op::removed, what, number, std::nullopt, before->words, std::nullopt});
    }
}

std::string transport_words(const Sections& sections) {
    return "transport stream " + std::to_string(extension_of(sections));
}

} // namespace

Changes pat_changes(const Sections& before, const Sections& after) {
    Changes changes;
    const Pat was = read_pat(before);
    const Pat now = read_pat(after);
    if (extension_of(before) != extension_of(after))
        add(changes, {Op::changed, What::network, std::nullopt, std::nullopt,
                      transport_words(before), transport_words(after)});
    pid_change(changes, What::network, std::nullopt, was.network_pid, now.network_pid);
    using Pid = const std::uint16_t*;
    side_by_side(was.pmt_pids, now.pmt_pids, [&](int number, Pid from, Pid to) {
        pid_change(changes, from && to ? What::pmt_pid : What::program, number,
                   from ? std::optional(*from) : std::nullopt,
                   to ? std::optional(*to) : std::nullopt);
    });
    return changes;
}

Changes pmt_changes(const Sections& before, const Sections& after) {
    Changes changes;
    PmtContent was = content_of(before);
    PmtContent now = content_of(after);
    const int number = extension_of(after);
    pid_change(changes, What::pcr_pid, number, was.pcr_pid, now.pcr_pid);
    descriptor_change(changes, number, std::nullopt, was.descriptors, now.descriptors);
    stream_changes(changes, number, was, now);
    return changes;
}

Changes sdt_changes(const Sections& before, const Sections& after) {
    Changes changes;
    side_by_side(services_of(before), services_of(after),
                 [&](int id, const Item* was, const Item* now) {
                     item_change(changes, What::service, id, was, now);
                 });
    return changes;
}

Changes nit_changes(const Sections& before, const Sections& after) {
    Changes changes;
    const Network was = network_of(before);
    const Network now = network_of(after);
    item_change(changes, What::network, std::nullopt, &was.own, &now.own);
    side_by_side(was.streams, now.streams, [&](const auto&, const Item* from, const Item* to) {
        item_change(changes, What::network, std::nullopt, from, to);
    });
    return changes;
}

bool same_content(const Sections& a, const Sections& b) {
    const auto same = [](Bytes x, Bytes y) {
        const SectionHead hx = section_head(x);
        const SectionHead hy = section_head(y);
        return hx.extension == hy.extension && equal(section_body(x), section_body(y));
    };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
}

} // namespace quarn
