// What a stream was like over time, for plots: bit rates, clocks, leads of stamps, losses, tables.
// Filled where Options::series asks for it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quarn {

/// Buckets that a series has at most. When they run out each takes in its neighbour and all are
/// twice as wide.
inline constexpr std::size_t most_buckets = 1024;

/// A value, and the packet that it was measured at.
struct Sample {
    double value = 0;
    std::uint64_t packet = 0; // number in the input, from 1
    std::uint64_t byte = 0;   // offset of its sync byte
};

/// The smallest and the largest value in a bucket.
struct Extremes {
    std::uint32_t count = 0; // values; 0: none, and no samples
    Sample low;
    Sample high;

    void add(const Sample& sample);
    void add(const Extremes& other);
};

/// Packets that were lost in a bucket.
struct LossCount {
    std::uint64_t events = 0;
    std::uint64_t packets = 0; // as far as known
    Sample worst;              // the event that lost most, with its number of packets

    void add(const LossCount& other);
};

/// The first packet in a bucket.
struct FirstPacket {
    std::uint64_t packet = 0; // from 1; 0: no packet
    std::uint64_t byte = 0;

    void add(const FirstPacket& other);
};

/// Packets that came in a bucket; parts where a look at the counters covers several buckets.
struct PacketCount {
    double packets = 0;

    void add(const PacketCount& other) { packets += other.packets; }
};

template <class Cell>
using Buckets = std::vector<Cell>; // the first begins at 0; those behind the last are empty

/// Each two neighbours in one, as when buckets run out.
template <class Cell>
void halve(Buckets<Cell>& buckets) {
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        const Cell cell = buckets[i];
        if (i % 2 == 0)
            buckets[i / 2] = cell;
        else
            buckets[i / 2].add(cell);
    }
    buckets.resize((buckets.size() + 1) / 2);
}

/// Buckets that grow as they are filled.
template <class Cell>
struct Filling {
    Buckets<Cell> buckets;
    std::int64_t width = 0; // has to be set before at()

    void widen(std::int64_t to) {
        for (; width < to; width *= 2)
            halve(buckets);
    }
    /// The bucket that `x`, from 0 on, falls into.
    Cell& at(std::int64_t x) {
        while (x / width >= static_cast<std::int64_t>(most_buckets))
            widen(width * 2);
        const auto i = static_cast<std::size_t>(x / width);
        if (i >= buckets.size())
            buckets.resize(i + 1);
        return buckets[i];
    }
};

/// All series have buckets of one width, the first from 0 on. Where there are more pids, programs
/// or tables than have a series of their own, `left_out` says how many, and their packets are in
/// `other`. Memory: some 15 MB at most, whatever the length of the stream and what is in it.
struct TimeSeries {
    struct OfPid {
        std::uint16_t pid = 0;
        Buckets<Extremes> buckets;
    };
    struct Packets {
        std::uint16_t pid = 0; // null packets have theirs
        Buckets<PacketCount> buckets;
    };
    struct PcrIntervals {
        std::uint16_t pid = 0;
        Buckets<Extremes> buckets; // ms between two PCRs
        /// How many were 0 to 1 ms, 1 to 2 ms, ...; the last: all longer ones.
        std::array<std::uint64_t, 257> histogram{};
    };
    struct Offset {
        std::uint16_t program = 0;
        std::uint16_t video = 0; // pids
        std::uint16_t audio = 0;
        Buckets<Extremes> buckets; // ms that stamps of the sound are ahead of the picture's
    };
    struct Losses {
        int pid = -1; // -1: losses whose pid is not known
        Buckets<LossCount> buckets;
    };
    struct Table {
        std::uint16_t pid = 0;
        std::uint8_t table_id = 0;
        double limit_ms = 0;
        Buckets<Extremes> buckets; // ms between two sections that should repeat
    };
    /// How many have no series of their own.
    struct LeftOut {
        std::size_t packets = 0;
        std::size_t pcr_intervals = 0;
        std::size_t pcr_errors = 0;
        std::size_t leads = 0;
        std::size_t offsets = 0;
        std::size_t losses = 0;
        std::size_t tables = 0;
    };

    bool timed = false;      // buckets are of time; false: there is no clock, they are of packets
    std::int64_t width = 0;  // of a bucket: 27 MHz ticks, or packets
    std::int64_t length = 0; // of the whole stream, in the same unit
    Buckets<FirstPacket> first;
    Buckets<Extremes> rate; // bits a second of all packets, measured over 100 ms; none without time
    std::vector<Packets> packets; // by pid
    Buckets<PacketCount> other;   // damaged ones (transport_error_indicator), and pids left out
    std::vector<PcrIntervals> pcr_intervals;
    std::vector<OfPid> pcr_errors; // ns off the line of a constant rate, as held against 2.4
    std::vector<OfPid> leads;      // ms that DTS (or PTS) of video and audio are ahead of the clock
    std::vector<Offset> offsets;
    std::vector<Losses> losses;
    std::vector<Table> tables;
    LeftOut left_out;
};

/// How fast the middle of the values moves: the median of the slopes between pairs of buckets, so
/// that single steps do not count (Theil and Sen). In units of the value a second; NaN where there
/// are fewer than three buckets with values. `width`: seconds.
double slope(const Buckets<Extremes>& buckets, double width);

/// halve() for all of them: for readers that want fewer.
void halve(TimeSeries& series);

} // namespace quarn
