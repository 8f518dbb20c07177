// PES headers, and what is learnt from one stamp to the next.
#include "pes.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {

constexpr std::size_t length_end = 6;  // start code, stream_id, PES_packet_length
constexpr std::size_t fixed_end = 9;   // the flags and PES_header_data_length besides
constexpr std::size_t stamp_bytes = 5; // a PTS or DTS

/// Streams that come in sections, not in PES packets (ISO/IEC 13818-1, table 2-34).
bool is_in_sections(const ElementaryStream& stream) {
    const std::uint8_t type = stream.stream_type;
    return type == 0x05 || (type >= 0x0A && type <= 0x0D) || type == 0x14 || type == 0x16 ||
           stream.kind == StreamKind::scte35 || stream.codec == Codec::dsmcc;
}

/// Whether PES packets of that stream_id have flags and stamps (2.4.3.7).
bool has_flags(std::uint8_t stream_id) {
    switch (stream_id) {
    case 0xBC: // program_stream_map
    case 0xBE: // padding_stream
    case 0xBF: // private_stream_2
    case 0xF0: // ECM
    case 0xF1: // EMM
    case 0xF2: // DSM-CC
    case 0xF8: // ITU-T H.222.1 type E
    case 0xFF: // program_stream_directory
        return false;
    default:
        return true;
    }
}

/// Bytes of a header up to its last stamp, as far as they are known to be needed: more bytes may
/// tell of more. 0: this is no PES header.
std::size_t needed(std::span<const std::uint8_t> header) {
    static constexpr std::array<std::uint8_t, 3> start_code = {0, 0, 1};
    const std::size_t known = std::min(header.size(), start_code.size());
    if (!std::equal(header.begin(), header.begin() + static_cast<std::ptrdiff_t>(known),
                    start_code.begin()))
        return 0;
    if (header.size() < length_end || !has_flags(header[3]))
        return length_end;
    if (header.size() < fixed_end)
        return fixed_end;
    if (header[6] >> 6 != 2)
        return 0;
    const unsigned flags = header[7] >> 6;
    const std::size_t stamps = flags == 2 ? stamp_bytes : flags == 3 ? 2 * stamp_bytes : 0;
    return header[8] >= stamps ? fixed_end + stamps : fixed_end;
}

/// A PTS or DTS; none where its prefix or marker bits are wrong.
std::optional<std::int64_t> read_stamp(const std::uint8_t* b, unsigned prefix) {
    if (b[0] >> 4 != prefix || !(b[0] & 1) || !(b[2] & 1) || !(b[4] & 1))
        return std::nullopt;
    return std::int64_t{b[0] >> 1 & 7} << 30 | b[1] << 22 | (b[2] >> 1) << 15 | b[3] << 7 |
           b[4] >> 1;
}

} // namespace

void PesFront::programs(const Programs& programs) {
    std::vector<Unit> units;
    std::array<std::uint16_t, pid_count> slots{};
    slots.fill(none);
    for (const Program& program : programs.programs) {
        for (const ElementaryStream& stream : program.streams) {
            if (stream.pid >= null_pid || slots[stream.pid] != none || is_in_sections(stream))
                continue;
            const std::uint16_t before = slots_[stream.pid];
            slots[stream.pid] = static_cast<std::uint16_t>(units.size());
            if (before != none && units_[before].stream_type == stream.stream_type &&
                units_[before].codec == stream.codec) {
                units.push_back(units_[before]);
                continue;
            }
            Unit& unit = units.emplace_back();
            unit.pid = stream.pid;
            unit.stream_type = stream.stream_type;
            unit.codec = stream.codec;
            unit.counted = AudioFrames::counts(stream.codec);
            unit.plain = !unit.counted;
            unit.frames = AudioFrames(stream.codec);
        }
    }
    units_ = std::move(units);
    slots_ = slots;
}

void PesFront::disturbed(std::uint16_t pid) {
    if (slots_[pid] == none)
        return;
    Unit& unit = units_[slots_[pid]];
    unit.disturbed = true;
    unit.frames.lose();
}

void PesFront::disturbed() {
    for (const Unit& unit : units_)
        disturbed(unit.pid);
}

/// A packet that begins a unit, or may hold what is to be read.
void PesFront::look(Unit& unit, const At& at, const Packet& packet) {
    if (unit.reading && (packet.unit_start() || unit.disturbed))
        emit(unit, at, false); // the end of its header is missing
    if (packet.unit_start())
        begin(unit);
    std::span<const std::uint8_t> bytes = packet.payload();
    ++unit.packets;
    unit.received += static_cast<std::uint32_t>(bytes.size());
    if (unit.reading)
        bytes = bytes.subspan(read_header(unit, at, bytes));
    if (!unit.counted || !unit.carries)
        return;
    const std::size_t skip = std::min<std::size_t>(unit.skip, bytes.size());
    unit.skip -= static_cast<std::uint32_t>(skip);
    bytes = bytes.subspan(skip);
    if (unit.declared > 0) {
        bytes = bytes.first(std::min<std::size_t>(unit.left, bytes.size()));
        unit.left -= static_cast<std::uint32_t>(bytes.size());
    }
    unit.frames.feed(bytes);
}

void PesFront::begin(Unit& unit) {
    PesEvent& e = unit.event;
    e = {};
    e.pid = unit.pid;
    e.disturbed = unit.disturbed;
    e.packets = unit.packets;
    e.received = unit.received - std::min(unit.received, std::uint32_t{length_end});
    e.declared = unit.declared;
    unit.disturbed = false;
    unit.packets = 0;
    unit.received = 0;
    unit.declared = 0;
    unit.reading = true;
    unit.plain = false;
    unit.carries = false;
    unit.header_size = 0;
    unit.skip = 0;
    unit.left = 0;
}

