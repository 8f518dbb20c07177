#include "service.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "inputs/receiver.h"
#include "settings/expect_file.h"
#include "status.h"

namespace quarn::live {

namespace {

constexpr std::chrono::seconds slowest_turn{3};
constexpr unsigned usual_loops = 4;

Outputs::Wanted wanted(const Settings& settings) {
    return {settings.findings, settings.syslog, settings.exec};
}

unsigned loops(const Settings& settings) {
    if (settings.loops > 0)
        return settings.loops;
    return std::clamp(std::thread::hardware_concurrency(), 1U, usual_loops);
}

using Url = inputs::InputUrl;

bool binds_port(const Url& url) {
    return url.datagrams() || (url.scheme == Url::Scheme::srt && url.mode == Url::Mode::listener);
}

/// Whether the one may have a port that the other needs.
bool share_port(const Url& a, const Url& b) {
    return binds_port(a) && binds_port(b) && a.endpoint.port == b.endpoint.port;
}

} // namespace

Service::Service(const CommandLine& line, std::function<void()> reader_gone)
    : line_(line), settings_(settings_of(line)),
      outputs_(wanted(settings_), std::move(reader_gone)), loops_(loops(settings_)) {
    http_ = server(settings_); // first, lest inputs be told of that are closed at once
    for (const InputSettings& input : settings_.inputs) {
        auto watched = opened(input);
        const std::lock_guard lock(mutex_);
        inputs_.push_back(std::move(watched));
    }
}

Service::~Service() {
    end();
}

int Service::end() {
    http_.reset();
    close_all(inputs_);
    const bool written = std::none_of(inputs_.begin(), inputs_.end(), [](const auto& watched) {
        return watched->channel.not_written();
    });
    inputs_.clear();
    const bool cuts = writer_->end();
    const bool records = outputs_.end();
    if (!written)
        return status_wrong;
    return records && cuts ? status_in_order : status_lost;
}

std::unique_ptr<Http> Service::server(const Settings& settings) const {
    if (!settings.http)
        return nullptr;
    HttpSources sources;
    sources.inputs = [this] { return snapshots(); };
    sources.process = [this] {
        return ProcessFigures{outputs_.commands().dropped, outputs_.records_dropped(),
                              outputs_.commands().failed, writer_->failures()};
    };
    sources.healthy = [this] { return healthy(); };
    return std::make_unique<Http>(*settings.http, std::move(sources));
}

std::shared_ptr<Service::Watched> Service::opened(const InputSettings& input) {
    try {
        if (input.cuts.wanted())
            cuts::check_directory(input.cuts.directory);
        if (input.write_expect)
            settings::check_expectation_place(*input.write_expect);
        auto watched = std::make_shared<Watched>(input, outputs_, writer_);
        watched->handle = loops_.add(input.url, watched->channel);
        return watched;
    } catch (const inputs::PortTaken& error) {
        throw inputs::PortTaken(input.name + ": " + error.what());
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(input.name + ": " + error.what());
    }
}

void Service::close_all(const Inputs& inputs) {
    for (const auto& watched : inputs) {
        loops_.remove(watched->handle);
        watched->channel.stop();
    }
    for (const auto& watched : inputs)
        watched->channel.end();
}

std::shared_ptr<Service::Watched> Service::same(const InputSettings& input) const {
    const auto found = std::find_if(inputs_.begin(), inputs_.end(), [&](const auto& watched) {
        return watched->settings == input;
    });
    return found == inputs_.end() ? nullptr : *found;
}

/// Whether an input of which that holds is not among the next settings.
bool Service::any_leaves(const Settings& next, const std::function<bool(const Url&)>& which) const {
    return std::any_of(inputs_.begin(), inputs_.end(), [&](const auto& watched) {
        const InputSettings& old = watched->settings;
        return which(old.url) &&
               std::find(next.inputs.begin(), next.inputs.end(), old) == next.inputs.end();
    });
}

/// New inputs, all of them or none, but for those that need what old ones have yet to give up.
Service::Inputs Service::open_new(const Settings& next) {
    Inputs fresh;
    try {
        for (const InputSettings& input : next.inputs) {
            const Url& url = input.url;
            if (same(input) ||
                any_leaves(next, [&](const Url& old) { return old.text == url.text; }))
                continue;
            try {
                fresh.push_back(opened(input));
            } catch (const inputs::PortTaken&) {
                if (!any_leaves(next, [&](const Url& old) { return share_port(old, url); }))
                    throw;
            }
        }
        outputs_.change(wanted(next));
    } catch (...) {
        close_all(fresh);
        throw;
    }
    return fresh;
}

void Service::use(const Settings& next, const Inputs& fresh) {
    Inputs left = inputs_;
    Inputs now;
    for (const InputSettings& input : next.inputs)
        if (const auto stays = same(input))
            std::erase(left, stays);
    close_all(left); // before what has their addresses now is opened
    for (const InputSettings& input : next.inputs) {
        const auto is_it = [&](const auto& watched) { return watched->settings == input; };
        const auto opened_before = std::find_if(fresh.begin(), fresh.end(), is_it);
        if (const auto stays = same(input))
            now.push_back(stays);
        else if (opened_before != fresh.end())
            now.push_back(*opened_before);
        else
            try {
                now.push_back(opened(input));
            } catch (const std::runtime_error& error) {
                tell(std::string(error.what()) + "; this input is left out");
            }
    }
    const std::lock_guard lock(mutex_);
    inputs_ = std::move(now);
}

void Service::reload() {
    outputs_.reopen();
    for (const auto& watched : inputs_)
        watched->channel.reopen();
    const Settings next = settings_of(line_);
    for (const InputSettings& input : next.inputs)
        if (input.cuts.wanted())
            cuts::check_directory(input.cuts.directory);
    const bool other_http = next.http != settings_.http;
    std::unique_ptr<Http> http = other_http ? server(next) : nullptr;
    const Inputs fresh = open_new(next);
    if (other_http)
        http_ = std::move(http);
    use(next, fresh);
    if (next.loops != settings_.loops)
        tell("loops: takes effect at the next start");
    settings_ = next;
}

bool Service::over() const {
    // None at all: they could not be opened again, and the next reload may mend that.
    return !inputs_.empty() && std::all_of(inputs_.begin(), inputs_.end(), [](const auto& watched) {
        return watched->channel.over();
    });
}

bool Service::healthy() const {
    return std::chrono::steady_clock::now() - loops_.last_turn() < slowest_turn;
}

std::vector<Snapshot> Service::snapshots() const {
    Inputs inputs;
    {
        const std::lock_guard lock(mutex_);
        inputs = inputs_;
    }
    std::vector<Snapshot> all;
    all.reserve(inputs.size());
    for (const auto& watched : inputs)
        all.push_back(watched->channel.snapshot());
    return all;
}

} // namespace quarn::live
