#include "multiplex.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>

#include "measure/packet.h"

namespace quarn {

namespace {

constexpr double table_every = 100; // ms
constexpr double frame = 40;        // of video
constexpr double audio_step = 72;   // three frames of 1152 samples at 48 kHz
constexpr double video_ahead = 500; // stamps before the clock
constexpr double audio_ahead = 300;

std::vector<std::string> split(std::string text, char at) {
    std::replace(text.begin(), text.end(), at, ' ');
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}
unsigned number(const std::string& word) {
    return static_cast<unsigned>(std::stoul(word));
}
std::uint64_t stamp(double ms) {
    return static_cast<std::uint64_t>(std::llround(ms * 90)) & (stamp_wrap - 1);
}

void set_pcr(ts::packet& p, std::int64_t value) {
    value = (value % pcr_wrap + pcr_wrap) % pcr_wrap;
    const std::int64_t base = value / 300;
    const std::int64_t bits = base << 15 | 0x7E00 | value % 300;
    for (int i = 0; i < 6; ++i)
        p[static_cast<std::size_t>(6 + i)] = static_cast<std::uint8_t>(bits >> (40 - 8 * i));
}

// Adds to the PTS, and the DTS where there is one, of a packet that begins a PES packet.
void shift_stamps(ts::packet& p, double ms) {
    const std::size_t at = Packet(p.data()).payload_offset() + 9;
    for (const std::size_t i : {at, at + 5}) {
        if ((p[at - 2] & (i == at ? 0x80 : 0x40)) == 0)
            continue;
        const std::uint64_t old = std::uint64_t{p[i] & 14u} << 29 | std::uint64_t{p[i + 1]} << 22 |
                                  std::uint64_t{p[i + 2] & 254u} << 14 |
                                  std::uint64_t{p[i + 3]} << 7 | std::uint64_t{p[i + 4]} >> 1;
        const ts::bytes h = ts::pes_header(0, {.pts = stamp(static_cast<double>(old) / 90 + ms)});
        const std::uint8_t prefix = p[i] & 0xF0;
        std::copy(h.begin() + 9, h.end(), p.begin() + static_cast<std::ptrdiff_t>(i));
        p[i] = static_cast<std::uint8_t>(prefix | (p[i] & 0x0F));
    }
}

ts::bytes picture(double stamp_ms, unsigned packets, unsigned seed) {
    ts::bytes pes = ts::pes_header(ts::VIDEO_ID, {.pts = stamp(stamp_ms)});
    for (unsigned i = 0; pes.size() < 184U * packets; ++i)
        pes.push_back(static_cast<std::uint8_t>(1 + (seed * 31 + i * 7 + i / 184) % 250));
    return pes;
}

ts::bytes sound(double stamp_ms, unsigned seed) {
    ts::bytes pes = ts::pes_header(ts::AUDIO_ID, {.pts = stamp(stamp_ms)});
    for (unsigned n = 0; n < 3; ++n) { // layer II, 192 kbit/s, 48 kHz: 576 bytes
        pes.insert(pes.end(), {0xFF, 0xFD, 0xA4, 0x00});
        for (unsigned i = 4; i < 576; ++i)
            pes.push_back(static_cast<std::uint8_t>((seed * 3 + n + i / 50) % 127));
    }
    pes[4] = static_cast<std::uint8_t>((pes.size() - 6) >> 8);
    pes[5] = static_cast<std::uint8_t>(pes.size() - 6);
    return pes;
}

// Is it what the words of a fault call `pid`?
bool is(const std::string& pid, const Packet& p) {
    if (pid == "*")
        return true;
    if (pid.starts_with("pcr"))
        return p.has_pcr() && p.pid() == number(pid.substr(3));
    return pid.starts_with("all") ? p.pid() == number(pid.substr(3))
                                  : p.has_payload() && p.pid() == number(pid);
}

} // namespace

// All that is to be sent, and when it is due.
struct Multiplex::Source {
    struct Due {
        double ms = 0;
        ts::packet_fields fields;
        bool pcr = false;
    };
    std::vector<Due> all;
    double end = 6000;
    double start = 1000;
    double slot = 0; // ms of a packet, 0: a variable rate
    struct Prog {
        ts::program entry{};
        unsigned pcr = 0;
        std::vector<ts::elementary> streams;
    };
    std::vector<Prog> programs;

