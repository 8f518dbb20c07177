#include "judge.h"

#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "cuts/input_cuts.h"
#include "feed.h"
#include "inputs/input.h"
#include "measure/stream.h"
#include "reports/junit.h"
#include "reports/kept_findings.h"
#include "reports/records.h"
#include "reports/text.h"
#include "reports/words.h"
#include "settings/expect_file.h"
#include "settings/words.h"
#include "status.h"

namespace quarn::check {

namespace {

using Write = std::function<void(std::string_view)>;

/// Takes findings as they are decided: a record each, or into groups for reports at the end.
class Findings : public Sink {
  public:
    Findings(const std::string& input, const CommandLine& line, const Write& write)
        : records_(input), json_(line.json), grouped_(line.junit || line.html || !line.json),
          write_(write) {
        if (line.html)
            kept_.emplace(input);
    }

    void finding(const Finding& finding) override {
        Extras extras;
        if (auto cut = cuts_ ? cuts_->take(finding) : std::nullopt) {
            extras.cut_file = std::move(cut->file);
            extras.cut_packet = cut->packet;
        }
        if (json_)
            records_.finding(text_, finding, extras);
        if (grouped_)
            groups_.add(finding, extras);
        if (kept_)
            kept_->add(finding, extras);
        if (text_.size() >= most_kept)
            flush();
    }

    /// From now on what is found is cut out as well.
    void cut(cuts::InputCuts& cuts) { cuts_ = &cuts; }

    void ended(const cuts::InputCuts& cuts) {
        for (const std::string& file : cuts.lost())
            groups_.forget_cut(file);
    }

    void flush() {
        if (!text_.empty())
            write_(text_);
        text_.clear();
    }

    Records& records() { return records_; }
    const Groups& groups() const { return groups_; }
    const std::optional<KeptFindings>& kept() const { return kept_; }
    std::string& text() { return text_; }

  private:
    static constexpr std::size_t most_kept = 65536;

