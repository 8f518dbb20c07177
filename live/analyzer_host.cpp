#include "live/analyzer_host.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "inputs/datagram_stream.h"
#include "inputs/layout.h"
#include "log.h"

LOG_MODULE(0);

namespace quarn::live {
namespace {

using Bytes = std::span<const std::uint8_t>;
using inputs::sync_byte;
using inputs::ts_packet_size;

/// Bytes that stand before the sync byte of each packet.
std::size_t prefix_of(std::size_t size) {
    return inputs::Layout{size}.prefix();
}

/// The next place behind `from` where packets of that size may begin: a sync byte, and another one
/// a packet later unless the bytes end before.
std::size_t find_sync(Bytes bytes, std::size_t from, std::size_t size) {
    const std::size_t prefix = prefix_of(size);
    for (std::size_t at = from + 1; at + prefix < bytes.size(); ++at)
        if (bytes[at + prefix] == sync_byte &&
            (at + prefix + size >= bytes.size() || bytes[at + prefix + size] == sync_byte))
            return at;
    return bytes.size();
}

} // namespace

AnalyzerHost::AnalyzerHost(WorkerShared& shared) : shared_(shared) {
    const WorkerSettings& settings = shared.settings;
    tsan_config cfg = settings.analyzer;
    // Only a line for people hangs on it here; it counts packets from where the index begins.
    cfg.max_skip_pkts += static_cast<std::size_t>(settings.first_packet);
    analyzer_ = tsan_init(settings.tag.data(), &cfg, nullptr);
    if (analyzer_ == nullptr)
        throw std::bad_alloc();
    if (settings.first_packet != 0)
        tsan_set_pidx(analyzer_, settings.first_packet);
    cut_.reserve(2 * ts_packet_size);
}

AnalyzerHost::~AnalyzerHost() {
    tsan_free(analyzer_);
}

// ---- datagrams
// -----------------------------------------------------------------------------------

bool AnalyzerHost::datagram(const DatagramHead& head, Bytes bytes, std::int64_t now) {
    if (head.missing != 0)
        not_here(head.missing);
    if (shared_.settings.datagrams)
        datagram_of_any_kind(bytes, now);
    else
        segment(bytes); // never ended: files have no segments
    return !gave_up_;
}

// As inputs::DatagramStream does it for the measurement beside this.
void AnalyzerHost::datagram_of_any_kind(Bytes bytes, std::int64_t now) {
    const inputs::DatagramContent content = inputs::look_into(bytes);
    const auto rtp = inputs::parse_rtp(bytes);
    if (content.rtp || (rtp_ && rtp && rtp->payload_type == payload_type_)) {
        rtp_ = true;
        payload_type_ = rtp->payload_type;
        order_.push(*rtp, now, inputs::no_time, *this);
    } else if (!(rtp_ && (rtp || inputs::is_rtcp(bytes)))) {
        in_order({.bytes = bytes});
    }
}

bool AnalyzerHost::expire(std::int64_t now) {
    order_.expire(now, *this);
    return !gave_up_;
}

void AnalyzerHost::in_order(const inputs::Payload& payload) {
    if (gave_up_)
        return;
    segment(payload.bytes);
    tsan_next_seg(analyzer_);
}

// Jumps of counters behind this are no loss of the network, so who reads the lines is told.
void AnalyzerHost::not_here(std::uint32_t datagrams) {
    log_machine(&g_access_log, "STAT OWN-DROPS %s %u\n", shared_.settings.tag.data(), datagrams);
    LOG(&g_log, WARN_level, "[%s] %u datagrams did not reach the analyzer on this machine\n",
        shared_.settings.tag.data(), datagrams);
    tsan_set_pidx(analyzer_,
                  tsan_get_pidx(analyzer_) + std::uint64_t{datagrams} * shared_.usual_packets);
}

// ---- packets
// -------------------------------------------------------------------------------------

bool AnalyzerHost::take(const std::uint8_t* packet) {
    std::memcpy(shared_.packet.data(), packet, shared_.packet.size());
    shared_.packet_index = tsan_get_pidx(analyzer_) + 1;
    shared_.in_packet = true;
    // Packets of no known program are no reason to stop here: their tables may come yet.
    const bool in_step = tsan_process(analyzer_, packet) != -1;
    shared_.in_packet = false;
    return in_step;
}

void AnalyzerHost::segment(Bytes bytes) {
    const inputs::DatagramContent content = inputs::look_into(bytes);
    if (content.packet_size != 0 && !content.rtp) {
        size_ = content.packet_size;
        shared_.usual_packets = content.packets;
        stray_bytes_ += cut_.size();
        cut_.clear();
        walk(bytes);
    } else {
        walk(bytes.subspan(finish_cut_packet(bytes)));
    }
}

// Blocks of a pipe cut packets, datagrams hardly ever: so what the one before has left belongs to
// this one if a packet begins where it then must. Returns how many bytes are used up.
std::size_t AnalyzerHost::finish_cut_packet(Bytes bytes) {
    const std::size_t rest = cut_.empty() ? 0 : size_ - cut_.size();
    const std::size_t next_sync = rest + prefix_of(size_);
    const bool joined = rest != 0 && bytes.size() >= rest &&
                        (next_sync >= bytes.size() || bytes[next_sync] == sync_byte);
    if (joined) {
        cut_.insert(cut_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(rest));
        take(cut_.data() + prefix_of(size_));
    } else {
        stray_bytes_ += cut_.size();
    }
    cut_.clear();
    return joined ? rest : 0;
}

void AnalyzerHost::walk(Bytes bytes) {
    const std::size_t prefix = prefix_of(size_);
    std::size_t at = 0;
    while (at + size_ <= bytes.size()) {
        if (take(bytes.data() + at + prefix)) {
            at += size_;
            continue;
        }
        if (tsan_alert_lostsync(analyzer_) != 0) {
            gave_up_ = true;
            return;
        }
        const std::size_t next = find_sync(bytes, at, size_);
        stray_bytes_ += next - at;
        at = next;
    }
    const Bytes rest = bytes.subspan(std::min(at, bytes.size()));
    if (rest.size() > prefix && rest[prefix] == sync_byte)
        cut_.assign(rest.begin(), rest.end());
    else
        stray_bytes_ += rest.size();
}

// ---- statistics
// ----------------------------------------------------------------------------------

bool AnalyzerHost::statistics(std::FILE* text) {
    if (tsan_check_dump_stats(text, analyzer_) == 0)
        return false;
    tsan_reset_local_stats(analyzer_); // averages of the period stand beside those of the run
    if (stray_bytes_ != 0)
        LOG(&g_log, WARN_level, "[%s] %llu bytes belonged to no packet\n",
            shared_.settings.tag.data(), static_cast<unsigned long long>(stray_bytes_));
    stray_bytes_ = 0;
    return true;
}

void AnalyzerHost::end(std::FILE* text) {
    order_.flush(*this);
    tsan_check_ndat(analyzer_);
    tsan_dump_stats(text, analyzer_);
    tsan_alog_stats(analyzer_);
}

} // namespace quarn::live
