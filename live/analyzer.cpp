#include "live/analyzer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarn::live {
namespace {

constexpr std::int64_t second = 27'000'000;
constexpr std::int64_t first_delay = second;
constexpr std::int64_t longest_delay = 60 * second;
/// Having run that long, it did not end "at once again".
constexpr std::int64_t long_run = 60 * second;
constexpr std::int64_t hang_after = 10 * second;
constexpr std::chrono::seconds end_after{5};
constexpr std::size_t longest_text = 4096;
constexpr std::int64_t never = std::numeric_limits<std::int64_t>::min() / 2;

std::string last_line(std::string_view text) {
    while (text.ends_with('\n'))
        text.remove_suffix(1);
    const std::size_t begin = text.rfind('\n');
    return std::string(begin == std::string_view::npos ? text : text.substr(begin + 1));
}

// What glibc and others print of a failed assertion; whatever stands behind it, a stack for
// instance, says less.
std::string invariant_in(std::string_view text) {
    const std::size_t word = text.rfind("Assertion");
    if (word == std::string_view::npos)
        return last_line(text);
    const std::size_t end = text.find('\n', word);
    return last_line(text.substr(0, end));
}

// Of a process that said nothing itself.
std::string how_it_ended(int status) {
    if (status == -1)
        return "nobody knows how";
    if (WIFSIGNALED(status))
        return "by signal " + std::to_string(WTERMSIG(status)) + " (" +
               sigdescr_np(WTERMSIG(status)) + ")";
    return "with status " + std::to_string(WEXITSTATUS(status));
}

template <std::size_t N>
void copy(std::array<char, N>& to, const std::string& from) {
    std::snprintf(to.data(), to.size(), "%s", from.c_str());
}

} // namespace

// ---- memory
// --------------------------------------------------------------------------------------

Analyzer::Memory::Memory(std::size_t ring_bytes)
    : fd_(high_descriptor(memfd_create("quarn-analyzer", MFD_CLOEXEC), "memfd_create")),
      size_(sizeof(WorkerShared) + ring_bytes) {
    if (ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0)
        throw std::system_error(errno, std::generic_category(), "ftruncate");
    void* const map = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (map == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "mmap");
    shared_ = new (map) WorkerShared{};
}

Analyzer::Memory::~Memory() {
    munmap(shared_, size_);
}

std::span<std::uint8_t> Analyzer::Memory::ring() const {
    return {reinterpret_cast<std::uint8_t*>(shared_ + 1), size_ - sizeof(WorkerShared)};
}

// ---- life
// ----------------------------------------------------------------------------------------

