#include "file_player.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <sys/stat.h>

namespace quarn::inputs {
namespace {

/// So far a file is looked through for two PCRs.
constexpr std::uint64_t looked_bytes = 8 << 20;
/// So many packets wait for the next PCR before they are played at the rate of the last ones.
constexpr std::size_t longest_look_ahead = 2800;
/// A turn's packets: what is late is made up for bit by bit.
constexpr std::size_t most_packets = 2000;
constexpr Ticks second = 27'000'000;
constexpr Ticks between_rounds = 27'000; // of files with stamps, which say nothing of it

std::unique_ptr<Input> opened(const std::string& path, std::string& error) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        error = "not a file of a disk: pipe it to standard input";
        return {};
    }
    auto result = open(path, {});
    if (auto* wrong = std::get_if<Error>(&result)) {
        error = wrong->text;
        return {};
    }
    return std::get<std::unique_ptr<Input>>(std::move(result));
}

/// Looks for the first two PCRs of a pid.
class ClockFinder : public Sink {
  public:
    void packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                 std::uint64_t) override {
        for (; count > 0 && !done_; --count, first += stride)
            packet(first, {});
    }
    void packet(const std::uint8_t* packet, const PacketInfo& info) override {
        if (info.arrival != no_time)
            found_.own_clock = done_ = true;
        if (const auto pcr = pcr_of(packet); pcr && !done_) {
            const auto [seen, first] = seen_.try_emplace(pid_of(packet), Seen{*pcr, count_});
            const Ticks distance = pcr_distance(seen->second.pcr, *pcr);
            if (!first && distance > 0 && distance <= second) {
                found_.pid = pid_of(packet);
                found_.ticks_per_packet = static_cast<double>(distance) /
                                          static_cast<double>(count_ - seen->second.packet);
                done_ = true;
            }
            seen->second = {*pcr, count_};
        }
        ++count_;
    }
    void sync_loss(const SyncLoss&) override {}
    void datagrams(const DatagramEvent&) override {}
    void truncated(std::uint64_t, std::int64_t) override {}

    bool done() const { return done_; }
    const PlayStart& found() const { return found_; }

  private:
    struct Seen {
        Ticks pcr;
        std::uint64_t packet;
    };
    bool done_ = false;
    PlayStart found_;
    std::uint64_t count_ = 0;
    std::map<unsigned, Seen> seen_;
};

PlayStart find_clock(const InputUrl& url) {
    std::string error;
    const auto input = opened(url.path, error);
    if (!input)
        throw std::runtime_error(url.path + ": " + error);
    ClockFinder finder;
    while (!finder.done() && input->bytes_read() < looked_bytes)
        if (input->read(finder) != Input::Status::more)
            break;
    PlayStart start = finder.found();
    if (!finder.done() && url.bitrate != 0)
        start.ticks_per_packet =
            static_cast<double>(second) * 8 * ts_packet_size / static_cast<double>(url.bitrate);
    if (!finder.done() && url.bitrate == 0)
        throw std::runtime_error(url.path + ": no two PCRs in its first 8 MB to play it by: give "
                                            "its bit rate, file://PATH?bitrate=N");
    return start;
}

} // namespace

// ---- what was read -----------------------------------------------------------------------------

void PlayQueue::packets(const std::uint8_t* first, std::size_t count, std::size_t stride,
                        std::uint64_t) {
    for (; count > 0; --count, first += stride)
        packet(first, {});
}

void PlayQueue::packet(const std::uint8_t* packet, const PacketInfo& info) {
    items_.push_back({Packet{bytes_.size(), info.arrival, info.sync_right}});
    bytes_.insert(bytes_.end(), packet, packet + ts_packet_size);
}

void PlayQueue::drop(std::size_t count) {
    const auto end = items_.begin() + static_cast<std::ptrdiff_t>(count);
    const auto packets = static_cast<std::size_t>(std::count_if(
        items_.begin(), end, [](const Item& item) { return item.what.index() == 0; }));
    const std::size_t bytes = packets * ts_packet_size;
    items_.erase(items_.begin(), end);
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(bytes));
    for (Item& item : items_)
        if (auto* packet = std::get_if<Packet>(&item.what))
            packet->place -= bytes;
}

// ---- playing -----------------------------------------------------------------------------------

FilePlayer::FilePlayer(const InputUrl& url, Consumer& consumer)
    : url_(url), consumer_(consumer), feed_(consumer), clock_(find_clock(url)), pace_(0, 0) {
    if (!open())
        throw std::runtime_error(url_.path + ": " + error_);
}

void FilePlayer::start(Poller&) {
    pace_ = Pace(ticks_of(moment().monotonic_ns), clock_.ticks_per_packet);
    consumer_.state(InputState::waiting, url_.loop ? "opened, will loop" : "opened");
    fill();
    consumer_.state(InputState::up, "playing");
}

bool FilePlayer::open() {
    input_ = opened(url_.path, error_);
    own_start_ = no_time;
    pace_.begin();
    if (input_)
        packet_size_ = input_->packet_size();
    return input_ != nullptr;
}

/// Reads on until there is something to be played. Returns false at the end.
bool FilePlayer::fill() {
    queue_.drop(played_);
    scheduled_ -= played_;
    played_ = 0;
    while (input_ && scheduled_ == 0) {
        const std::size_t before = queue_.items().size();
        const Input::Status status = input_->read(queue_);
        for (std::size_t i = before; i < queue_.items().size(); ++i)
            waiting_ += queue_.items()[i].what.index() == 0;
        if (status == Input::Status::failed)
            error_ = input_->error().text;
        if (status != Input::Status::more)
            input_.reset();
        schedule(!input_ || waiting_ > longest_look_ahead);
    }
    return scheduled_ > 0;
}

