// Scrambled stretches, held against the CAT around them.
#include "scrambling.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "gaps.h"
#include "psi.h"

namespace quarn {

namespace {

constexpr std::size_t steps_max = 4096; // that wait for a CAT behind them
constexpr std::size_t cats_max = 4096;

} // namespace

class Scrambling::Impl {
  public:
    Impl(const Options& options, Output& output) : options_(options), output_(output) {}

    void scrambling(const ScramblingEvent& event, const Place& before, const Place& place);
    void programs(const ProgramsPtr& programs);
    void section(const SectionEvent& section, const Place& end);
    void seen(std::uint16_t pid, const Place& first, const Place& last);
    void advance(const Place& now);
    void look(const Place& now);
    void anew(const Place& before, const Place& at);
    void finish(const Place& end);
    void judge(Judgement& judgement) const;

  private:
    // The scrambling of a pid: since where, and whether somebody was told of it.
    struct State {
        bool scrambled = false;
        bool told = true;
        Place since;
        std::optional<Place> was_until; // scrambled up to here, since the last step
        Place was_since;
    };
    // Scrambled packets of elementary streams between two steps of the clock.
    struct Stretch {
        Place first;
        Place last;
        std::set<std::uint16_t> pids;
    };

    void tell(std::uint16_t pid, State& state);
    void add(std::uint16_t pid, const Place& first, const Place& last);
    void step_ends();
    bool cat_near(const Place& place) const;
    bool whole_window(const Place& place) const;
    void decide(const Stretch& stretch);
    void end_run(bool open = false);
    Finding make_run() const;