Analyzer::Analyzer(const AnalyzerSettings& settings, AnalyzerCalls calls)
    : title_(source_tag(settings.name)), calls_(std::move(calls)), memory_(settings.ring_bytes),
      ring_(memory_.shared().ring, memory_.ring()),
      bell_(high_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")), started_(never),
      next_start_(never), delay_(first_delay), progress_(never) {
    WorkerSettings& worker = memory_.shared().settings;
    worker.datagrams = settings.datagrams;
    worker.log_size = settings.log_size;
    worker.log_files = settings.log_files;
    worker.log_daily = settings.log_daily;
    worker.log_time = settings.log_time;
    worker.syslog = settings.syslog;
    copy(worker.tag, title_);
    copy(worker.alert_log, settings.alert_log);
    copy(worker.text_log, settings.text_log);
    worker.analyzer = settings.analyzer;
    worker.analyzer.access_log_alerts = true;
    worker.analyzer.no_rlog = settings.text_log.empty();
}

Analyzer::~Analyzer() {
    end();
}

void Analyzer::reopen() {
    ++memory_.shared().reopen_wanted;
    ring_bell();
}

void Analyzer::stop() {
    if (end_by_ == std::chrono::steady_clock::time_point{})
        end_by_ = std::chrono::steady_clock::now() + end_after;
    memory_.shared().end_wanted = 1;
    ring_bell();
}

void Analyzer::end() {
    stop();
    while (running() && !process_.reap()) {
        if (std::chrono::steady_clock::now() >= end_by_)
            process_.kill();
        listen();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    listen();
}

// ---- datagrams
// -----------------------------------------------------------------------------------

void Analyzer::ring_bell() const {
    const std::uint64_t one = 1;
    // It cannot fail but by being full, and then it rings.
    if (write(bell_.get(), &one, sizeof one) < 0)
        return;
}

void Analyzer::missing(std::uint64_t datagrams) {
    missing_ += datagrams;
}

void Analyzer::datagram(std::span<const std::uint8_t> bytes) {
    while (bytes.size() > largest_datagram) {
        put(bytes.first(largest_datagram));
        bytes = bytes.subspan(largest_datagram);
    }
    put(bytes);
}

void Analyzer::put(std::span<const std::uint8_t> block) {
    DatagramHead head;
    head.size = static_cast<std::uint32_t>(block.size());
    head.missing = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(missing_, std::numeric_limits<std::uint32_t>::max()));
    if (taking_ && ring_.put(head, block)) {
        missing_ = 0;
    } else {
        ++missing_;
        ++(taking_ ? dropped_ : unseen_);
    }
    // The process looks every few milliseconds by itself, in time for anything but a rush.
    const bool half_full = taking_ && ring_.waiting() >= memory_.ring().size() / 2;
    if (half_full && !rang_)
        ring_bell();
    rang_ = half_full;
}

// ---- the process
// ---------------------------------------------------------------------------------

void Analyzer::listen() {
    std::string text = process_.read_text();
    if (text.empty())
        return;
    text_ += text;
    if (text_.size() > longest_text)
        text_.erase(0, text_.size() - longest_text);
    std::string_view rest = text;
    while (calls_.said && !rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        if (end != 0)
            calls_.said(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
}

void Analyzer::tick(std::int64_t now) {
    listen();
    if (const auto status = process_.reap()) {
        listen(); // its last words came between
        ended(*status, now);
    } else if (running()) {
        watch(now);
    } else if (now >= next_start_) {
        start(now);
    }
}

void Analyzer::start(std::int64_t now) {
    WorkerShared& shared = memory_.shared();
    if (!taking_)
        ring_.clear();
    shared.settings.parent = getpid();
    shared.in_packet = false;
    text_.clear();
    hung_ = false;
    position_ = ring_.position();
    progress_ = started_ = now;
    try {
        process_.start(title_, memory_.fd(), bell_.get());
        taking_ = true;
    } catch (const std::system_error& error) {
        wait_longer(now);
        ++restarts_;
        AnalyzerEnd end;
        end.reason = AnalyzerEnd::Reason::cannot_run;
        end.text = error.what();
        if (calls_.ended)
            calls_.ended(end);
    }
}

// Something waits and is not taken: a loop that no packet should be able to cause, or a log on a
// disk that does not answer.
void Analyzer::watch(std::int64_t now) {
    if (ring_.waiting() == 0 || ring_.position() != position_) {
        position_ = ring_.position();
        progress_ = now;
    } else if (now - progress_ >= hang_after && !hung_) {
        hung_ = true;
        process_.kill();
    }
}

void Analyzer::wait_longer(std::int64_t now) {
    if (now - started_ >= long_run)
        delay_ = first_delay;
    next_start_ = started_ + delay_;
    delay_ = std::min(2 * delay_, longest_delay);
}

void Analyzer::ended(int status, std::int64_t now) {
    taking_ = false;
    ++restarts_;
    // Numbers of packets go on where they ended.
    WorkerShared& shared = memory_.shared();
    shared.settings.first_packet = std::max(shared.settings.first_packet, shared.packet_index);
    wait_longer(now);
    if (calls_.ended)
        calls_.ended(obituary(status));
}

AnalyzerEnd Analyzer::obituary(int status) const {
    using Reason = AnalyzerEnd::Reason;
    const WorkerShared& shared = memory_.shared();
    AnalyzerEnd end;
    end.status = status;
    end.text = last_line(text_);
    if (hung_) {
        end.reason = Reason::hang;
        end.text = "no progress for 10 s";
    } else if (status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) {
        end.reason = Reason::invariant;
        end.text = invariant_in(text_);
    } else if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == worker_lost_sync) {
        end.reason = Reason::lost_sync;
        end.text = "too many losses of synchronisation";
    } else if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == worker_cannot_run) {
        end.reason = Reason::cannot_run;
    }
    if (end.text.empty())
        end.text = how_it_ended(status);
    if (shared.in_packet) {
        end.packet.assign(shared.packet.begin(), shared.packet.end());
        end.packet_index = shared.packet_index;
    }
    return end;
}

} // namespace quarn::live
