// make_capture.cpp - writes a transport stream of a wanted size, for measuring programs on it:
//
//     make_capture clean|mux|alerts BYTES FILE
//
// clean   one program, one video and two audio streams, about 4.7 Mbit/s
// mux     32 programs of 64 streams, all of the same rate
// alerts  as clean, but at every tenth packet the next stream packet's counter is out of order
//
// The streams are constant in rate and continuous: tables every 100 ms, a PCR about every 40 ms,
// MPEG-2 pictures and audio frames with the headers that decoders' parsers look for, null packets
// where nothing is due. The bytes between the headers are pseudo-random and the same in each run.
// PTS of audio never come closer to those of video than 4 ms, except to be equal.
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "ts_builder.h"

namespace {

constexpr double CLOCK = 90000;           // ticks a second
constexpr std::uint64_t ORIGIN = 900'000; // PCR of the first packet
constexpr std::uint64_t LEAD = 27'000;    // a stamp is this far ahead of its arrival
constexpr double TABLE_PERIOD = 0.1;      // seconds
constexpr double BURST_GAP = 0.001;       // seconds between the packets of a section
constexpr double PCR_PERIOD = 0.038;      // seconds after which the next packet carries a PCR
constexpr double RUN_IN = 0.3;            // seconds without faults, every stream has begun by then
constexpr double FILLED = 0.96;           // share of packets that are not null packets
constexpr std::size_t PAYLOAD = ts::PACKET_SIZE - 4;
constexpr std::size_t PCR_ROOM = 8; // bytes of an adaptation field with a PCR
constexpr std::uint64_t STAMP_GRID = 720;
constexpr double GROUP = 0.48; // seconds of a group of pictures

// ---- payload -----------------------------------------------------------------------------------

// Appends bytes that hold no start code: none of them is 0.
void append_noise(ts::bytes& out, std::size_t count) {
    static std::uint64_t state = 0x9e3779b97f4a7c15;
    const std::size_t end = out.size() + count;
    out.resize(end + sizeof state);
    for (std::size_t at = end - count; at < end; at += sizeof state) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        const std::uint64_t odd = state | 0x0101010101010101;
        std::memcpy(&out[at], &odd, sizeof odd);
    }
    out.resize(end);
}

void append(ts::bytes& out, const ts::bytes& more) {
    out.insert(out.end(), more.begin(), more.end());
}

enum class picture : unsigned { intra = 1, predicted = 2, between = 3 };

// Headers of an MPEG-2 picture (ISO/IEC 13818-2, 6.2.2 and 6.2.3) up to its first slice.
ts::bytes picture_headers(picture type, unsigned display) {
    ts::bytes h;
    if (type == picture::intra)
        h = {0, 0, 1, 0xb3, 0x2d, 0x02, 0x40, 0x33, 0x09, 0xc4, 0x23, 0x80, // sequence
             0, 0, 1, 0xb5, 0x14, 0x82, 0x00, 0x01, 0x00, 0x00,             // extension
             0, 0, 1, 0xb8, 0x00, 0x08, 0x00, 0x40};                        // group
    // temporal_reference, type, vbv_delay, then a forward and a backward code of fixed value
    std::uint64_t bits = display;
    bits = bits << 3 | static_cast<unsigned>(type);
    bits = bits << 16 | 0xffff;
    unsigned count = 29;
    for (unsigned code = 1; code < static_cast<unsigned>(type); code++) {
        bits = bits << 4 | 7;
        count += 4;
    }
    bits <<= 40 - count;
    append(h, {0, 0, 1, 0});
    for (unsigned shift : {32U, 24U, 16U, 8U, 0U})
        h.push_back(static_cast<std::uint8_t>(bits >> shift));
    append(h, {0, 0, 1, 0xb5, 0x8f, 0xff, 0xf3, 0x41, 0x80}); // picture coding extension
    append(h, {0, 0, 1, 1});                                  // slice
    return h;
}

// An audio coding with frames of constant size.
struct audio_coding {
    unsigned stream_type;
    unsigned stream_id;
    ts::bytes head; // of every frame
    std::size_t size;
    std::uint64_t ticks;
};

