#include "stretch.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "inputs/framer.h"
#include "measure/packet.h"

namespace quarn::cuts {

namespace {

constexpr std::size_t part = std::size_t{256} * 1024;
constexpr double longest_step = 0.5; // seconds between two PCRs
constexpr double ticks_a_second = 27'000'000;
/// So much more than the usual rate would need is looked at first.
constexpr double room = 1.25;

struct Sample {
    std::uint64_t byte = 0;
    std::int64_t pcr = 0;
};

/// Takes PCRs down, and counts packets.
class Samples : public inputs::Sink {
  public:
    /// `base`: offset of the first byte that is scanned; `target`: see last_before().
    Samples(std::uint64_t base, std::uint64_t target) : base_(base), target_(target) {}

    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t byte) override {
        for (; count > 0; --count, first += stride, byte += stride)
            packet(first, {.byte = byte});
    }
    void packet(const std::uint8_t* bytes, const inputs::PacketInfo& info) override {
        const std::uint64_t byte = base_ + info.byte;
        ++count_;
        if (!first_)
            first_ = byte;
        if (byte <= target_ || !last_before_)
            last_before_ = byte;
        last_ = byte;
        const Packet packet(bytes);
        if (!info.sync_right || packet.transport_error() || !packet.has_pcr())
            return;
        auto& list = of_pid(packet.pid());
        list.push_back({byte, packet.pcr()});
    }
    void sync_loss(const inputs::SyncLoss&) override {}
    void datagrams(const inputs::DatagramEvent&) override {}
    void truncated(std::uint64_t, std::int64_t) override {}

    std::uint64_t count() const { return count_; }
    std::optional<std::uint64_t> first() const { return first_; }
    std::optional<std::uint64_t> last() const { return last_; }
    /// The last packet up to the target, else the first of all.
    std::optional<std::uint64_t> last_before() const { return last_before_; }
    /// PCRs of the pid that has most.
    std::span<const Sample> best() const {
        const std::vector<Sample>* most = nullptr;
        for (const Pid& pid : pids_)
            if (most == nullptr || pid.samples.size() > most->size())
                most = &pid.samples;
        return most ? std::span<const Sample>(*most) : std::span<const Sample>();
    }

  private:
    struct Pid {
        std::uint16_t pid = 0;
        std::vector<Sample> samples;
    };
    static constexpr std::size_t most_pids = 64; // more have PCRs in broken streams only

    std::vector<Sample>& of_pid(std::uint16_t pid) {
        for (Pid& known : pids_)
            if (known.pid == pid)
                return known.samples;
        if (pids_.size() < most_pids)
            pids_.push_back({pid, {}});
        else
            pids_.back() = {pid, {}};
        return pids_.back().samples;
    }

    std::uint64_t base_;
    std::uint64_t target_;
    std::uint64_t count_ = 0;
    std::optional<std::uint64_t> first_, last_, last_before_;
    std::vector<Pid> pids_;
};

/// Seconds from one PCR to the next, nothing if they do not tell.
std::optional<double> step(const Sample& from, const Sample& to) {
    const double seconds =
        static_cast<double>(clock_distance(from.pcr, to.pcr, pcr_wrap)) / ticks_a_second;
    if (seconds <= 0 || seconds > longest_step)
        return {};
    return seconds;
}

/// Time over a list of PCRs.
class Clock {
  public:
    Clock(std::span<const Sample> samples, double usual_rate) : rate_(usual_rate) {
        double bytes = 0;
        double seconds = 0;
        for (std::size_t i = 1; i < samples.size(); ++i)
            if (const auto s = step(samples[i - 1], samples[i])) {
                seconds += *s;
                bytes += static_cast<double>(samples[i].byte - samples[i - 1].byte);
            }
        if (seconds > 0)
            rate_ = bytes / seconds;
    }
    double seconds(const Sample& from, const Sample& to) const {
        return step(from, to).value_or(seconds(to.byte - from.byte));
    }
    double seconds(std::uint64_t bytes) const { return static_cast<double>(bytes) / rate_; }

  private:
    double rate_;
};

} // namespace

