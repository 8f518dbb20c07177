#include "live/metrics.h"

#include <initializer_list>
#include <limits>
#include <prometheus/text_serializer.h>
#include <sstream>
#include <string_view>
#include <utility>

#include "measure/rules.h"
#include "reports/text.h"

namespace quarn::live {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

/// A metric that is one number of an input, or of the process.
template <class Source>
struct Figure {
    const char* name;
    const char* help;
    MetricType type;
    double (*value)(const Source&);
};

template <auto member, class Source>
double number(const Source& source) {
    return static_cast<double>(source.*member);
}

constexpr Figure<Snapshot> figures[] = {
    {"quarn_input_up", "1 while a packet came within the last 2 s.", MetricType::Gauge,
     number<&Snapshot::up>},
    {"quarn_input_ended", "1 when a file or standard input has come to its end.", MetricType::Gauge,
     [](const Snapshot& s) { return s.state == InputState::ended ? 1.0 : 0.0; }},
    {"quarn_input_packets_total", "Packets that were measured.", MetricType::Counter,
     number<&Snapshot::packets>},
    {"quarn_input_bytes_total", "Bytes of the packets that were measured.", MetricType::Counter,
     number<&Snapshot::bytes>},
    {"quarn_input_datagrams_total", "Datagrams that came.", MetricType::Counter,
     number<&Snapshot::datagrams>},
    {"quarn_input_last_packet_timestamp_seconds",
     "When the last packet came, in seconds since 1970-01-01 UTC; 0 before the first.",
     MetricType::Gauge, number<&Snapshot::last_packet_utc_s>},
    {"quarn_own_drops_total", "Datagrams that came to this machine and were dropped by it.",
     MetricType::Counter, number<&Snapshot::own_drops>},
    {"quarn_rtp_lost_total", "Datagrams that did not come, by RTP sequence number.",
     MetricType::Counter, number<&Snapshot::rtp_lost>},
    {"quarn_lost_packets_total",
     "Packets that were lost before this machine, by continuity counter.", MetricType::Counter,
     number<&Snapshot::lost_packets>},
};

/// Metrics of the analyzer beside an input, for inputs that have one.
constexpr Figure<Snapshot> analyzer_figures[] = {
    {"quarn_analyzer_running",
     "1 while the analyzer of ALERT lines runs, 0 while it waits to be started again.",
     MetricType::Gauge, [](const Snapshot& s) { return s.analyzer.running ? 1.0 : 0.0; }},
    {"quarn_analyzer_restarts_total", "Ends of the analyzer by one of its invariants.",
     MetricType::Counter,
     [](const Snapshot& s) { return static_cast<double>(s.analyzer.restarts); }},
    {"quarn_analyzer_dropped_total", "Datagrams that the analyzer was too slow for.",
     MetricType::Counter,
     [](const Snapshot& s) { return static_cast<double>(s.analyzer.dropped); }},
};

constexpr Figure<ProcessFigures> process_figures[] = {
    {"quarn_exec_dropped_total", "Findings whose command was not run: too many were waiting.",
     MetricType::Counter, number<&ProcessFigures::commands_dropped>},
    {"quarn_records_dropped_total", "Records that the output of findings was too slow for.",
     MetricType::Counter, number<&ProcessFigures::records_dropped>},
    {"quarn_exec_failed_total", "Commands that ended with another status than 0, or were ended.",
     MetricType::Counter, number<&ProcessFigures::commands_failed>},
    {"quarn_cuts_failed_total",
     "Files with packets around findings that are missing or end too early.", MetricType::Counter,
     number<&ProcessFigures::cuts_failed>},
};

/// Under the names that all programs have for them.
constexpr Figure<ProcessUse> use_figures[] = {
    {"process_cpu_seconds_total", "Processor time, without that of analyzers.", MetricType::Counter,
     number<&ProcessUse::cpu_s>},
    {"process_resident_memory_bytes", "Memory, without that of analyzers.", MetricType::Gauge,
     number<&ProcessUse::resident_bytes>},
    {"process_open_fds", "Open descriptors.", MetricType::Gauge,
     number<&ProcessUse::open_descriptors>},
    {"process_max_fds", "Most descriptors that may be open.", MetricType::Gauge,
     number<&ProcessUse::most_descriptors>},
    {"process_start_time_seconds", "When it was started, in seconds since 1970-01-01 UTC.",
     MetricType::Gauge, number<&ProcessUse::started_utc_s>},
};

using Labels = std::vector<ClientMetric::Label>;
using Names = std::vector<std::string>; // of all inputs, as labels

/// A sample of a counter or gauge.
void add(MetricFamily& family, Labels labels, double value) {
    ClientMetric& metric = family.metric.emplace_back();
    metric.label = std::move(labels);
    metric.counter.value = metric.gauge.value = value;
}

/// Writes families one by one: of hundreds of inputs each is large.
class Writer {
  public:
    void write(MetricFamily family) { serializer_.Serialize(text_, {std::move(family)}); }
    std::string text() { return std::move(text_).str(); }