/// Takes what belongs to the header and, when it is complete up to its stamps, emits its event.
/// Returns how many bytes it took.
std::size_t PesFront::read_header(Unit& unit, const At& at, std::span<const std::uint8_t> bytes) {
    std::size_t taken = 0;
    for (;;) {
        const std::size_t need = needed({unit.header.data(), unit.header_size});
        if (need == 0) {
            emit(unit, at, false);
            return taken;
        }
        if (need == unit.header_size) {
            emit(unit, at, true);
            return taken;
        }
        if (taken == bytes.size()) {
            unit.event.split = true;
            return taken;
        }
        const std::size_t n = std::min(need - unit.header_size, bytes.size() - taken);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(taken), n,
                    unit.header.begin() + unit.header_size);
        unit.header_size = static_cast<std::uint8_t>(unit.header_size + n);
        taken += n;
    }
}

/// The header is read, or turned out to be none.
void PesFront::emit(Unit& unit, const At& at, bool valid) {
    unit.reading = false;
    unit.plain = !unit.counted;
    PesEvent& e = unit.event;
    e.valid = valid;
    const bool is_short = e.received < e.declared; // packets are missing, though counters fit
    unit.whole = unit.whole && !e.disturbed && !is_short && valid;
    unit.packets_since += e.packets;
    const std::array<std::uint8_t, stamps_end>& h = unit.header;
    if (valid) {
        e.stream_id = h[3];
        unit.declared = static_cast<std::uint32_t>(h[4] << 8 | h[5]);
        unit.carries = has_flags(e.stream_id);
    }
    if (!valid || !unit.carries) {
        if (!valid)
            unit.frames.lose();
        e.starts = unit.starts_since;
        sink_.event(at, EventBody(e));
        return;
    }
    if (unit.header_size >= fixed_end + stamp_bytes)
        e.pts = read_stamp(&h[fixed_end], unit.header_size == stamps_end ? 3 : 2);
    if (e.pts && unit.header_size == stamps_end) {
        e.dts = read_stamp(&h[fixed_end + stamp_bytes], 1);
        if (!e.dts)
            e.pts.reset(); // one of two is damaged: trust neither
    }
    unit.skip = h[8] + static_cast<std::uint32_t>(fixed_end) - unit.header_size;
    const std::uint32_t head = 3u + h[8];
    unit.left = unit.declared > head ? unit.declared - head : 0;
    ++unit.starts;
    e.starts = ++unit.starts_since;
    if (e.pts)
        note_stamp(unit);
    if (unit.counted)
        unit.frames.start_unit();
    sink_.event(at, EventBody(e));
}

/// The unit's event has a stamp: what lies between the one before and this one?
void PesFront::note_stamp(Unit& unit) {
    PesEvent& e = unit.event;
    if (unit.counted) {
        const std::optional<AudioTime> time = unit.frames.take();
        if (time && unit.whole)
            e.frame_ticks = static_cast<double>(*time) / static_cast<double>(audio_time_per_tick);
    }
    const std::int64_t stamp = *e.stamp();
    if (unit.whole && unit.stamp) {
        const std::int64_t ticks = clock_distance(*unit.stamp, stamp, stamp_wrap);
        const double off = e.frame_ticks ? static_cast<double>(ticks) - *e.frame_ticks : 0;
        const bool is_usual = ticks > 0 && ticks < longest_step && off > -900 && off < 900;
        if (is_usual)
            unit.steps[unit.step_count++ % unit.steps.size()] = {
                ticks, unit.starts_since, unit.packets_since, ticks / unit.starts_since};
        if (is_usual)
            unit.usual = usual(unit);
    }
    unit.stamp = stamp;
    unit.whole = true;
    unit.starts_since = 0;
    unit.packets_since = 0;
}

std::uint64_t PesFront::starts(std::uint16_t pid) const {
    const Unit* unit = find(pid);
    return unit ? unit->starts : 0;
}

/// Sum of the last steps without those that are far from most: jumps, left out pictures.
PesFront::Step PesFront::usual(const Unit& unit) {
    const std::size_t count = std::min(unit.step_count, unit.steps.size());
    if (count < 3)
        return {};
    std::array<std::int64_t, 16> each{};
    for (std::size_t i = 0; i < count; ++i)
        each[i] = unit.steps[i].each;
    const auto middle = each.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(each.begin(), middle, each.begin() + static_cast<std::ptrdiff_t>(count));
    const std::int64_t median = *middle;
    Step sum;
    for (std::size_t i = 0; i < count; ++i) {
        const Step& step = unit.steps[i];
        if (2 * step.each >= median && step.each <= 2 * median)
            sum = {sum.ticks + step.ticks, sum.starts + step.starts, sum.packets + step.packets, 0};
    }
    return sum;
}

double PesFront::ticks_per_start(std::uint16_t pid) const {
    const Unit* unit = find(pid);
    const Step sum = unit ? unit->usual : Step{};
    return sum.starts > 0 ? static_cast<double>(sum.ticks) / sum.starts : 0;
}

double PesFront::packets_per_second(std::uint16_t pid) const {
    const Unit* unit = find(pid);
    const Step sum = unit ? unit->usual : Step{};
    return sum.ticks > 0 ? sum.packets * 90'000.0 / static_cast<double>(sum.ticks) : 0;
}

} // namespace quarn