/// Gives packets their times, as far as there are PCRs, or `all` of them.
void FilePlayer::schedule(bool all) {
    if (clock_.own_clock) {
        schedule_own();
        return;
    }
    const auto& items = queue_.items();
    for (std::size_t i = scheduled_; i < items.size(); ++i) {
        const auto* packet = std::get_if<PlayQueue::Packet>(&items[i].what);
        if (!packet || pid_of(queue_.bytes(*packet)) != clock_.pid)
            continue;
        if (const auto pcr = pcr_of(queue_.bytes(*packet)))
            schedule_run(i + 1, pcr);
    }
    if (all)
        schedule_run(items.size(), {});
}

void FilePlayer::schedule_run(std::size_t end, std::optional<Ticks> pcr) {
    auto& items = queue_.items();
    const auto packets = static_cast<std::size_t>(
        std::count_if(items.begin() + static_cast<std::ptrdiff_t>(scheduled_),
                      items.begin() + static_cast<std::ptrdiff_t>(end),
                      [](const auto& item) { return item.what.index() == 0; }));
    const Pace::Line line = pace_.run(packets, pcr);
    std::size_t packet = 0;
    for (; scheduled_ < end; ++scheduled_) {
        items[scheduled_].due = line.at(packet);
        packet += items[scheduled_].what.index() == 0;
    }
    waiting_ -= packets;
}

void FilePlayer::schedule_own() {
    auto& items = queue_.items();
    for (; scheduled_ < items.size(); ++scheduled_) {
        Ticks due = pace_.time();
        if (const auto* packet = std::get_if<PlayQueue::Packet>(&items[scheduled_].what)) {
            if (own_start_ == no_time)
                own_start_ = due + between_rounds - packet->arrival;
            due = std::max(due, own_start_ + packet->arrival);
        }
        items[scheduled_].due = due;
        pace_.follow(due);
    }
    waiting_ = 0;
}

/// How many items are due. Packets that fill a block come together, with the last of them.
std::size_t FilePlayer::deliverable(Ticks now) const {
    const auto& items = queue_.items();
    std::size_t count = 0;
    for (std::size_t i = played_; i < scheduled_ && items[i].due <= now; ++i) {
        const std::size_t behind = i + 1 - played_;
        if (behind % PacketFeed::block == 0 || i + 1 == scheduled_)
            count = behind;
        if (count >= most_packets)
            break;
    }
    return count;
}

void FilePlayer::deliver(std::size_t count, const Turn& turn) {
    struct {
        FilePlayer& player;
        Arrival arrival;
        void operator()(const PlayQueue::Packet& packet) {
            player.feed_.add(player.queue_.bytes(packet), packet.sync_right, arrival);
        }
        void operator()(const SyncLoss& loss) { player.feed_.sync_loss(loss, player.packet_size_); }
        void operator()(const DatagramEvent& event) { player.feed_.datagrams(event); }
        void operator()(const PlayQueue::Truncation& cut) {
            if (!player.url_.loop) // else the seam says that it does not go on there
                player.feed_.truncated(cut.bytes);
        }
    } hand_over{*this, {}};
    for (; count > 0; --count, ++played_) {
        const PlayQueue::Item& item = queue_.items()[played_];
        hand_over.arrival = arrival_of(ns_of(item.due), turn.now);
        hand_over.arrival.ticks = item.due;
        std::visit(hand_over, item.what);
    }
    feed_.flush();
}

bool FilePlayer::read(const Turn& turn) {
    if (ended_ || (!input_ && retry_.away()))
        return false;
    if (played_ == scheduled_ && !fill()) {
        at_end();
        return false;
    }
    if (seam_)
        consumer_.restarted();
    seam_ = false;
    const std::size_t count = deliverable(ticks_of(moment().monotonic_ns));
    deliver(count, turn);
    return count > 0;
}

/// A file that begins anew does so once a turn at most, however short it is.
void FilePlayer::at_end() {
    const std::int64_t now_ns = moment().monotonic_ns;
    if (!url_.loop) {
        if (!error_.empty())
            consumer_.state(InputState::gone, error_);
        ended_ = true;
        consumer_.ended();
        return;
    }
    if (error_.empty() && open()) {
        seam_ = true;
        return;
    }
    const bool told = retry_.away();
    retry_.failed(now_ns);
    if (!told)
        consumer_.state(InputState::gone, error_);
}

void FilePlayer::tick(const Turn& turn) {
    if (ended_)
        return;
    const std::int64_t now_ns = turn.now.monotonic_ns;
    if (!input_ && retry_.away() && retry_.due(now_ns)) {
        error_.clear();
        pace_.follow(ticks_of(now_ns));
        if (open() && fill()) {
            retry_.back(now_ns);
            seam_ = true;
            consumer_.state(InputState::up,
                            "playing again; it was away for " + retry_.gone_for(now_ns));
        } else {
            input_.reset();
            retry_.failed(now_ns);
        }
    }
    Arrival now = arrival_of(now_ns, turn.now);
    if (played_ < scheduled_)
        now.ticks = std::min(now.ticks, queue_.items()[played_].due);
    else if (!retry_.away())
        now.ticks = std::min(now.ticks, pace_.time());
    consumer_.tick(now);
}

std::int64_t FilePlayer::due_ns() const {
    if (ended_ || (!input_ && retry_.away()))
        return never;
    if (played_ == scheduled_)
        return 0;
    const std::size_t last = std::min(played_ + PacketFeed::block, scheduled_) - 1;
    return ns_of(queue_.items()[last].due) + 1000;
}

} // namespace quarn::inputs