    void carry(unsigned pid, const ts::bytes& data, double from, double over) {
        const std::size_t count = (data.size() + 183) / 184;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t size = std::min<std::size_t>(184, data.size() - i * 184);
            const auto first = data.begin() + static_cast<std::ptrdiff_t>(i * 184);
            ts::packet_fields f{.pid = pid, .pusi = i == 0};
            f.payload.assign(first, first + static_cast<std::ptrdiff_t>(size));
            if (size < 184)
                f.adapt = ts::adaptation{.pcr = {}, .length = 183 - size};
            all.push_back({from + over * static_cast<double>(i) / static_cast<double>(count), f});
        }
    }
    void section(unsigned pid, const ts::bytes& bytes, double first) {
        for (double t = first; t < end; t += table_every)
            all.push_back({t, {.pid = pid, .pusi = true, .payload = ts::pointed(bytes)}});
    }
    void add(const std::string& word) {
        const std::string what = word.substr(0, word.find('='));
        const auto w =
            split(word.find('=') == std::string::npos ? "0" : word.substr(what.size() + 1), '/');
        const unsigned pid = number(w[0]);
        const auto stream = [&](unsigned type, const ts::bytes& descriptors = {}) {
            programs.back().streams.push_back({type, pid, descriptors});
        };
        if (what == "cbr") {
            slot = 1000.0 / pid;
        } else if (what == "ms") {
            end = pid;
        } else if (what == "start") {
            start = std::stod(w[0]);
        } else if (what[0] == 'p') {
            programs.push_back({{number(what.substr(1)), pid}, number(w.at(1)), {}});
            for (double t = 3; programs.back().pcr != null_pid && t < end; t += std::stod(w.at(2)))
                all.push_back({t, {.pid = number(w[1])}, true});
        } else if (what == "v") {
            stream(0x1B);
            unsigned n = 0;
            for (double t = 5; t < end; t += frame, ++n)
                carry(pid,
                      picture(start + t + video_ahead,
                              number(w.at(1)) + (slot > 0 ? 0 : n * 7919 % 13), n),
                      t, frame);
        } else if (what == "a") {
            stream(0x03);
            unsigned n = 0;
            for (double t = 7; t < end; t += audio_step, ++n)
                carry(pid, sound(start + t + audio_ahead, n), t, audio_step);
        } else if (what == "t") {
            stream(0x06, ts::descriptor(0x56, {'e', 'n', 'g', 9, 0}));
            for (double t = 9; t < end; t += std::stod(w.at(1)))
                carry(pid, ts::pes_header(ts::PRIVATE_ID, {}), t, 0);
        } else if (what == "no") {
            stream(0x1B);
        } else if (what != "vbr") {
            throw std::invalid_argument("no such word: " + word);
        }
    }
    void send(std::vector<Sent>& out) {
        std::vector<ts::program> entries;
        for (const Prog& p : programs) {
            entries.push_back(p.entry);
            section(p.entry.pid, ts::pmt_section(p.entry.number, p.pcr, p.streams), 1);
        }
        section(0, ts::pat_section(entries), 0);
        std::stable_sort(all.begin(), all.end(),
                         [](const Due& a, const Due& b) { return a.ms < b.ms; });
        ts::stream s;
        const double origin = out.empty() ? 0 : out.back().ms + std::max(slot, 1.0);
        std::deque<Due> waiting(all.begin(), all.end());
        for (double now = 0; slot > 0 ? now < end : !waiting.empty();) {
            // A PCR goes in front of what is late, to be where it should be.
            auto next = std::find_if(waiting.begin(), waiting.end(),
                                     [&](const Due& d) { return d.pcr || d.ms > now; });
            if (slot == 0 || next == waiting.end() || next->ms > now)
                next = waiting.begin();
            const bool idle = slot > 0 && (next == waiting.end() || next->ms > now);
            now = slot > 0 ? now : next->ms;
            if (idle)
                s.null();
            else if (next->pcr)
                s.pcr(next->fields.pid, 0);
            else
                s.add(next->fields);
            Sent one{s.packets().back(), origin + now, true, {}, {}};
            if (!idle && next->pcr)
                set_pcr(one.bytes, std::llround((start + now) * ticks_per_ms));
            if (!idle)
                waiting.erase(next);
            out.push_back(one);
            now = slot > 0 ? slot * static_cast<double>(s.size()) : now;
        }
    }
};

void Multiplex::append(const std::string& stream) {
    std::vector<std::string> words = split(stream, ' ');
    std::stable_partition(words.begin(), words.end(), [](const std::string& w) {
        return w.starts_with("cbr") || w.starts_with("ms") || w.starts_with("start");
    });
    Source source;
    for (const std::string& word : words)
        source.add(word);
    constant_ = source.slot > 0;
    source.send(sent_);
}

std::size_t Multiplex::find(const std::string& pid, double ms, std::size_t from) const {
    const auto found =
        std::find_if(sent_.begin() + static_cast<std::ptrdiff_t>(from), sent_.end(),
                     [&](const Sent& s) { return s.ms >= ms && is(pid, Packet(s.bytes.data())); });
    return static_cast<std::size_t>(found - sent_.begin());
}

