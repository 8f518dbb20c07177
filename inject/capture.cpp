// capture.cpp - reading, editing and writing a capture; see capture.h.
#include "capture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace inject {

namespace {

constexpr double LONGEST_STEP = 10; // seconds between two PCRs of a clean capture

using File = std::unique_ptr<std::FILE, decltype([](std::FILE* f) { std::fclose(f); })>;

File open_file(const std::string& path, const char* mode) {
    File file(std::fopen(path.c_str(), mode));
    if (!file) {
        throw Refused(path + ": " + std::strerror(errno));
    }
    return file;
}

// The section that begins in a packet; none where it is not whole.
void find_section(const std::vector<Item>& items, const std::vector<std::size_t>& of_pid,
                  std::size_t first, Unit& unit) {
    const Packet& start = items[of_pid[first]].bytes;
    const std::size_t at = payload_at(start);
    if (at == PACKET_SIZE) {
        return;
    }
    const std::size_t begin = at + 1 + start[at];
    Bytes data(start.begin() + static_cast<std::ptrdiff_t>(std::min(begin, PACKET_SIZE)),
               start.end());
    unit.items.push_back(of_pid[first]);
    const auto size = [&data] {
        return data.size() < 3 ? std::size_t{3}
                               : 3U + (static_cast<std::size_t>(data[1] & 0x0F) << 8 | data[2]);
    };
    for (std::size_t next = first + 1; data.size() < size() && next < of_pid.size(); ++next) {
        const Packet& p = items[of_pid[next]].bytes;
        if (unit_starts(p)) {
            return;
        }
        data.insert(data.end(), p.begin() + static_cast<std::ptrdiff_t>(payload_at(p)), p.end());
        unit.items.push_back(of_pid[next]);
    }
    if (data.size() < size() || data[0] == 0xFF) {
        return;
    }
    const auto end = data.begin() + static_cast<std::ptrdiff_t>(size());
    unit.shared = start[at] != 0 || (end != data.end() && *end != 0xFF);
    data.erase(end, data.end());
    unit.section = std::move(data);
}

bool registered_as(const Bytes& d, std::size_t i, const char* name) {
    return d[i] == 0x05 && i + 6 <= d.size() && std::memcmp(&d[i + 2], name, 4) == 0;
}

} // namespace

StreamKind kind_of(const Stream& stream) {
    constexpr std::array<int, 7> VIDEO{0x01, 0x02, 0x10, 0x1B, 0x20, 0x24, 0x33};
    constexpr std::array<int, 7> AUDIO{0x03, 0x04, 0x0F, 0x11, 0x1C, 0x81, 0x87};
    if (std::find(VIDEO.begin(), VIDEO.end(), stream.type) != VIDEO.end()) {
        return StreamKind::video;
    }
    if (std::find(AUDIO.begin(), AUDIO.end(), stream.type) != AUDIO.end()) {
        return StreamKind::audio;
    }
    const Bytes& d = stream.descriptors;
    for (std::size_t i = 0; stream.type == 6 && i + 2 <= d.size(); i += 2U + d[i + 1]) {
        if (d[i] == 0x6A || d[i] == 0x7A || d[i] == 0x7B || d[i] == 0x7C ||
            registered_as(d, i, "AC-3") || registered_as(d, i, "EAC3")) {
            return StreamKind::audio;
        }
    }
    return StreamKind::other;
}

Capture::Capture(const std::string& path) {
    const File file = open_file(path, "rb");
    Packet p{};
    std::size_t got = 0;
    while ((got = std::fread(p.data(), 1, PACKET_SIZE, file.get())) == PACKET_SIZE) {
        if (p[0] != SYNC) {
            throw Refused(
                path + ": packet " + std::to_string(items.size() + 1) +
                " does not start with 0x47: a clean capture of 188-byte packets is needed");
        }
        items.push_back(fresh_item(p, 0));
        items.back().fresh = false;
    }
    if (std::ferror(file.get()) != 0) {
        throw Refused(path + ": " + std::strerror(errno));
    }
    if (got != 0) {
        throw Refused(path + ": ends inside packet " + std::to_string(items.size() + 1) +
                      ": a clean capture of 188-byte packets is needed");
    }
    survey();
    if (programmes.empty()) {
        throw Refused(path + ": no programme found: a clean capture with PAT and PMT is needed");
    }
    learn_times();
}

