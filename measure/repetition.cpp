// PAT, PMT and CAT, and where sections of service information belong.
#include "repetition.h"

#include <algorithm>
#include <bitset>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "gaps.h"
#include "si_repetition.h"
#include "si_rows.h"

namespace quarn {

namespace {

constexpr Ticks absent_live = 10 * ticks_per_second;
constexpr Ticks scrambled_quiet = ticks_per_second; // ends a run of scrambled packets

// Intervals and points that are no gap of a series.
Finding make_finding(Rule rule, Kind kind, std::uint16_t pid, std::optional<int> table,
                     const Place& begin, const Place& end) {
    Finding f;
    f.rule = rule;
    f.kind = kind;
    f.severity = info(rule).severity;
    f.pid = pid;
    f.begin = begin;
    f.end = end;
    f.detail.table_id = table;
    return f;
}

} // namespace

class Repetition::Impl {
  public:
    Impl(const Options& options, Output& output, bool live)
        : options_(options), output_(output), gaps_(output, live), si_(options, gaps_) {}

    void start(const Place& first);
    void section(const SectionEvent& section, const Place& begin, const Place& end);
    void programs(const ProgramsPtr& programs, const Place& place);
    void seen(std::uint16_t pid);
    void scrambled(std::uint16_t pid, const Place& place);
    void advance(const Place& now);
    void look(const Place& now);
    void anew(const Place& before, const Place& at);
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

    Gaps& gaps() { return gaps_; }

  private:
    // A pid of PMTs.
    struct Watch {
        Series series;
        Place announced;
        bool packets = false; // any came
        bool told_absent = false;
        std::vector<std::uint64_t> absent; // live: Finding::id by program, in order
        std::bitset<256> ids;              // table ids that were seen with a right CRC
    };

    // A wrong CRC, and a table id that else does not come there.
    static bool may_be_pmt(const Watch& watch, const SectionEvent& section) {
        return !section.crc_right && !watch.ids[section.table_id];
    }
    // Nobody expects the program to be there.
    bool left_out(std::uint16_t program) const {
        return options_.expect && options_.expect->leaves_out(program);
    }
    bool judges_repetition() const { return options_.profile != Profile::segment; }
    void wrong_crc(const SectionEvent& section, const Place& end);
    void foreign_id(const SectionEvent& section, const Place& end);
    void pat_section(const SectionEvent& section, const Place& end);
    void pmt_section(Watch& watch, const SectionEvent& section, const Place& end);
    std::optional<SiRow> si_row_of(const SectionEvent& section) const;
    void distance_ends(Series& series, const GapRow& row, const Place& place);
    void close(std::uint16_t pid, Watch& watch, const ProgramsPtr& programs, const Place& place,
               bool open);
    void tell_absent(std::uint16_t pid, Watch& watch, const ProgramsPtr& programs,
                     const Place& place, bool open);
    void goes_on_absent(std::uint16_t pid, Watch& watch, const Place& now);
    void came(std::uint16_t pid, Watch& watch, const Place& place);
    std::vector<Finding> make_absent(std::uint16_t pid, const Watch& watch,
                                     const ProgramsPtr& programs, const Place& place) const;
    Finding make_absent_pat(const Place& place) const;
    void end_pat(const Place& place);
    void end_scrambled(std::uint16_t pid);
    GapRow pat_row() const {
        return {Rule::pat_error_2, options_.limits.pat, table_pid::pat, table_id::pat};
    }
    GapRow pmt_row(std::uint16_t pid) const {
        return {Rule::pmt_error_2, options_.limits.pmt, pid, table_id::pmt};
    }