    Records records_;
    bool json_;
    bool grouped_;
    const Write& write_;
    Groups groups_;
    std::optional<KeptFindings> kept_;
    cuts::InputCuts* cuts_ = nullptr;
    std::string text_;
};

InputFacts facts_of(const std::string& name, const inputs::Input& input) {
    InputFacts facts{name, input.packet_size(), ""};
    if (const std::optional<inputs::Flow> flow = input.flow())
        facts.flow = inputs::to_string(flow->destination) + (flow->rtp ? " (RTP)" : "");
    return facts;
}

void complain(Judgement& judgement, const std::string& about, const std::string& text) {
    judgement.ending.complaint +=
        "quarn-check: " + printable(about) + ": " + printable(text) + "\n";
}

/// An input that cannot be read, or not to its end.
Judgement unreadable(const std::string& name, const inputs::Error& error, const CommandLine& line,
                     const Colours& colours, Findings& findings) {
    if (line.json)
        findings.records().error(findings.text(), inputs::word(error.kind), error.text);
    else
        quiet_error(findings.text(), name, error.text, colours);
    Judgement judgement;
    judgement.status = status_error;
    if (line.junit)
        junit_error(judgement.ending.junit, name, inputs::word(error.kind), error.text);
    complain(judgement, name, error.text);
    if (line.html)
        judgement.html_row = html_error_row(name, error.text, {});
    return judgement;
}

/// Writes the page on an input; `error`: why it could not be read to its end.
void write_page(const PageFile& page, const InputFacts& facts, const CommandLine& line,
                const Summary& summary, const Findings& findings, TimeSeries&& series,
                const std::string& error, Judgement& judgement) {
    const std::string html =
        html_page({facts, line.measure, summary, findings.groups(), *findings.kept(), error},
                  std::move(series), QUARN_VERSION);
    errno = 0;
    std::ofstream file(page.path, std::ios::binary);
    file << html;
    file.close();
    if (!file) {
        complain(judgement, page.path, std::generic_category().message(errno ? errno : EIO));
        judgement.status = status_error;
    }
    judgement.page_written = true;
    judgement.html_row = error.empty() ? html_row(facts, summary, findings.groups(), page.link)
                                       : html_error_row(facts.name, error, page.link);
}

/// What is missing because only the beginning of datagrams was recorded is no fault of the stream.
void tell_of_cut(const inputs::Flow& flow, const std::string& name, Judgement& judgement) {
    if (flow.cut > 0)
        complain(judgement, name,
                 "of " + std::to_string(flow.cut) + " of " + std::to_string(flow.datagrams) +
                     " datagrams only the beginning was recorded, so packets are missing in it; "
                     "record them whole, as tcpdump -s 0 does");
}

void tell_of(const cuts::InputCuts& cuts, const std::string& name, Judgement& judgement) {
    for (const std::string& remark : cuts.remarks())
        complain(judgement, name, remark);
    if (cuts.trouble().empty())
        return;
    complain(judgement, "cuts of " + name, cuts.trouble());
    judgement.status = status_error;
}

/// Writes what is to be expected of others, and says where that is doubtful.
void write_expect(const std::string& path, const std::string& input, const Summary& summary,
                  const Observed& observed, Judgement& judgement) {
    try {
        settings::write_expectation(path, settings::expectation_text(input, summary, observed));
    } catch (const settings::WrongValue& wrong) {
        complain(judgement, "--write-expect", wrong.what());
        judgement.status = status_error;
        return;
    }
    if (summary.verdict == Verdict::failed)
        complain(judgement, input,
                 "failed (" + id_list(summary.why) + "), and " + path +
                     " expects others to be as it is; a good capture is a better measure");
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

/// Reads until the input is over, or nobody reads on (`more`).
inputs::Input::Status read_all(inputs::Input& input, Stream& stream, cuts::InputCuts* cuts,
                               const std::function<bool()>& go_on, Position& position) {
    Feed feed(stream);
    auto status = inputs::Input::Status::more;
    while (status == inputs::Input::Status::more && go_on()) {
        status = input.read(feed);
        position.read = input.bytes_read();
        if (cuts != nullptr)
            cuts->turn();
    }
    return status;
}

/// The report on an input that was read to its end, and what follows from it.
Judgement whole(const InputFacts& facts, const CommandLine& line, const Colours& colours,
                const Summary& summary, Findings& findings) {
    report(facts, line, colours, summary, findings);
    Judgement judgement;
    judgement.status = status_of(summary.verdict);
    if (line.junit)
        junit_suite(judgement.ending.junit, facts.name, summary, findings.groups());
    return judgement;
}

/// Findings up to there stand; a verdict would be one on something else.
Judgement broken_off(const InputFacts& facts, const inputs::Error& error, const CommandLine& line,
                     const Colours& colours, const Summary& summary, Findings& findings) {
    Judgement judgement = unreadable(facts.name, error, line, colours, findings);
    if (!line.json && !line.quiet) {
        findings.text() += "What was read until then:\n";
        report(facts, line, colours, summary, findings);
    }
    return judgement;
}

} // namespace

Judgement judge(const std::string& name, const CommandLine& line, const Colours& colours,
                const std::optional<PageFile>& page, const Write& write,
                const std::function<bool()>& go_on, Position& position) {
    Findings findings(name, line, write);
    const std::size_t keep = line.cuts.wanted() ? cuts::InputCuts::kept_bytes : 0;
    auto opened = inputs::open(name, {line.flow, nullptr, keep});
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

    std::optional<cuts::InputCuts> cuts;
    if (line.cuts.wanted())
        findings.cut(cuts.emplace(line.cuts, name, input, line.measure.bitrate));
    Stream stream(line.measure, findings);
    const auto status = read_all(input, stream, cuts ? &*cuts : nullptr, go_on, position);
    if (status == inputs::Input::Status::more)
        return {status_error, {}, {}, false}; // nobody reads on
    stream.end();
    if (cuts) {
        cuts->end();
        findings.ended(*cuts);
    }

    const Summary summary = stream.summary();
    const bool failed = status == inputs::Input::Status::failed;
    const std::string error = failed ? input.error().text : std::string();
    Judgement judgement = failed
                              ? broken_off(facts, input.error(), line, colours, summary, findings)
                              : whole(facts, line, colours, summary, findings);
    if (const std::optional<inputs::Flow> flow = input.flow())
        tell_of_cut(*flow, name, judgement);
    if (cuts)
        tell_of(*cuts, name, judgement);
    if (line.write_expect && !failed)
        write_expect(*line.write_expect, name, summary, stream.observed(), judgement);
    if (page)
        write_page(*page, facts, line, summary, findings, stream.series(), error, judgement);
    findings.flush();
    return judgement;
}

} // namespace quarn::check
