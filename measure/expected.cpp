#include "expected.h"

namespace quarn {

Expected::Expected(const Options& options, Output& output)
    : deviations_(output, clock_), services_(*options.expect, options, deviations_),
      tables_(*options.expect, clock_, deviations_),
      rates_(*options.expect, services_, deviations_) {}

void Expected::start(const Place& first) {
    clock_.see(first);
    services_.start(first);
    tables_.start(first);
}

void Expected::programs(const ProgramsPtr& programs, const Place& place) {
    clock_.see(place);
    services_.programs(programs, place);
    tables_.programs(programs, place);
}

void Expected::section(const SectionEvent& section, const Place& end) {
    clock_.see(end);
    tables_.section(section, end);
}

void Expected::seen(const SpansItem::Span& span, const Place& first, const Place& last) {
    clock_.see(last);
    services_.seen(span, first);
}

void Expected::counts(const CountsItem& item, const Place& from, const Place& to,
                      std::optional<bool> constant) {
    rates_.counts(item, from, to, constant);
}

void Expected::look(const Place& now) {
    clock_.see(now);
    tables_.look(now);
    deviations_.look(now);
}

void Expected::anew(const Place& before, const Place& at) {
    clock_.see(before);
    tables_.anew(before, at);
    rates_.anew(before);
}

void Expected::finish(const Place& end) {
    clock_.see(end);
    tables_.finish(end);
    deviations_.finish(end);
}

void Expected::judge(Judgement& judgement) const {
    judgement.yes(Rule::unexpected); // unless one of these says no
    services_.judge(judgement, clock_);
    tables_.judge(judgement);
    rates_.judge(judgement, clock_.runs());
    if (deviations_.undecided())
        judgement.no(Rule::unexpected, "shorter than its limit");
}

} // namespace quarn