void Multiplex::recount(unsigned pid, std::size_t from, int by, std::size_t most) {
    for (; from < sent_.size() && most > 0; ++from) {
        auto& b = sent_[from].bytes;
        const Packet p(b.data());
        if (p.pid() != pid)
            continue;
        b[3] = static_cast<std::uint8_t>((b[3] & 0xF0) | ((b[3] + by) & 15));
        most -= p.has_payload() ? 1 : 0;
    }
}

void Multiplex::fault(const std::string& words) {
    const auto w = split(words, ' ');
    const std::string& what = w.at(0);
    const bool timed = what == "away" || what == "cut" || what == "resend" || what == "swap7" ||
                       what == "zero" || what == "end" || what == "datagram";
    const std::string pid = timed || w.size() < 2 ? "*" : w[1];
    const auto arg = [&](std::size_t i, double otherwise = 0) {
        i -= timed ? 1 : 0;
        return i < w.size() ? std::stod(w[i]) : otherwise;
    };
    const auto count = [&](std::size_t i) { return static_cast<std::size_t>(arg(i, 1)); };
    if (what == "tail") {
        tail_ = std::stoll(w.at(1));
        return;
    }
    if (what == "quiet") {
        quiet_ = std::stod(w.at(1));
        return;
    }
    if (what == "arrive") {
        arrivals_us_ = std::stod(w.at(1));
        return;
    }
    if (what == "then") {
        append(words.substr(5));
        return;
    }
    const double ms = arg(2);
    const std::size_t at = find(pid, ms);
    if (at == sent_.size())
        throw std::invalid_argument("no such packet: " + words);
    const auto place = sent_.begin() + static_cast<std::ptrdiff_t>(at);
    const Packet found(place->bytes.data());
    // So many packets, or all up to a time.
    const auto each = [&](std::size_t most, double to, const std::function<void(Sent&)>& doing) {
        for (std::size_t i = at; i < sent_.size() && sent_[i].ms < to && most > 0; --most) {
            doing(sent_[i]);
            i = find(pid, ms, i + 1);
        }
    };
    if (what == "away") {
        const auto to = static_cast<std::ptrdiff_t>(find("*", arg(3)));
        sent_.erase(place, sent_.begin() + to);
    } else if (what == "drop" || what == "cut" || what == "own") {
        for (std::size_t i = at, n = count(3); n > 0 && i < sent_.size(); --n, i = find(pid, ms))
            sent_.erase(sent_.begin() + static_cast<std::ptrdiff_t>(i));
        if (what == "own")
            sent_.at(at).own_drops = true;
        if (what == "cut")
            sent_.at(at).loss = SyncLoss{Kind::missing, at * packet_size, at * packet_size + 1,
                                         static_cast<std::int64_t>(arg(4))};
    } else if (what == "datagram") {
        const std::string& kind = w.at(2);
        const auto n = static_cast<std::ptrdiff_t>(arg(4));
        if (kind == "loss")
            sent_.erase(place, place + 7 * n);
        sent_.at(at).datagrams = {kind == "loss"    ? Kind::loss
                                  : kind == "order" ? Kind::order
                                                    : Kind::duplicate,
                                  n, 7 * n};
    } else if (what == "again") {
        const Sent copy = *place;
        sent_.insert(place + 1, count(3), copy);
    } else if (what == "resend") {
        const std::vector<Sent> copies(place, place + static_cast<std::ptrdiff_t>(count(3)));
        sent_.insert(place + static_cast<std::ptrdiff_t>(copies.size()), copies.begin(),
                     copies.end());
    } else if (what == "swap") {
        std::swap(place->bytes, sent_.at(find(pid, ms, at + 1)).bytes);
    } else if (what == "swap7") {
        std::rotate(place, place + 7, place + 14);
    } else if (what == "count") {
        recount(found.pid(), at, static_cast<int>(arg(3)), w.size() > 4 ? count(4) : SIZE_MAX);
    } else if (what == "freeze") {
        const unsigned same = found.counter();
        each(count(3), HUGE_VAL,
             [&](Sent& s) { s.bytes[3] = static_cast<std::uint8_t>((s.bytes[3] & 0xF0) | same); });
    } else if (what == "mark") {
        each(count(3), HUGE_VAL, [n = std::uint8_t{0}](Sent& s) mutable { s.bytes[187] = n++; });
    } else if (what == "flag") {
        place->bytes[5] |= 0x80;
    } else if (what == "flagged") {
        Sent& slot = sent_.at(find(std::to_string(null_pid), ms)); // takes that of a null packet
        slot.bytes = ts::make_packet(
            {.pid = found.pid(), .cc = (found.counter() + 15) & 15, .has_payload = false});
        slot.bytes[5] = 0x80;
        if (slot.ms > place->ms)
            std::swap(slot.bytes, place->bytes);
    } else if (what == "jump" || what == "nudge") {
        const double ticks = arg(3) * (what == "jump" ? ticks_per_ms : 1);
        each(what == "jump" ? SIZE_MAX : 1, HUGE_VAL, [&](Sent& s) {
            set_pcr(s.bytes, Packet(s.bytes.data()).pcr() + std::llround(ticks));
        });
    } else if (what == "shift") {
        each(SIZE_MAX, HUGE_VAL, [&](Sent& s) {
            if (Packet(s.bytes.data()).unit_start())
                shift_stamps(s.bytes, arg(3));
        });
    } else if (what == "stop" || what == "hide") {
        const double to = arg(3, HUGE_VAL);
        for (std::size_t i = at; i < sent_.size() && sent_[i].ms < to;) {
            const Packet p(sent_[i].bytes.data());
            if (what == "stop" && p.has_payload() && p.pid() != null_pid)
                recount(p.pid(), i + 1, -1);
            if (constant_)
                sent_[i++].bytes = ts::make_packet({});
            else
                sent_.erase(sent_.begin() + static_cast<std::ptrdiff_t>(i));
            i = find(pid, ms, i);
        }
    } else if (what == "tei") {
        each(count(3), HUGE_VAL, [](Sent& s) { s.bytes[1] |= 0x80; });
    } else if (what == "wrong") {
        each(count(3), HUGE_VAL, [](Sent& s) { s.bytes[0] = 0x48, s.right = false; });
    } else if (what == "zero") {
        each(count(3), HUGE_VAL, [](Sent& s) { s.bytes = {}, s.right = false; });
    } else if (what == "scramble") {
        each(SIZE_MAX, arg(3), [](Sent& s) { s.bytes[3] |= 0x80; });
    } else if (what == "end") {
        sent_.erase(place, sent_.end());
    } else {
        throw std::invalid_argument("no such fault: " + words);
    }
}