    const Options& options_;
    Output& output_;
    SureClock clock_;
    ProgramsPtr programs_ = std::make_shared<Programs>();
    std::map<std::uint16_t, State> states_;
    std::deque<Place> cats_;
    std::optional<Stretch> step_; // under way
    std::deque<Stretch> waiting_;
    // Scrambled packets without a CAT one behind the other.
    std::optional<Stretch> run_;
    bool run_is_sure_ = false;   // some of them a limit from both ends of the input
    std::uint64_t interval_ = 0; // live: its Finding::id
    std::optional<Place> start_;
    Place end_;
    bool ended_ = false;
    bool scrambled_seen_ = false;
    bool section_seen_ = false;
    bool streams_seen_ = false;
};

void Scrambling::Impl::scrambling(const ScramblingEvent& event, const Place& before,
                                  const Place& place) {
    clock_.see(place);
    if (!start_)
        start_ = place;
    State& state = states_[event.pid];
    if (event.first) {
        state = {event.scrambled, !event.scrambled, place, std::nullopt, {}};
    } else if (state.scrambled != event.scrambled) {
        if (state.scrambled) {
            state.was_since = state.since;
            state.was_until = before;
        }
        state.scrambled = event.scrambled;
        state.since = place;
        state.told = false;
    }
    tell(event.pid, state);
}

// A change on a pid that no PMT in force names waits for one that does.
void Scrambling::Impl::tell(std::uint16_t pid, State& state) {
    if (state.told || !programs_->stream(pid))
        return;
    state.told = true;
    Finding f;
    f.rule = Rule::scrambling_changed;
    f.severity = info(f.rule).severity;
    f.programs = programs_->programs_of(pid);
    f.pid = pid;
    f.begin = f.end = state.since;
    output_.finding(std::move(f));
}

void Scrambling::Impl::programs(const ProgramsPtr& programs) {
    const ProgramsPtr before = std::exchange(programs_, programs);
    for (const Program& program : programs->programs)
        for (const ElementaryStream& stream : program.streams) {
            streams_seen_ = true;
            if (const auto state = states_.find(stream.pid); state != states_.end())
                tell(stream.pid, state->second);
        }
    std::erase_if(states_, [&](const auto& entry) {
        return before->stream(entry.first) && !programs->stream(entry.first);
    });
}

void Scrambling::Impl::section(const SectionEvent& section, const Place& end) {
    if (section.pid != table_pid::cat)
        return;
    section_seen_ = true;
    if (section.table_id == table_id::cat || !section.crc_right)
        cats_.push_back(end);
    if (cats_.size() > cats_max)
        cats_.pop_front();
}

void Scrambling::Impl::seen(std::uint16_t pid, const Place& first, const Place& last) {
    if (!start_ || first.packet < start_->packet)
        start_ = first;
    const auto known = states_.find(pid);
    if (known == states_.end())
        return;
    State& state = known->second;
    const auto later = [](const Place& a, const Place& b) -> const Place& {
        return a.packet < b.packet ? b : a;
    };
    if (const auto until = std::exchange(state.was_until, std::nullopt);
        until && first.packet <= until->packet)
        add(pid, later(first, state.was_since), *until);
    if (state.scrambled)
        add(pid, later(first, state.since), last);
}

void Scrambling::Impl::add(std::uint16_t pid, const Place& first, const Place& last) {
    if (first.time == no_time || !programs_->stream(pid))
        return;
    scrambled_seen_ = true;
    if (!step_)
        step_ = Stretch{first, last, {}};
    if (first.packet < step_->first.packet)
        step_->first = first;
    if (last.packet > step_->last.packet)
        step_->last = last;
    step_->pids.insert(pid);
}

void Scrambling::Impl::step_ends() {
    if (!step_)
        return;
    waiting_.push_back(std::move(*step_));
    step_.reset();
    if (waiting_.size() > steps_max) {
        decide(waiting_.front());
        waiting_.pop_front();
    }
}

void Scrambling::Impl::advance(const Place& now) {
    clock_.see(now);
    step_ends();
    const Ticks limit = options_.limits.cat;
    const auto far = [&](const Place& place, Ticks by) {
        return clock_.distance(place, now).value_or(0) > by;
    };
    while (!waiting_.empty() && far(waiting_.front().last, limit)) {
        decide(waiting_.front());
        waiting_.pop_front();
    }
    const Place& oldest = waiting_.empty() ? now : waiting_.front().first;
    while (cats_.size() > 1 && clock_.distance(cats_[1], oldest).value_or(0) > limit)
        cats_.pop_front();
}

bool Scrambling::Impl::cat_near(const Place& place) const {
    return std::any_of(cats_.begin(), cats_.end(), [&](const Place& cat) {
        const bool before = cat.packet < place.packet;
        const auto distance = before ? clock_.distance(cat, place) : clock_.distance(place, cat);
        return distance && *distance <= options_.limits.cat;
    });
}

// Whether a CAT before or behind the input cannot be near.
bool Scrambling::Impl::whole_window(const Place& place) const {
    const Ticks limit = options_.limits.cat;
    return clock_.distance(*start_, place).value_or(0) >= limit &&
           (!ended_ || clock_.distance(place, end_).value_or(0) >= limit);
}

void Scrambling::Impl::decide(const Stretch& stretch) {
    const bool first_bad = !cat_near(stretch.first);
    const bool last_bad = !cat_near(stretch.last);
    if (run_ && !first_bad)
        end_run();
    if (first_bad || last_bad) {
        const Place& first = first_bad ? stretch.first : stretch.last;
        const Place& last = last_bad ? stretch.last : stretch.first;
        if (!run_)
            run_ = Stretch{first, last, {}};
        run_->last = last;
        run_->pids.insert(stretch.pids.begin(), stretch.pids.end());
        run_is_sure_ = run_is_sure_ || whole_window(first) || whole_window(last);
    }
    if (run_ && !last_bad)
        end_run();
}

void Scrambling::Impl::end_run(bool open) {
    Finding f = make_run();
    f.id = std::exchange(interval_, 0);
    f.open = open;
    run_.reset();
    if (std::exchange(run_is_sure_, false))
        output_.finding(std::move(f));
}

void Scrambling::Impl::look(const Place& now) {
    const Ticks still = run_ ? clock_.distance(run_->last, now).value_or(0) : 0;
    if (waiting_.empty() && still > 2 * options_.limits.cat)
        end_run();
    if (!run_ || !run_is_sure_)
        return;
    if (interval_ == 0)
        interval_ = output_.new_id();
    Finding f = make_run();
    f.id = interval_;
    output_.going_on(std::move(f));
}

// What was not seen may have had a CAT in it.
void Scrambling::Impl::anew(const Place& before, const Place& at) {
    clock_.see(before);
    step_ends();
    cats_.push_back(before);
    while (!waiting_.empty()) {
        decide(waiting_.front());
        waiting_.pop_front();
    }
    if (run_)
        end_run(true);
    cats_.push_back(at);
    start_ = at;
}

Finding Scrambling::Impl::make_run() const {
    const Stretch& run = *run_;
    Finding f;
    f.rule = Rule::cat_error;
    f.kind = Kind::absent;
    f.severity = info(f.rule).severity;
    f.shape = Shape::interval;
    f.begin = run.first;
    f.end = run.last;
    f.detail.table_id = table_id::cat;
    f.detail.pids = {run.pids.begin(), run.pids.end()};
    if (f.detail.pids.size() == 1)
        f.pid = f.detail.pids.front();
    std::set<std::uint16_t> numbers;
    for (const std::uint16_t pid : f.detail.pids)
        for (const std::uint16_t number : programs_->programs_of(pid))
            numbers.insert(number);
    f.programs = {numbers.begin(), numbers.end()};
    return f;
}

void Scrambling::Impl::finish(const Place& end) {
    clock_.see(end);
    ended_ = true;
    end_ = end;
    step_ends();
    for (const Stretch& stretch : waiting_)
        decide(stretch);
    waiting_.clear();
    if (run_)
        end_run();
}

void Scrambling::Impl::judge(Judgement& judgement) const {
    const bool any = std::any_of(states_.begin(), states_.end(),
                                 [](const auto& entry) { return entry.second.scrambled; });
    const bool scrambled =
        scrambled_seen_ || any; // else foreign table ids are all there is to judge
    if (!scrambled && !section_seen_)
        judgement.not_applicable(Rule::cat_error, "nothing is scrambled");
    else if (scrambled && !clock_.runs())
        judgement.no(Rule::cat_error, "no clock");
    else if (scrambled && clock_.covered() < options_.limits.cat)
        judgement.no(Rule::cat_error, "shorter than its limit");
    else
        judgement.yes(Rule::cat_error);
    if (streams_seen_)
        judgement.yes(Rule::scrambling_changed);
    else
        judgement.not_applicable(Rule::scrambling_changed, "no stream is announced");
}

Scrambling::Scrambling(const Options& options, Output& output)
    : impl_(std::make_unique<Impl>(options, output)) {}
Scrambling::~Scrambling() = default;

void Scrambling::scrambling(const ScramblingEvent& event, const Place& before, const Place& place) {
    impl_->scrambling(event, before, place);
}
void Scrambling::programs(const ProgramsPtr& programs, const Place&) {
    impl_->programs(programs);
}
void Scrambling::section(const SectionEvent& section, const Place& end) {
    impl_->section(section, end);
}
void Scrambling::seen(std::uint16_t pid, const Place& first, const Place& last) {
    impl_->seen(pid, first, last);
}
void Scrambling::advance(const Place& now) {
    impl_->advance(now);
}
void Scrambling::look(const Place& now) {
    impl_->look(now);
}
void Scrambling::anew(const Place& before, const Place& at) {
    impl_->anew(before, at);
}
void Scrambling::finish(const Place& end) {
    impl_->finish(end);
}
void Scrambling::judge(Judgement& judgement) const {
    impl_->judge(judgement);
}

} // namespace quarn