std::uint64_t front(std::uint64_t byte, std::size_t packet_size) {
    const std::uint64_t prefix = inputs::Layout{packet_size}.prefix();
    return byte - std::min(byte, prefix);
}

/// Frames the bytes from a packet up to `to`; offsets for the sink count from front(from).
void Stretch::scan(std::uint64_t from, std::uint64_t to, inputs::Sink& sink) {
    const std::size_t size = input_.kept().packet_size;
    std::uint64_t at = front(from, size);
    inputs::Framer framer({size, static_cast<std::size_t>(from - at), false});
    std::vector<std::uint8_t> buffer;
    for (bool end = false; !end;) {
        const std::size_t rest = buffer.size();
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(part, to > at ? to - at : 0));
        buffer.resize(rest + wanted);
        const std::size_t got = input_.read_again(at, {buffer.data() + rest, wanted});
        buffer.resize(rest + got);
        at += got;
        end = got < wanted || at >= to;
        const std::size_t done = framer.feed(buffer, end, sink);
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(done));
    }
}

std::uint64_t Stretch::first_look(double seconds) const {
    return static_cast<std::uint64_t>(seconds * rate_ * room) + part;
}

std::uint64_t Stretch::before(std::uint64_t byte, double seconds, std::uint64_t most) {
    const inputs::Input::Kept kept = input_.kept();
    const auto usual = static_cast<std::uint64_t>(seconds * rate_);
    for (std::uint64_t span = std::min(first_look(seconds), most);;
         span = std::min(2 * span, most)) {
        // In step with the packet at `byte`, where nothing lies between.
        span = std::max<std::uint64_t>(span - span % kept.packet_size, kept.packet_size);
        const std::uint64_t from = byte - std::min(byte - std::min(byte, kept.begin), span);
        Samples samples(front(from, kept.packet_size), byte - std::min(byte, usual));
        scan(from, byte, samples);
        const auto list = samples.best();
        const Clock clock(list, rate_);
        double left = seconds;
        for (std::size_t i = list.size(); i-- > 0;) {
            left -= i + 1 < list.size() ? clock.seconds(list[i], list[i + 1])
                                        : clock.seconds(byte - list[i].byte);
            if (left <= 0)
                return list[i].byte;
        }
        const std::uint64_t first = samples.first().value_or(byte);
        if (from == kept.begin)
            return from == 0 ? 0 : first;
        if (list.empty() && byte - from > usual)
            return samples.last_before().value_or(byte);
        if (span + kept.packet_size > most)
            return first;
    }
}

Stretch::End Stretch::behind(std::uint64_t byte, double seconds, std::uint64_t most) {
    const inputs::Input::Kept kept = input_.kept();
    const std::size_t size = kept.packet_size;
    const auto usual = static_cast<std::uint64_t>(seconds * rate_);
    const auto end_of = [&](std::uint64_t packet) { return front(packet + size, size); };
    for (std::uint64_t span = std::min(first_look(seconds), most);;
         span = std::min(2 * span, most)) {
        const std::uint64_t to = byte + std::min(kept.end - std::min(kept.end, byte), span);
        Samples samples(front(byte, size), byte + usual);
        scan(byte, to, samples);
        const auto list = samples.best();
        const Clock clock(list, rate_);
        double left = seconds;
        for (std::size_t i = 0; i < list.size(); ++i) {
            left -=
                i > 0 ? clock.seconds(list[i - 1], list[i]) : clock.seconds(list[i].byte - byte);
            if (left <= 0)
                return {std::min(end_of(list[i].byte), kept.end), true};
        }
        if (list.empty() && to - byte > usual)
            return {std::min(end_of(samples.last_before().value_or(byte)), kept.end), true};
        if (to >= kept.end)
            return {kept.end, false};
        if (span == most)
            return {end_of(samples.last().value_or(byte)), true};
    }
}

std::uint64_t Stretch::packets(std::uint64_t begin, std::uint64_t end) {
    Samples samples(begin, begin);
    scan(begin, end, samples);
    return samples.count();
}

} // namespace quarn::cuts
