#include "judge.h"

#include "feed.h"
#include "inputs/input.h"
#include "measure/stream.h"
#include "reports/junit.h"
#include "reports/records.h"
#include "reports/text.h"
#include "status.h"

namespace quarn::check {

namespace {

using Write = std::function<void(std::string_view)>;

/// Takes findings as they are decided: a record each, or into groups for reports at the end.
class Findings : public Sink {
  public:
    Findings(const std::string& input, const CommandLine& line, const Write& write)
        : records_(input), json_(line.json), grouped_(line.junit || !line.json), write_(write) {}

    void finding(const Finding& finding) override {
        if (json_)
            records_.finding(text_, finding);
        if (grouped_)
            groups_.add(finding);
        if (text_.size() >= most_kept)
            flush();
    }

    void flush() {
        if (!text_.empty())
            write_(text_);
        text_.clear();
    }

    Records& records() { return records_; }
    const Groups& groups() const { return groups_; }
    std::string& text() { return text_; }

  private:
    static constexpr std::size_t most_kept = 65536;

    Records records_;
    bool json_;
    bool grouped_;
    const Write& write_;
    Groups groups_;
    std::string text_;
};

InputFacts facts_of(const std::string& name, const inputs::Input& input) {
    InputFacts facts{name, input.packet_size(), ""};
    if (const std::optional<inputs::Flow> flow = input.flow())
        facts.flow = inputs::to_string(flow->destination) + (flow->rtp ? " (RTP)" : "");
    return facts;
}

/// An input that cannot be read, or not to its end.
Judgement unreadable(const std::string& name, const inputs::Error& error, const CommandLine& line,
                     const Colours& colours, Findings& findings) {
    if (line.json)
        findings.records().error(findings.text(), inputs::word(error.kind), error.text);
    else
        quiet_error(findings.text(), name, error.text, colours);
    Judgement judgement{status_error, {}};
    if (line.junit)
        junit_error(judgement.ending.junit, name, inputs::word(error.kind), error.text);
    judgement.ending.complaint =
        "quarn-check: " + printable(name) + ": " + printable(error.text) + "\n";
    return judgement;
}

void report(const InputFacts& facts, const CommandLine& line, const Colours& colours,
            const Summary& summary, Findings& findings) {
    if (line.json)
        findings.records().summary(findings.text(), summary);
    else if (line.quiet)
        quiet_line(findings.text(), facts, summary, findings.groups(), colours);
    else
        people_report(findings.text(), facts, line.measure, summary, findings.groups(), colours);
}

} // namespace

Judgement judge(const std::string& name, const CommandLine& line, const Colours& colours,
                const Write& write, const std::function<bool()>& go_on, Position& position) {
    Findings findings(name, line, write);
    auto opened = inputs::open(name, {line.flow, nullptr});
    if (const auto* error = std::get_if<inputs::Error>(&opened)) {
        Judgement judgement = unreadable(name, *error, line, colours, findings);
        findings.flush();
        return judgement;
    }
    inputs::Input& input = *std::get<std::unique_ptr<inputs::Input>>(opened);
    position.total = input.bytes_total().value_or(0);
    const InputFacts facts = facts_of(name, input);
    if (line.json)
        findings.records().start(findings.text(), facts.packet_size, line.measure.profile);

    Stream stream(line.measure, findings);
    Feed feed(stream);
    inputs::Input::Status status = inputs::Input::Status::more;
    while (status == inputs::Input::Status::more && go_on()) {
        status = input.read(feed);
        position.read = input.bytes_read();
    }
    if (status == inputs::Input::Status::more)
        return {status_error, {}}; // nobody reads on
    stream.end();

    Judgement judgement;
    if (status == inputs::Input::Status::failed) {
        // Findings up to there stand; a verdict would be one on something else.
        judgement = unreadable(name, input.error(), line, colours, findings);
        if (!line.json && !line.quiet) {
            findings.text() += "What was read until then:\n";
            report(facts, line, colours, stream.summary(), findings);
        }
    } else {
        const Summary summary = stream.summary();
        report(facts, line, colours, summary, findings);
        judgement.status = status_of(summary.verdict);
        if (line.junit)
            junit_suite(judgement.ending.junit, name, summary, findings.groups());
    }
    findings.flush();
    return judgement;
}

} // namespace quarn::check