  private:
    std::ostringstream text_;
    prometheus::TextSerializer serializer_;
};

MetricFamily per_input(const Figure<Snapshot>& figure, const std::vector<Snapshot>& inputs,
                       const Names& names, bool (*has)(const Snapshot&)) {
    MetricFamily family{figure.name, figure.help, figure.type, {}};
    family.metric.reserve(inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i)
        if (has(inputs[i]))
            add(family, {{"input", names[i]}}, figure.value(inputs[i]));
    return family;
}

/// Whether that rule is measured, and its findings can be so severe: these stand at 0 from the
/// start.
bool is_possible(const RuleInfo& rule, Severity severity) {
    switch (rule.rule) {
    case Rule::buffer_error:
    case Rule::empty_buffer_error:
    case Rule::data_delay_error:
        return false;
    case Rule::pid_error: // of sparse streams, of pids that no PMT names and the like
    case Rule::pcr_repetition_error:
    case Rule::late_stamp:
    case Rule::stamp_order:
    case Rule::datagram_error:
        return severity != Severity::warning;
    case Rule::stamp_jump:
        return severity != Severity::info;
    default:
        return severity == rule.severity;
    }
}

MetricFamily finding_family(const char* name, const char* help, MetricType type,
                            const std::vector<Snapshot>& inputs, const Names& names,
                            FindingCounts Snapshot::*counts) {
    MetricFamily family{name, help, type, {}};
    for (std::size_t i = 0; i < inputs.size(); ++i)
        for (const RuleInfo& rule : rule_table)
            for (const Severity severity : {Severity::info, Severity::warning, Severity::error}) {
                const std::uint64_t count = (inputs[i].*counts).at(rule.rule, severity);
                if (count == 0 && !is_possible(rule, severity))
                    continue;
                add(family,
                    {{"input", names[i]},
                     {"rule", std::string(rule.id)},
                     {"severity", std::string(word(severity))}},
                    static_cast<double>(count));
            }
    return family;
}

MetricFamily pcr_intervals(const std::vector<Snapshot>& inputs, const Names& names) {
    MetricFamily family{"quarn_pcr_interval_seconds",
                        "Distances between PCRs of a pid.",
                        MetricType::Histogram,
                        {}};
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const PcrIntervals& intervals = inputs[i].pcr_intervals;
        ClientMetric& metric = family.metric.emplace_back();
        metric.label = {{"input", names[i]}};
        ClientMetric::Histogram& histogram = metric.histogram;
        for (std::size_t b = 0; b < intervals.counts.size(); ++b) {
            histogram.sample_count += intervals.counts[b];
            const double bound = b < PcrIntervals::bounds.size()
                                     ? PcrIntervals::bounds[b]
                                     : std::numeric_limits<double>::infinity();
            histogram.bucket.push_back({histogram.sample_count, bound});
        }
        histogram.sample_sum = intervals.sum_s;
    }
    return family;
}

MetricFamily av_offsets(const std::vector<Snapshot>& inputs, const Names& names) {
    MetricFamily family{"quarn_av_offset_seconds",
                        "How much later sound is sent than the picture it belongs to, by stamps; "
                        "negative when earlier.",
                        MetricType::Gauge,
                        {}};
    for (std::size_t i = 0; i < inputs.size(); ++i)
        for (const auto& [program, seconds] : inputs[i].av_offset_s)
            add(family, {{"input", names[i]}, {"program", std::to_string(program)}}, seconds);
    return family;
}

template <class Source, std::size_t size>
void write_all(Writer& writer, const Figure<Source> (&all)[size], const Source& source) {
    for (const Figure<Source>& figure : all) {
        MetricFamily family{figure.name, figure.help, figure.type, {}};
        add(family, {}, figure.value(source));
        writer.write(std::move(family));
    }
}

void build_info(Writer& writer) {
    MetricFamily build{"quarn_build_info", "1, with the version.", MetricType::Gauge, {}};
    add(build, {{"version", QUARN_VERSION}}, 1);
    writer.write(std::move(build));
}

} // namespace

std::string metrics_of(const std::vector<Snapshot>& inputs, const ProcessFigures& process,
                       const ProcessUse& use) {
    Names names;
    names.reserve(inputs.size());
    for (const Snapshot& input : inputs)
        names.push_back(valid_utf8(input.name));

    Writer writer;
    for (const Figure<Snapshot>& figure : figures)
        writer.write(per_input(figure, inputs, names, [](const Snapshot&) { return true; }));
    writer.write(finding_family("quarn_findings_total", "Faults that were found.",
                                MetricType::Counter, inputs, names, &Snapshot::findings));
    writer.write(finding_family("quarn_findings_open", "Faults that have begun and not ended.",
                                MetricType::Gauge, inputs, names, &Snapshot::open));
    writer.write(pcr_intervals(inputs, names));
    writer.write(av_offsets(inputs, names));
    for (const Figure<Snapshot>& figure : analyzer_figures)
        writer.write(
            per_input(figure, inputs, names, [](const Snapshot& s) { return s.analyzer.on; }));
    write_all(writer, process_figures, process);
    write_all(writer, use_figures, use);
    build_info(writer);
    return writer.text();
}

} // namespace quarn::live