    const Options& options_;
    Output& output_;
    Gaps gaps_;
    SiRepetition si_;
    ProgramsPtr programs_ = std::make_shared<Programs>();
    Place start_;
    Place now_;
    std::bitset<pid_count> early_; // pids with packets before the first PAT
    bool started_ = false;
    Series pat_;
    bool pat_seen_ = false;
    std::uint64_t pat_absent_ = 0; // live: Finding::id
    bool crc_seen_ = false;
    bool programs_seen_ = false;
    std::optional<std::uint16_t> transport_stream_;
    std::map<std::uint16_t, Watch> pmts_; // by pid
    std::map<std::uint16_t, Finding> scrambled_;
};

void Repetition::Impl::start(const Place& first) {
    if (std::exchange(started_, true))
        return;
    gaps_.clock().see(first);
    start_ = pat_.last = first;
    si_.start(first);
}

void Repetition::Impl::section(const SectionEvent& section, const Place& begin, const Place& end) {
    start(begin); // if nobody has said where the input begins
    gaps_.clock().see(begin);
    gaps_.clock().see(end);
    const auto watch = pmts_.find(section.pid);
    if (!section.crc_right)
        wrong_crc(section, end);
    else
        foreign_id(section, end);
    // What has a wrong CRC may have been one whatever its table id says.
    if (section.pid == table_pid::pat && (section.table_id == table_id::pat || !section.crc_right))
        pat_section(section, end);
    if (watch != pmts_.end())
        pmt_section(watch->second, section, end);
    if (const auto row = si_row_of(section))
        si_.section(section, *row, begin, end);
    if (section.crc_right)
        end_scrambled(section.pid);
}

void Repetition::Impl::wrong_crc(const SectionEvent& section, const Place& end) {
    const auto watch = pmts_.find(section.pid);
    const bool of_si = section.pid >= table_pid::nit && section.pid <= table_pid::tdt;
    const bool of_pmt = watch != pmts_.end() &&
                        (section.table_id == table_id::pmt || may_be_pmt(watch->second, section));
    const bool ours = section.pid <= table_pid::cat || of_si || of_pmt || si_row_of(section);
    if (!ours)
        return; // private sections
    crc_seen_ = true;
    Finding f = make_finding(Rule::crc_error, Kind::none, section.pid, section.table_id, end, end);
    f.programs = programs_->programs_of(section.pid);
    gaps_.excusable(std::move(f));
}

void Repetition::Impl::foreign_id(const SectionEvent& section, const Place& end) {
    crc_seen_ = true;
    const auto row = foreign_row(section.pid);
    if (!row || pmts_.contains(section.pid))
        return;
    bool foreign = false;
    if (section.pid == table_pid::pat)
        foreign = section.table_id != table_id::pat && judges_repetition();
    else if (section.pid == table_pid::cat)
        foreign = section.table_id != table_id::cat;
    else
        foreign = si_.armed() && section.table_id != table_id::stuffing && !si_row_of(section);
    if (!foreign)
        return;
    si_.found(*row);
    gaps_.excusable(make_finding(*row, Kind::table_id, section.pid, section.table_id, end, end));
}

// The row of a table of service information that stands on its pid.
std::optional<SiRow> Repetition::Impl::si_row_of(const SectionEvent& section) const {
    const auto row = si_row(section.table_id, options_.limits);
    if (!row)
        return std::nullopt;
    const bool network = row->pid == table_pid::nit && programs_->network_pid == section.pid;
    return row->pid == section.pid || network ? row : std::nullopt;
}

void Repetition::Impl::distance_ends(Series& series, const GapRow& row, const Place& place) {
    if (judges_repetition())
        gaps_.came(series, row, programs_->programs_of(row.pid), place);
}

void Repetition::Impl::pat_section(const SectionEvent& section, const Place& end) {
    if (!std::exchange(pat_seen_, true) && output_.raised(pat_absent_)) {
        Finding f = make_absent_pat(end);
        f.id = pat_absent_;
        output_.finding(std::move(f));
        pat_.last = end;
    }
    output_.withdraw(std::exchange(pat_absent_, 0));
    distance_ends(pat_, pat_row(), end);
    if (!section.crc_right || !section.current)
        return;
    if (transport_stream_ && *transport_stream_ != section.extension)
        si_.forget(end);
    transport_stream_ = section.extension;
}

void Repetition::Impl::pmt_section(Watch& watch, const SectionEvent& section, const Place& end) {
    came(section.pid, watch, end);
    if (section.crc_right)
        watch.ids.set(section.table_id);
    if (section.table_id == table_id::pmt || may_be_pmt(watch, section))
        distance_ends(watch.series, pmt_row(section.pid), end);
}

void Repetition::Impl::programs(const ProgramsPtr& programs, const Place& place) {
    gaps_.clock().see(place);
    const ProgramsPtr before = std::exchange(programs_, programs);
    for (auto watch = pmts_.begin(); watch != pmts_.end();) {
        if (programs->is_pmt_pid(watch->first)) {
            ++watch;
            continue;
        }
        close(watch->first, watch->second, before, place, false);
        watch = pmts_.erase(watch);
    }
    for (const Program& program : programs->programs) {
        const auto [watch, first] = pmts_.try_emplace(program.pmt_pid);
        if (!first)
            continue;
        watch->second.announced = place;
        // The first PAT announces what should have been there from the start; of a pid with packets
        // before it nobody looked at the sections.
        const bool later = before->pat_in_force || !started_ || early_[program.pmt_pid];
        watch->second.series.last = later ? place : start_;
    }
    programs_seen_ = programs_seen_ || !programs->programs.empty();
    si_.programs(programs, place);
}

void Repetition::Impl::seen(std::uint16_t pid) {
    if (const auto watch = pmts_.find(pid); watch != pmts_.end())
        came(pid, watch->second, now_);
    else if (!programs_seen_)
        early_[pid] = true;
}

// A packet of a pid of PMTs.
void Repetition::Impl::came(std::uint16_t pid, Watch& watch, const Place& place) {
    if (std::exchange(watch.packets, true) || watch.absent.empty())
        return;
    tell_absent(pid, watch, programs_, place, false);
    watch.series.last = place;
}

void Repetition::Impl::scrambled(std::uint16_t pid, const Place& place) {
    const bool pmt = pmts_.contains(pid);
    if (pid != table_pid::pat && !pmt)
        return;
    seen(pid);
    const auto known = scrambled_.find(pid);
    if (known != scrambled_.end()) {
        ++known->second.count;
        known->second.end = place;
        return;
    }
    const Rule rule = pmt ? Rule::pmt_error_2 : Rule::pat_error_2;
    Finding f = make_finding(rule, Kind::scrambled, pid, std::nullopt, place, place);
    f.shape = Shape::interval;
    f.programs = programs_->programs_of(pid);
    scrambled_.emplace(pid, std::move(f));
}

// What cannot be read is neither late nor absent.
void Repetition::Impl::end_scrambled(std::uint16_t pid) {
    const auto run = scrambled_.find(pid);
    if (run == scrambled_.end())
        return;
    gaps_.silence(pid, run->second.begin, run->second.end);
    if (judges_repetition())
        gaps_.other(std::move(run->second));
    scrambled_.erase(run);
}

void Repetition::Impl::tell_absent(std::uint16_t pid, Watch& watch, const ProgramsPtr& programs,
                                   const Place& place, bool open) {
    if (std::exchange(watch.told_absent, true))
        return;
    const std::vector<std::uint64_t> ids = std::exchange(watch.absent, {});
    std::size_t i = 0;
    for (Finding& f : make_absent(pid, watch, programs, place)) {
        f.open = open;
        f.id = i < ids.size() ? ids[i++] : 0;
        gaps_.other(std::move(f));
    }
}

std::vector<Finding> Repetition::Impl::make_absent(std::uint16_t pid, const Watch& watch,
                                                   const ProgramsPtr& programs,
                                                   const Place& place) const {
    std::vector<Finding> all;
    const Ticks length = gaps_.clock().distance(watch.announced, place).value_or(0);
    for (const Program& program : programs->programs) {
        if (program.pmt_pid != pid || left_out(program.number))
            continue;
        Finding f = make_finding(Rule::pmt_error_2, Kind::absent, pid, table_id::pmt,
                                 watch.announced, place);
        f.shape = Shape::interval;
        f.programs = {program.number};
        f.detail.interval_ms = milliseconds(length);
        f.detail.limit_ms = milliseconds(options_.limits.pmt);
        all.push_back(std::move(f));
    }
    return all;
}

void Repetition::Impl::goes_on_absent(std::uint16_t pid, Watch& watch, const Place& now) {
    std::vector<Finding> all = make_absent(pid, watch, programs_, now);
    while (watch.absent.size() < all.size())
        watch.absent.push_back(output_.new_id());
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i].id = watch.absent[i];
        output_.going_on(std::move(all[i]));
    }
}