// Both at 192 kbit/s and 48 kHz.
const audio_coding LAYER2 = {3, ts::AUDIO_ID, {0xff, 0xfd, 0xa4, 0x01}, 576, 2160};
const audio_coding AC3 = {
    0x81, ts::PRIVATE_ID, {0x0b, 0x77, 0x55, 0x55, 0x14, 0x40, 0x41}, 768, 2880};

// ---- sources -----------------------------------------------------------------------------------

// What shares the multiplex: hands out one packet after the other, each when it is due.
class source {
  public:
    source(unsigned pid, double first) : due_(first), pid_(pid) {}
    source(const source&) = delete;
    source& operator=(const source&) = delete;
    virtual ~source() = default;
    virtual ts::packet next(double now) = 0;
    [[nodiscard]] virtual double rate() const = 0; // packets a second
    [[nodiscard]] double due() const { return due_; }
    [[nodiscard]] virtual bool is_checked() const { return true; } // its counter is followed

    // Puts the next counter out of order, and never to 0: what a jump to 0 means depends on time.
    void break_counter() { cc_ += (cc_ + 1) % 16 == 0 ? 2U : 1U; }

  protected:
    unsigned step() { return cc_++ % 16; }

    double due_; // seconds from the start
    unsigned pid_;

  private:
    unsigned cc_ = 0;
};

// A section, repeated.
class table : public source {
  public:
    table(unsigned pid, double first, const ts::bytes& section)
        : source(pid, first), packets_(ts::section_packets(pid, 0, {section})) {}
    double rate() const override { return static_cast<double>(packets_.size()) / TABLE_PERIOD; }
    bool is_checked() const override { return false; }

    ts::packet next(double) override {
        ts::packet p = packets_[at_];
        p[3] = static_cast<std::uint8_t>((p[3] & 0xf0U) | step());
        at_ = (at_ + 1) % packets_.size();
        const double burst = BURST_GAP * static_cast<double>(packets_.size() - 1);
        due_ += at_ != 0 ? BURST_GAP : TABLE_PERIOD - burst;
        return p;
    }

  private:
    std::vector<ts::packet> packets_;
    std::size_t at_ = 0;
};

// An elementary stream: PES packets, each spread over the time until the next one starts.
class elementary : public source {
  public:
    elementary(unsigned pid, double first, bool with_pcr)
        : source(pid, first), stamp_(stamp_grid(first)), with_pcr_(with_pcr) {}

    ts::packet next(double now) override {
        if (used_ == pes_.size())
            open_pes();
        ts::packet_fields fields{.pid = pid_, .cc = step(), .pusi = used_ == 0};
        std::size_t room = PAYLOAD;
        if (with_pcr_ && now - last_pcr_ >= PCR_PERIOD) {
            const auto ticks = static_cast<std::uint64_t>(now * CLOCK);
            fields.adapt = ts::adaptation{.pcr = ORIGIN + ticks};
            room -= PCR_ROOM;
            last_pcr_ = now;
        }
        const std::size_t count = std::min(room, pes_.size() - used_);
        if (count < room) {
            fields.adapt = fields.adapt.value_or(ts::adaptation{});
            fields.adapt->length = PAYLOAD - count - 1;
        }
        const auto from = pes_.begin() + static_cast<std::ptrdiff_t>(used_);
        fields.payload.assign(from, from + static_cast<std::ptrdiff_t>(count));
        used_ += count;
        due_ = used_ < pes_.size() ? due_ + step_ : next_start_;
        return ts::make_packet(fields);
    }

  protected:
    struct pes_plan {
        ts::bytes bytes;
        double end; // seconds from the stream's own start until the next one begins
    };
    virtual pes_plan plan() = 0;

    // Stamp of something that is `ticks` into the stream.
    [[nodiscard]] std::uint64_t stamp(std::uint64_t ticks) const { return stamp_ + ticks; }

  private:
    static std::uint64_t stamp_grid(double first) {
        const auto ticks = static_cast<std::uint64_t>(first * CLOCK);
        return ORIGIN + LEAD + ticks / STAMP_GRID * STAMP_GRID;
    }