void Capture::write(const std::string& path) const {
    const File file = open_file(path, "wb");
    const auto put = [&](const void* data, std::size_t size) {
        if (size != 0 && std::fwrite(data, 1, size, file.get()) != size) {
            throw Refused(path + ": " + std::strerror(errno));
        }
    };
    for (const Item& item : items) {
        put(item.before.data(), item.before.size());
        if (!item.raw.empty()) {
            put(item.raw.data(), item.raw.size());
        } else if (!item.gone) {
            put(item.bytes.data(), PACKET_SIZE);
        }
    }
    if (std::fflush(file.get()) != 0) {
        throw Refused(path + ": " + std::strerror(errno));
    }
}

Item Capture::fresh_item(const Packet& p, double time) {
    Item item;
    item.bytes = p;
    item.time = time;
    item.id = static_cast<std::uint32_t>(index_by_id_.size());
    item.fresh = true;
    index_by_id_.push_back(items.size());
    return item;
}

void Capture::survey() {
    for (const Unit& unit : units(0)) {
        if (table_of(unit.section) == 0 && crc_holds(unit.section)) {
            pat = parse_pat(unit.section);
            break;
        }
    }
    for (const auto& [number, pid] : pat.programmes) {
        for (const Unit& unit : units(number == 0 ? NULL_PID : pid)) {
            if (table_of(unit.section) == 2 && extension_of(unit.section) == number &&
                crc_holds(unit.section)) {
                programmes.push_back({number, pid, parse_pmt(unit.section)});
                break;
            }
        }
    }
    std::sort(programmes.begin(), programmes.end(),
              [](const Programme& a, const Programme& b) { return a.number < b.number; });
    for (const Programme& programme : programmes) {
        if (clock_pid == NULL_PID && pcrs(programme.pmt.pcr_pid).size() > 1) {
            clock_pid = programme.pmt.pcr_pid;
        }
    }
    if (!programmes.empty() && clock_pid == NULL_PID) {
        throw Refused("no programme has PCRs: there is no clock to place faults by");
    }
}

// Packets lie at equal distances between two PCRs, and at the mean rate outside of them.
void Capture::learn_times() {
    const auto marks = pcrs(clock_pid);
    std::vector<double> value{0};
    for (std::size_t k = 1; k < marks.size(); ++k) {
        const auto step =
            distance(*pcr_of(items[marks[k]].bytes), *pcr_of(items[marks[k - 1]].bytes), PCR_WRAP);
        if (step < 0 || static_cast<double>(step) > LONGEST_STEP * PCR_HZ) {
            throw Refused("packet " + std::to_string(marks[k] + 1) +
                          ": the clock jumps: a clean capture is needed");
        }
        value.push_back(value.back() + static_cast<double>(step) / PCR_HZ);
    }
    const double mean = value.back() / static_cast<double>(marks.back() - marks.front());
    std::size_t k = 0;
    std::size_t fitting = 0;
    const double origin = static_cast<double>(marks.front()) * mean;
    for (std::size_t i = 0; i < items.size(); ++i) {
        while (k + 1 < marks.size() && marks[k + 1] <= i) {
            ++k;
        }
        const bool inside = i >= marks.front() && k + 1 < marks.size();
        const double step =
            inside ? (value[k + 1] - value[k]) / static_cast<double>(marks[k + 1] - marks[k])
                   : mean;
        items[i].time =
            origin + value[k] + (static_cast<double>(i) - static_cast<double>(marks[k])) * step;
        fitting += inside && std::abs(step / mean - 1) < 0.002 ? 1 : 0;
    }
    constant =
        static_cast<double>(fitting) > 0.9 * static_cast<double>(marks.back() - marks.front());
    duration = items.back().time;
}

const Programme* Capture::programme_of(int pid) const {
    for (const Programme& programme : programmes) {
        const auto& streams = programme.pmt.streams;
        if (programme.pmt_pid == pid || programme.pmt.pcr_pid == pid ||
            std::any_of(streams.begin(), streams.end(),
                        [pid](const Stream& s) { return s.pid == pid; })) {
            return &programme;
        }
    }
    return nullptr;
}