void Repetition::Impl::close(std::uint16_t pid, Watch& watch, const ProgramsPtr& programs,
                             const Place& place, bool open) {
    const auto exceeds = [&](const Place& from) {
        return gaps_.clock().distance(from, place).value_or(0) > options_.limits.pmt;
    };
    if (!watch.packets && exceeds(watch.announced))
        tell_absent(pid, watch, programs, place, open);
    else if (watch.packets && exceeds(watch.series.last) && judges_repetition())
        gaps_.gap(watch.series, pmt_row(pid), programs->programs_of(pid), place, open);
    gaps_.good(watch.series, place);
}

void Repetition::Impl::advance(const Place& now) {
    gaps_.clock().see(now);
    for (auto run = scrambled_.begin(); run != scrambled_.end();) {
        const auto quiet = gaps_.clock().distance(run->second.end, now);
        const std::uint16_t pid = (run++)->first;
        if (quiet && *quiet > scrambled_quiet)
            end_scrambled(pid);
    }
    now_ = now;
    gaps_.advance(now);
}

void Repetition::Impl::look(const Place& now) {
    const auto since = [&](const Place& from) {
        return gaps_.clock().distance(from, now).value_or(0);
    };
    if (pat_seen_ && judges_repetition() && since(pat_.last) > options_.limits.pat)
        gaps_.going_on(pat_, pat_row(), {}, now);
    if (!pat_seen_ && since(pat_.last) > absent_live) {
        if (pat_absent_ == 0)
            pat_absent_ = output_.new_id();
        Finding f = make_absent_pat(now);
        f.id = pat_absent_;
        output_.going_on(std::move(f));
    }
    for (auto& [pid, watch] : pmts_) {
        if (!watch.packets && since(watch.announced) > absent_live)
            goes_on_absent(pid, watch, now);
        else if (watch.packets && judges_repetition() &&
                 since(watch.series.last) > options_.limits.pmt)
            gaps_.going_on(watch.series, pmt_row(pid), programs_->programs_of(pid), now);
    }
    for (auto& [pid, run] : scrambled_) {
        if (run.id == 0)
            run.id = output_.new_id();
        if (judges_repetition())
            output_.going_on(Finding(run));
    }
    si_.look(now);
}