    void open_pes() {
        if (start_ < 0)
            start_ = due_;
        pes_plan p = plan();
        pes_ = std::move(p.bytes);
        used_ = 0;
        next_start_ = start_ + p.end;
        // Room for the PCRs that may fall into it.
        const std::size_t count = pes_.size() / PAYLOAD + 2;
        step_ = (next_start_ - due_) / static_cast<double>(count);
    }

    std::uint64_t stamp_;
    bool with_pcr_;
    double last_pcr_ = -1;
    double start_ = -1;
    double next_start_ = 0;
    double step_ = 0;
    ts::bytes pes_;
    std::size_t used_ = 0;
};

// 25 pictures a second in groups of twelve: I B B P B B P ..., sent in coding order.
class video : public elementary {
  public:
    video(unsigned pid, double first, double bit_rate)
        : elementary(pid, first, true), group_bytes_(bit_rate * GROUP / 8) {}
    double rate() const override {
        return group_bytes_ / GROUP / static_cast<double>(PAYLOAD - 4) + 1 / PCR_PERIOD / 20;
    }

  protected:
    pes_plan plan() override {
        static constexpr unsigned FRAMES = 12;
        static constexpr std::uint64_t TICKS = 3600;
        const auto in_group = static_cast<unsigned>(index_ % FRAMES);
        const bool is_anchor = in_group % 3 == 0;
        const picture type = in_group == 0 ? picture::intra
                             : is_anchor   ? picture::predicted
                                           : picture::between;
        ts::stamps when{.pts = stamp(index_ * TICKS)};
        if (is_anchor) { // shown when the two pictures behind it have been
            when.dts = when.pts;
            when.pts = stamp((index_ + 3) * TICKS);
        }
        ts::bytes pes = ts::pes_header(ts::VIDEO_ID, when);
        append(pes, picture_headers(type, is_anchor ? in_group + 2 : in_group - 1));
        const double size = group_bytes_ * share(type);
        append_noise(pes, static_cast<std::size_t>(size));
        index_++;
        sent_ = in_group == 0 ? share(type) : sent_ + share(type);
        const std::uint64_t groups = (index_ - 1) / FRAMES;
        return {std::move(pes), (static_cast<double>(groups) + sent_) * GROUP};
    }

  private:
    // Of a group: one I, three P and eight B pictures make 1.
    static constexpr double share(picture type) {
        return type == picture::intra ? 0.32 : type == picture::predicted ? 0.12 : 0.04;
    }

    double group_bytes_;
    std::uint64_t index_ = 0;
    double sent_ = 0;
};

class audio : public elementary {
  public:
    audio(unsigned pid, double first, const audio_coding& coding, unsigned frames)
        : elementary(pid, first, false), coding_(coding), frames_(frames) {}
    double rate() const override {
        const std::size_t count = (coding_.size * frames_ + 14) / PAYLOAD + 1;
        return static_cast<double>(count) / duration();
    }

  protected:
    pes_plan plan() override {
        const ts::stamps when{.pts = stamp(index_ * frames_ * coding_.ticks + STAMP_GRID / 2)};
        ts::bytes pes = ts::pes_header(coding_.stream_id, when);
        for (unsigned i = 0; i < frames_; i++) {
            append(pes, coding_.head);
            append_noise(pes, coding_.size - coding_.head.size());
        }
        const std::size_t length = pes.size() - 6;
        pes[4] = static_cast<std::uint8_t>(length >> 8);
        pes[5] = static_cast<std::uint8_t>(length);
        index_++;
        return {std::move(pes), static_cast<double>(index_) * duration()};
    }

  private:
    [[nodiscard]] double duration() const {
        return static_cast<double>(frames_ * coding_.ticks) / CLOCK;
    }

    const audio_coding& coding_;
    unsigned frames_; // in a PES packet
    std::uint64_t index_ = 0;
};

// ---- multiplex ---------------------------------------------------------------------------------

using sources = std::vector<std::unique_ptr<source>>;

sources one_program() {
    constexpr unsigned pmt_pid = 0x100;
    constexpr unsigned pid = 0x101;
    sources all;
    all.push_back(std::make_unique<table>(0, 0, ts::pat_section({{1, pmt_pid}})));
    all.push_back(std::make_unique<table>(
        pmt_pid, 0, ts::pmt_section(1, pid, {{2, pid}, {3, pid + 1}, {3, pid + 2}})));
    all.push_back(std::make_unique<video>(pid, 0.001, 4e6));
    all.push_back(std::make_unique<audio>(pid + 1, 0.002, LAYER2, 4));
    all.push_back(std::make_unique<audio>(pid + 2, 0.05, LAYER2, 4));
    return all;
}