void Multiplex::feed(Stream& stream, std::size_t piece) const {
    std::vector<std::uint8_t> bytes;
    for (const Sent& s : sent_)
        bytes.insert(bytes.end(), s.bytes.begin(), s.bytes.end());
    for (std::size_t i = 0; i < sent_.size();) {
        if (sent_[i].loss)
            stream.sync_loss(*sent_[i].loss);
        if (sent_[i].datagrams)
            stream.datagrams(*sent_[i].datagrams);
        if (sent_[i].own_drops)
            stream.own_drops();
        std::size_t n = 0; // packets that need no telling
        while (
            piece > 0 && arrivals_us_ == 0 && n < piece && i + n < sent_.size() &&
            sent_[i + n].right &&
            (n == 0 || (!sent_[i + n].loss && !sent_[i + n].datagrams && !sent_[i + n].own_drops)))
            ++n;
        PacketInfo info;
        info.byte = i * packet_size;
        info.sync_right = sent_[i].right;
        if (arrivals_us_ > 0)
            info.arrival = std::llround(static_cast<double>(i) * arrivals_us_ * 27);
        if (n > 0)
            stream.packets(&bytes[i * packet_size], n, packet_size, info.byte);
        else
            stream.packet(&bytes[i * packet_size], info);
        i += std::max<std::size_t>(n, 1);
    }
    if (tail_ > 0)
        stream.truncated(bytes.size(), tail_);
    stream.end();
}

void Multiplex::play(Stream& stream, double tick, const std::function<void(double)>& told) const {
    const auto ticks = [](double ms) {
        return static_cast<Ticks>(std::llround(ms * ticks_per_ms));
    };
    double next = tick;
    double now = 0;
    for (std::size_t i = 0; i < sent_.size(); ++i) {
        now = std::max(now, sent_[i].ms);
        for (; next < now; next += tick) {
            told(next);
            stream.tick(ticks(next), std::llround(next * 1000));
        }
        told(now);
        if (sent_[i].loss)
            stream.sync_loss(*sent_[i].loss);
        if (sent_[i].datagrams)
            stream.datagrams(*sent_[i].datagrams);
        if (sent_[i].own_drops)
            stream.own_drops();
        const auto utc_us = static_cast<std::int64_t>(std::llround(now * 1000));
        stream.packet(sent_[i].bytes.data(), {i * packet_size, ticks(now), utc_us, sent_[i].right});
    }
    for (const double end = now + quiet_; next < end; next += tick) {
        told(now = next);
        stream.tick(ticks(next), std::llround(next * 1000));
    }
    if (tail_ > 0)
        stream.truncated(sent_.size() * packet_size, tail_);
    told(now);
    stream.end();
}

} // namespace quarn