void Repetition::Impl::anew(const Place& before, const Place& at) {
    while (!scrambled_.empty())
        end_scrambled(scrambled_.begin()->first);
    end_pat(before);
    gaps_.good(pat_, before);
    pat_.last = at;
    for (auto& [pid, watch] : pmts_) {
        close(pid, watch, programs_, before, true);
        watch.series.last = watch.announced = at;
        watch.told_absent = false;
    }
    si_.anew(before, at);
}

Finding Repetition::Impl::make_absent_pat(const Place& place) const {
    Finding f = make_finding(Rule::pat_error_2, Kind::absent, table_pid::pat, table_id::pat,
                             pat_.last, place);
    f.shape = Shape::interval;
    f.detail.interval_ms = milliseconds(gaps_.clock().distance(pat_.last, place).value_or(0));
    f.detail.limit_ms = milliseconds(options_.limits.pat);
    return f;
}

// The PAT has not come for so long, or never.
void Repetition::Impl::end_pat(const Place& place) {
    const Ticks since = gaps_.clock().distance(pat_.last, place).value_or(0);
    const std::uint64_t id = std::exchange(pat_absent_, 0);
    if (since <= options_.limits.pat)
        return;
    if (pat_seen_ && judges_repetition())
        gaps_.gap(pat_, pat_row(), {}, place, true);
    if (pat_seen_)
        return;
    Finding f = make_absent_pat(place);
    f.open = true;
    f.id = id;
    if (output_.raised(id))
        output_.finding(std::move(f));
    else
        gaps_.excusable(std::move(f), since, options_.limits.pat);
}