// Audio of 63 packets to a PES packet, as in one_program on the average of its streams. AC-3 has a
// short name: the rendering of 64 streams of other types would be longer than the analyzer keeps.
sources many_programs() {
    constexpr unsigned PROGRAMS = 32;
    constexpr unsigned STREAMS = 64;
    constexpr double SPREAD = GROUP / STREAMS / PROGRAMS;
    sources all;
    std::vector<ts::program> programs;
    for (unsigned i = 0; i < PROGRAMS; i++) {
        const unsigned pmt_pid = 32 + i;
        const unsigned pid = 100 + i * STREAMS;
        const double first = TABLE_PERIOD * i / PROGRAMS;
        programs.push_back({i + 1, pmt_pid});
        std::vector<ts::elementary> streams{{2, pid}};
        all.push_back(std::make_unique<video>(pid, SPREAD * i, 190e3));
        for (unsigned j = 1; j < STREAMS; j++) {
            streams.push_back({AC3.stream_type, pid + j});
            all.push_back(std::make_unique<audio>(pid + j, SPREAD * (j * PROGRAMS + i), AC3, 15));
        }
        all.push_back(
            std::make_unique<table>(pmt_pid, first, ts::pmt_section(i + 1, pid, streams)));
    }
    all.push_back(std::make_unique<table>(0, 0, ts::pat_section(programs)));
    return all;
}

// Writes packets of all sources in the order in which they are due. Every `fault` packets the next
// stream packet gets a counter out of order; 0: never.
bool write_packets(FILE* out, sources& all, std::uint64_t count, std::uint64_t fault) {
    using entry = std::pair<double, source*>;
    std::priority_queue<entry, std::vector<entry>, std::greater<>> queue;
    double rate = 0;
    for (const auto& s : all) {
        queue.emplace(s->due(), s.get());
        rate += s->rate();
    }
    const double slot = FILLED / rate;
    const ts::packet null = ts::make_packet({});
    std::uint64_t faults = 0;
    std::uint64_t pending = 0;
    for (std::uint64_t i = 0; i < count; i++) {
        const double now = static_cast<double>(i) * slot;
        if (fault != 0 && i % fault == 0 && now > RUN_IN)
            pending++;
        ts::packet p = null;
        if (queue.top().first <= now) {
            source* s = queue.top().second;
            queue.pop();
            if (pending > 0 && s->is_checked()) {
                s->break_counter();
                pending--;
                faults++;
            }
            p = s->next(now);
            queue.emplace(s->due(), s);
        }
        if (fwrite(p.data(), p.size(), 1, out) != 1)
            return false;
    }
    std::printf("%llu packets, %llu faults, %.1f s\n", static_cast<unsigned long long>(count),
                static_cast<unsigned long long>(faults), static_cast<double>(count) * slot);
    return true;
}

int usage() {
    std::fputs("usage: make_capture clean|mux|alerts BYTES FILE\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 4)
        return usage();
    const std::string kind = argv[1];
    const std::uint64_t size = std::strtoull(argv[2], nullptr, 10);
    if ((kind != "clean" && kind != "mux" && kind != "alerts") || size == 0)
        return usage();
    FILE* out = std::fopen(argv[3], "wb");
    if (!out) {
        std::perror(argv[3]);
        return 1;
    }
    // Large writes lie in the page cache in large pieces, which are quicker to read: what is
    // measured on such a file leaves the reading program the smallest share of the time.
    static char buffer[std::size_t{1} << 20];
    std::setvbuf(out, buffer, _IOFBF, sizeof buffer);
    sources all = kind == "mux" ? many_programs() : one_program();
    const std::uint64_t count = (size + ts::PACKET_SIZE - 1) / ts::PACKET_SIZE;
    const bool written = write_packets(out, all, count, kind == "alerts" ? 10 : 0);
    if (std::fclose(out) != 0 || !written) {
        std::perror(argv[3]);
        return 1;
    }
    return 0;
}