const Stream* Capture::stream_of(int pid) const {
    for (const Programme& programme : programmes) {
        for (const Stream& stream : programme.pmt.streams) {
            if (stream.pid == pid) {
                return &stream;
            }
        }
    }
    return nullptr;
}

StreamKind Capture::kind_of(int pid) const {
    const Stream* stream = stream_of(pid);
    return stream != nullptr ? inject::kind_of(*stream) : StreamKind::other;
}

int Capture::type_of(int pid) const {
    const Stream* stream = stream_of(pid);
    return stream != nullptr ? stream->type : 0;
}

std::vector<int> Capture::media_pids() const {
    std::vector<int> out;
    for (const Programme& programme : programmes) {
        for (const Stream& stream : programme.pmt.streams) {
            if (inject::kind_of(stream) != StreamKind::other && payloads(stream.pid).size() > 100) {
                out.push_back(stream.pid);
            }
        }
    }
    return out;
}

bool Capture::is_live(std::size_t i, int pid) const {
    return !items[i].gone && items[i].raw.empty() && pid_of(items[i].bytes) == pid;
}

std::size_t Capture::at(double seconds) const {
    const auto found = std::lower_bound(items.begin(), items.end(), seconds,
                                        [](const Item& item, double t) { return item.time < t; });
    return static_cast<std::size_t>(found - items.begin());
}

std::vector<std::size_t> Capture::of(int pid, double from, double to) const {
    std::vector<std::size_t> out;
    for (std::size_t i = from > 0 ? at(from) : 0; i < items.size() && items[i].time < to; ++i) {
        if (is_live(i, pid)) {
            out.push_back(i);
        }
    }
    return out;
}

std::vector<std::size_t> Capture::payloads(int pid, double from, double to) const {
    auto out = of(pid, from, to);
    std::erase_if(out, [this](std::size_t i) { return !has_payload(items[i].bytes); });
    return out;
}

std::vector<std::size_t> Capture::pes_starts(int pid, double from, double to) const {
    auto out = of(pid, from, to);
    std::erase_if(out, [this](std::size_t i) {
        const auto header = pes_of(items[i].bytes);
        return !header || !header->pts;
    });
    return out;
}

std::vector<std::size_t> Capture::pcrs(int pid, double from, double to) const {
    auto out = of(pid, from, to);
    std::erase_if(out, [this](std::size_t i) { return !pcr_of(items[i].bytes); });
    return out;
}

std::vector<Unit> Capture::units(int pid) const {
    std::vector<Unit> out;
    const auto of_pid = payloads(pid);
    for (std::size_t k = 0; k < of_pid.size(); ++k) {
        if (unit_starts(items[of_pid[k]].bytes)) {
            Unit unit;
            find_section(items, of_pid, k, unit);
            if (unit.section.size() > 4) {
                out.push_back(std::move(unit));
            }
        }
    }
    return out;
}

int Capture::unused_pid() const {
    std::vector<bool> used(NULL_PID + 1);
    for (const Item& item : items) {
        used[static_cast<std::size_t>(pid_of(item.bytes))] = true;
    }
    for (int pid = 0x0200; pid < NULL_PID; ++pid) {
        if (!used[static_cast<std::size_t>(pid)] && programme_of(pid) == nullptr) {
            return pid;
        }
    }
    throw Refused("every pid is in use");
}

std::size_t Capture::index_of(std::uint32_t id) const {
    // Insertions move items up, never down.
    std::size_t i = index_by_id_[id];
    while (i + 1 < items.size() && items[i].id != id) {
        ++i;
    }
    return i;
}

double Capture::margin_at(std::size_t pes_item) const {
    const Programme* programme = programme_of(pid_of(items[pes_item].bytes));
    const auto header = pes_of(items[pes_item].bytes);
    if (programme == nullptr || !header || !header->decode()) {
        return 1e9;
    }
    const auto marks = pcrs(programme->pmt.pcr_pid);
    const auto next = std::upper_bound(marks.begin(), marks.end(), pes_item);
    if (marks.empty() || (next == marks.begin() && !constant)) {
        return 1e9;
    }
    const std::size_t mark = next == marks.begin() ? *next : *(next - 1);
    const double since = constant ? items[pes_item].time - items[mark].time : 0;
    const auto ahead = distance(*header->decode() * 300, *pcr_of(items[mark].bytes), PCR_WRAP);
    return static_cast<double>(ahead) / PCR_HZ - since;
}