void Repetition::Impl::finish(const Place& end) {
    gaps_.clock().see(end);
    while (!scrambled_.empty())
        end_scrambled(scrambled_.begin()->first);
    end_pat(end);
    for (auto& [pid, watch] : pmts_)
        close(pid, watch, programs_, end, true);
    si_.finish(end);
    gaps_.finish();
}

void Repetition::Impl::judge(Judgement& judgement) const {
    const auto row = [&](Rule rule, Ticks limit) {
        if (!gaps_.clock().runs())
            judgement.no(rule, "no clock");
        else if (gaps_.clock().covered() < limit)
            judgement.no(rule, "shorter than its limit");
        else
            judgement.yes(rule);
    };
    // That a table is there at all needs no clock to be seen.
    const bool all_packets =
        std::all_of(programs_->programs.begin(), programs_->programs.end(), [&](const Program& p) {
            const auto watch = pmts_.find(p.pmt_pid);
            return left_out(p.number) || watch == pmts_.end() || watch->second.packets;
        });
    if (pat_seen_ && !judges_repetition())
        judgement.yes(Rule::pat_error_2);
    else
        row(Rule::pat_error_2, options_.limits.pat);
    if (!programs_seen_)
        judgement.not_applicable(Rule::pmt_error_2, "no program is announced");
    else if (all_packets && !judges_repetition())
        judgement.yes(Rule::pmt_error_2);
    else
        row(Rule::pmt_error_2, options_.limits.pmt);
    for (const Rule rule : {Rule::crc_error, Rule::table_changed, Rule::version_unchanged}) {
        if (crc_seen_)
            judgement.yes(rule);
        else
            judgement.not_applicable(rule, "no tables");
    }
    si_.judge(judgement);
}

Repetition::Repetition(const Options& options, Output& output, bool live)
    : impl_(std::make_unique<Impl>(options, output, live)) {}
Repetition::~Repetition() = default;

void Repetition::record(Recorder& recorder) {
    impl_->gaps().record(recorder);
}

void Repetition::start(const Place& first) {
    impl_->start(first);
}
void Repetition::section(const SectionEvent& section, const Place& begin, const Place& end) {
    impl_->section(section, begin, end);
}
void Repetition::programs(const ProgramsPtr& programs, const Place& place) {
    impl_->programs(programs, place);
}
void Repetition::seen(std::uint16_t pid) {
    impl_->seen(pid);
}
void Repetition::scrambled(std::uint16_t pid, const Place& place) {
    impl_->scrambled(pid, place);
}
void Repetition::outage(const Place& from, const Place& to) {
    impl_->gaps().silence(null_pid, from, to);
}
void Repetition::excuse(std::uint16_t pid, const Place& from, const Place& to) {
    impl_->gaps().damage(pid, from, to);
}
void Repetition::advance(const Place& now) {
    impl_->advance(now);
}
void Repetition::look(const Place& now) {
    impl_->look(now);
}
void Repetition::wait(const Place& now) {
    impl_->gaps().advance(now);
}
void Repetition::anew(const Place& before, const Place& at) {
    impl_->anew(before, at);
}
void Repetition::finish(const Place& end) {
    impl_->finish(end);
}
void Repetition::judge(Judgement& judgement) const {
    impl_->judge(judgement);
}

} // namespace quarn
