#include "expected_services.h"

#include <algorithm>
#include <utility>

namespace quarn {

namespace {

using Aspect = Thing::Aspect;
using Op = TableChange::Op;
using What = TableChange::What;

// A PMT may come so late where nothing is known about it.
constexpr Ticks pmt_patience = 10 * ticks_per_second;
// Packets that are scrambled, or clear, for a moment are told elsewhere.
constexpr Ticks scrambling_patience = ticks_per_second;
// Services and streams that nobody expects; more of them are not told.
constexpr std::size_t others_max = 64;

template <class T>
bool one_of(const std::vector<T>& all, const T& value) {
    return all.empty() || std::find(all.begin(), all.end(), value) != all.end();
}

std::string language_words(const std::string& language) {
    return language.empty() ? "without language" : language;
}
std::string codec_words(Codec codec) {
    return std::string(word(codec));
}
std::string kind_words(StreamKind kind) {
    return std::string(word(kind));
}

// "deu or fra"; empty where any will do.
template <class T, class Words>
std::string joined(const std::vector<T>& all, Words words) {
    std::string text;
    for (const T& value : all)
        text += (text.empty() ? "" : " or ") + words(value);
    return text;
}

std::string pid_words(const Range& range) {
    if (range.one())
        return "pid " + std::to_string(range.least);
    if (range.most == Range::no_end)
        return "pid " + std::to_string(range.least) + " or higher";
    return "a pid from " + std::to_string(range.least) + " to " + std::to_string(range.most);
}

std::string pid_words(std::uint16_t pid) {
    return pid == null_pid ? "no pid" : "pid " + std::to_string(pid);
}

bool has_words(const Expectation::Stream& s) {
    return !s.kinds.empty() || !s.codecs.empty() || !s.languages.empty();
}

bool fits(const Expectation::Stream& expected, const ElementaryStream& is) {
    return one_of(expected.kinds, is.kind) && one_of(expected.codecs, is.codec) &&
           one_of(expected.languages, is.language);
}

// "audio mp2 deu"
std::string stream_words(const Expectation::Stream& s) {
    std::string text = s.kinds.empty() ? "stream" : joined(s.kinds, kind_words);
    if (!s.codecs.empty())
        text += " " + joined(s.codecs, codec_words);
    if (!s.languages.empty() && s.languages != std::vector<std::string>{""})
        text += " " + joined(s.languages, language_words);
    return text;
}

std::string stream_words(const ElementaryStream& s) {
    std::string text = kind_words(s.kind);
    if (s.codec != Codec::unknown)
        text += " " + codec_words(s.codec);
    return s.language.empty() ? text : text + " " + s.language;
}

void describe(TableChange& change, const Expectation::Stream& expected,
              const ElementaryStream& is) {
    const bool kind = one_of(expected.kinds, is.kind);
    const bool codec = one_of(expected.codecs, is.codec);
    const bool language = one_of(expected.languages, is.language);
    const std::string prefix = kind_words(is.kind) + " ";
    if (kind && codec) {
        change.what = What::language;
        change.before = prefix + joined(expected.languages, language_words);
        change.after = prefix + language_words(is.language);
    } else if (kind && language) {
        change.what = What::codec;
        change.before = prefix + joined(expected.codecs, codec_words);
        change.after = prefix + codec_words(is.codec);
    } else {
        change.what = What::stream;
        change.before = stream_words(expected);
        change.after = stream_words(is);
    }
}

// -1: it is not there.
int pid_of(const ExpectedServices::Found& found, std::size_t stream) {
    return stream < found.pids.size() && found.pids[stream] ? *found.pids[stream] : -1;
}

bool same(const TableChange& a, const TableChange& b) {
    return a.op == b.op && a.what == b.what && a.pid == b.pid && a.before == b.before &&
           a.after == b.after;
}

} // namespace

ExpectedServices::ExpectedServices(const Expectation& expected, const Options& options,
                                   Deviations& deviations)
    : expected_(expected), options_(options), deviations_(deviations),
      programs_(std::make_shared<Programs>()), found_(expected.services.size()) {}

void ExpectedServices::programs(const ProgramsPtr& programs, const Place& place) {
    programs_ = programs;
    if (programs_->pat_in_force)
        compare(std::exchange(pat_seen_, true) ? place : start_);
}

void ExpectedServices::names(const NamesPtr& names, const Place& place) {
    names_ = names;
    if (pat_seen_)
        compare(place);
}

Ticks ExpectedServices::patience(const Service& service) const {
    if (service.pmt_interval == 0)
        return pmt_patience;
    return std::max(service.pmt_interval, 2 * options_.limits.pmt);
}

Deviation ExpectedServices::deviation(Op op, What what, const Service& service) const {
    Deviation d;
    d.change.op = op;
    d.change.what = what;
    d.change.number = service.number;
    if (!service.names.empty() && !service.names.front().empty())
        d.change.name = service.names.front();
    d.programs = {service.number};
    return d;
}

// What is new begins here, what is gone ends here.
void ExpectedServices::compare(const Place& place) {
    Now now;
    for (std::size_t i = 0; i < expected_.services.size(); ++i)
        compare(i, now, place);
    others(now);
    for (auto old = told_.begin(); old != told_.end();) {
        const auto still = now.find(old->first);
        const bool goes_on = still != now.end() && same(still->second.change, old->second);
        if (!goes_on)
            deviations_.is_not(old->first, place);
        old = goes_on ? std::next(old) : told_.erase(old);
    }
    for (auto& [thing, deviation] : now) {
        told_.emplace(thing, deviation.change);
        deviation.begin = place;
        deviations_.is(thing, std::move(deviation));
    }
}

void ExpectedServices::compare(std::size_t index, Now& now, const Place& place) {
    const Service& service = expected_.services[index];
    const Program* const program = programs_->program(service.number);
    const bool there = program != nullptr && program->pmt_in_force;
    if (!there)
        find(index, {}, place);
    if (there) {
        compare_pids(index, *program, now);
        compare_name(index, now);
        compare_streams(index, *program, now);
        Found found;
        for (const ElementaryStream* s : matched(service, *program))
            found.pids.push_back(s != nullptr ? std::optional(s->pid) : std::nullopt);
        std::set<std::uint16_t> all;
        for (const ElementaryStream& s : program->streams)
            all.insert(s.pid);
        if (program->pcr_pid != null_pid)
            all.insert(program->pcr_pid);
        found.all = {all.begin(), all.end()};
        find(index, std::move(found), place);
    } else if (!service.optional) {
        Deviation d = deviation(Op::removed, What::service, service);
        if (program != nullptr) // announced: its PMT may still come
            d.patience = patience(service);
        now.emplace(Thing{Aspect::service, index, 0}, std::move(d));
    }
}

void ExpectedServices::compare_pids(std::size_t index, const Program& program, Now& now) {
    const Service& service = expected_.services[index];
    const auto hold = [&](Aspect aspect, What what, const Range& expected, std::uint16_t is) {
        if (expected.contains(is) || expected.any())
            return;
        Deviation d = deviation(Op::moved, what, service);
        d.pid = is;
        d.change.pid = is;
        d.change.before = pid_words(expected);
        d.change.after = pid_words(is);
        now.emplace(Thing{aspect, index, 0}, std::move(d));
    };
    hold(Aspect::pmt_pid, What::pmt_pid, service.pmt_pid, program.pmt_pid);
    hold(Aspect::pcr_pid, What::pcr_pid, service.pcr_pid, program.pcr_pid);
}

// Without an SDT nobody can say.
void ExpectedServices::compare_name(std::size_t index, Now& now) {
    const Service& service = expected_.services[index];
    if (!names_ || service.names.empty())
        return;
    const auto entry = names_->find(service.number);
    const std::string name =
        entry == names_->end() ? std::string() : entry->second.name.value_or(std::string());
    if (one_of(service.names, name))
        return;
    Deviation d = deviation(name.empty() ? Op::removed : Op::changed, What::name, service);
    d.change.before = service.names.front();
    if (!name.empty())
        d.change.after = name;
    now.emplace(Thing{Aspect::name, index, 0}, std::move(d));
}

// Each expected stream's own: on its pid, else what fits it and may be on that pid, else what fits
// it elsewhere: it has moved.
std::vector<const ElementaryStream*> ExpectedServices::matched(const Service& service,
                                                               const Program& program) const {
    std::vector<const ElementaryStream*> own(service.streams.size(), nullptr);
    std::vector<bool> taken(program.streams.size(), false);
    const auto pass = [&](auto&& fitting) {
        for (std::size_t i = 0; i < own.size(); ++i)
            for (std::size_t k = 0; k < taken.size() && own[i] == nullptr; ++k)
                if (!taken[k] && fitting(service.streams[i], program.streams[k])) {
                    own[i] = &program.streams[k];
                    taken[k] = true;
                }
    };
    pass([](const Stream& e, const ElementaryStream& s) {
        return e.pid.one() && e.pid.least == s.pid;
    });
    pass([](const Stream& e, const ElementaryStream& s) {
        return e.pid.contains(s.pid) && fits(e, s);
    });
    pass([](const Stream& e, const ElementaryStream& s) { return has_words(e) && fits(e, s); });
    return own;
}

void ExpectedServices::compare_streams(std::size_t index, const Program& program, Now& now) {
    const Service& service = expected_.services[index];
    const auto own = matched(service, program);
    for (std::size_t i = 0; i < own.size(); ++i)
        compare_stream(index, i, own[i], now);
    if (service.other_streams)
        return;
    std::size_t told = 0;
    for (const ElementaryStream& s : program.streams) {
        if (std::find(own.begin(), own.end(), &s) != own.end() || told == others_max)
            continue;
        ++told;
        Deviation d = deviation(Op::added, What::stream, service);
        d.pid = s.pid;
        d.change.pid = s.pid;
        d.change.after = stream_words(s);
        now.emplace(Thing{Aspect::other_stream, index, s.pid}, std::move(d));
    }
}

void ExpectedServices::compare_stream(std::size_t index, std::size_t item,
                                      const ElementaryStream* is, Now& now) {
    const Service& service = expected_.services[index];
    const Stream& expected = service.streams[item];
    Deviation d = deviation(Op::changed, What::stream, service);
    if (is == nullptr) {
        if (expected.optional)
            return;
        d.change.op = Op::removed;
        d.change.before = stream_words(expected);
        if (expected.pid.one())
            d.change.pid = static_cast<int>(expected.pid.least);
    } else {
        d.change.pid = is->pid;
        if (!expected.pid.contains(is->pid)) {
            d.change.op = Op::moved;
            d.change.before = stream_words(expected) + ", " + pid_words(expected.pid);
            d.change.after = stream_words(*is) + ", " + pid_words(is->pid);
        } else if (!fits(expected, *is)) {
            describe(d.change, expected, *is);
        } else {
            return;
        }
    }
    if (d.change.pid)
        d.pid = static_cast<std::uint16_t>(*d.change.pid);
    now.emplace(Thing{Aspect::stream, index, item}, std::move(d));
}

void ExpectedServices::others(Now& now) {
    if (expected_.other_services)
        return;
    std::size_t told = 0;
    for (const Program& program : programs_->programs) {
        if (expected_.service(program.number) != nullptr || told == others_max)
            continue;
        ++told;
        Deviation d;
        d.change.op = Op::added;
        d.change.what = What::service;
        d.change.number = program.number;
        d.programs = {program.number};
        now.emplace(Thing{Aspect::other_service, program.number, 0}, std::move(d));
    }
}

void ExpectedServices::find(std::size_t index, Found&& found, const Place& place) {
    if (found == found_[index])
        return;
    const Service& service = expected_.services[index];
    std::erase_if(scrambled_, [&](const auto& entry) { return entry.second.service == index; });
    for (std::size_t i = 0; i < service.streams.size(); ++i) {
        const int is = pid_of(found, i);
        if (pid_of(found_[index], i) != is)
            deviations_.is_not(Thing{Aspect::scrambling, index, i}, place);
        if (is >= 0 && service.streams[i].scrambled)
            scrambled_.insert({static_cast<std::uint16_t>(is), {index, i}});
    }
    found_[index] = std::move(found);
    found_[index].since = place;
}

void ExpectedServices::seen(const SpansItem::Span& span, const Place& first) {
    if (span.packets == 0)
        return;
    const auto [begin, end] = scrambled_.equal_range(span.pid);
    for (auto at = begin; at != end; ++at) {
        const Watched& watched = at->second;
        const Service& service = expected_.services[watched.service];
        const bool wanted = *service.streams[watched.item].scrambled;
        const bool is = span.scrambled > 0;
        const Thing thing{Aspect::scrambling, watched.service, watched.item};
        if (is == wanted) {
            deviations_.is_not(thing, first);
            continue;
        }
        if (deviations_.has(thing))
            continue;
        Deviation d = deviation(Op::changed, What::scrambling, service);
        d.pid = span.pid;
        d.change.pid = span.pid;
        d.change.before = wanted ? "scrambled" : "clear";
        d.change.after = is ? "scrambled" : "clear";
        d.begin = first;
        d.patience = scrambling_patience;
        deviations_.is(thing, std::move(d));
    }
}

bool ExpectedServices::whole(std::size_t service) const {
    const Found& found = found_[service];
    if (found.all.empty())
        return false;
    for (std::size_t i = 0; i < found.pids.size(); ++i)
        if (!found.pids[i] && !expected_.services[service].streams[i].optional)
            return false;
    return true;
}

void ExpectedServices::judge(Judgement& judgement, const SureClock& clock) const {
    if (!pat_seen_)
        judgement.no(Rule::unexpected, "no PAT");
    const bool named = std::any_of(expected_.services.begin(), expected_.services.end(),
                                   [](const Service& s) { return !s.names.empty(); });
    if (named && !names_)
        judgement.no(Rule::unexpected, "no SDT");
    const bool timed =
        std::any_of(expected_.services.begin(), expected_.services.end(), [](const Service& s) {
            return std::any_of(s.streams.begin(), s.streams.end(),
                               [](const Stream& e) { return e.scrambled.has_value(); });
        });
    if (timed && !clock.runs())
        judgement.no(Rule::unexpected, "no clock");
    else if (timed && clock.covered() < scrambling_patience)
        judgement.no(Rule::unexpected, "shorter than its limit");
}

} // namespace quarn