void Capture::take_out(std::size_t i, bool keep_pcr) {
    Item& item = items[i];
    if (has_payload(item.bytes)) {
        item.taken = true;
        item.taken_pid = pid_of(item.bytes);
    }
    if (keep_pcr && pcr_of(item.bytes)) {
        remove_payload(item.bytes);
    } else if (constant) {
        item.bytes = null_packet();
    } else {
        item.gone = true;
    }
}

std::vector<std::uint32_t> Capture::add(std::size_t i, const std::vector<Packet>& packets) {
    std::vector<std::uint32_t> ids;
    if (!constant) {
        const double time = items[std::min(i, items.size() - 1)].time;
        std::vector<Item> fresh;
        for (const Packet& p : packets) {
            fresh.push_back(fresh_item(p, time));
            index_by_id_.back() = i;
            ids.push_back(fresh.back().id);
        }
        items.insert(items.begin() + static_cast<std::ptrdiff_t>(i),
                     std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()));
        return ids;
    }
    for (const Packet& p : packets) {
        while (i < items.size() && !is_live(i, NULL_PID)) {
            ++i;
        }
        if (i == items.size()) { // nothing follows that it could move
            items.push_back(fresh_item(p, items.back().time));
        }
        items[i].bytes = p;
        items[i].fresh = true;
        ids.push_back(items[i].id);
    }
    return ids;
}

std::uint32_t Capture::add_copy(std::size_t i, std::size_t behind) {
    Item copy = fresh_item(items[i].bytes, items[behind].time);
    copy.fresh = false;
    index_by_id_.back() = behind;
    const std::uint32_t id = copy.id;
    items.insert(items.begin() + static_cast<std::ptrdiff_t>(behind) + 1, std::move(copy));
    return id;
}

// Whether so many packets fit in before the pid's next.
bool Capture::has_room(std::size_t i, int pid, std::size_t packets) const {
    while (constant && packets > 0 && i < items.size() && !is_live(i, pid)) {
        packets -= is_live(i++, NULL_PID) ? 1 : 0;
    }
    return !constant || packets == 0 || i == items.size();
}

void Capture::refuse_shared(const Unit& unit) {
    if (unit.shared) {
        throw Refused("the table shares its packets with other sections");
    }
}

void Capture::take_out(const Unit& unit) {
    refuse_shared(unit);
    for (const std::size_t i : unit.items) {
        take_out(i);
    }
}

void Capture::replace(const Unit& unit, const Bytes& section) {
    refuse_shared(unit);
    const int pid = pid_of(items[unit.items.front()].bytes);
    auto packets = packets_of(section, pid);
    if (packets.size() > unit.items.size() &&
        !has_room(unit.items.back() + 1, pid, packets.size() - unit.items.size())) {
        packets.clear();
    }
    for (std::size_t k = 0; k < unit.items.size(); ++k) {
        if (k < packets.size()) {
            set_counter(packets[k], counter_of(items[unit.items[k]].bytes));
            items[unit.items[k]].bytes = packets[k];
        } else {
            take_out(unit.items[k]);
        }
    }
    if (packets.size() > unit.items.size()) {
        packets.erase(packets.begin(),
                      packets.begin() + static_cast<std::ptrdiff_t>(unit.items.size()));
        add(unit.items.back() + 1, packets);
    }
}

void Capture::settle(int pid) {
    int delta = 0;
    int last = -1;
    for (std::size_t i = 0; i < items.size(); ++i) {
        Item& item = items[i];
        if (item.taken && item.taken_pid == pid) {
            item.taken = false;
            --delta;
        }
        if (!is_live(i, pid)) {
            continue;
        }
        if (item.fresh) {
            item.fresh = false;
            set_counter(item.bytes, last + 1);
            ++delta;
        } else {
            set_counter(item.bytes, counter_of(item.bytes) + delta);
        }
        last = counter_of(item.bytes);
    }
}

void Capture::shift_counters(int pid, std::size_t from, int by) {
    for (std::size_t i = from; i < items.size(); ++i) {
        if (is_live(i, pid)) {
            set_counter(items[i].bytes, counter_of(items[i].bytes) + by);
        }
    }
}

} // namespace inject
