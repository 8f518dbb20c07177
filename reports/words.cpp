#include "words.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace quarn {

namespace {

/// The word that stands at the place of an enumerator.
template <std::size_t N, class E>
std::string_view at(const std::array<std::string_view, N>& words, E enumerator) {
    return words[static_cast<std::size_t>(enumerator)];
}

template <class... T>
constexpr auto words(T... text) {
    return std::array<std::string_view, sizeof...(T)>{text...};
}

struct TableName {
    int first, last;
    std::string_view name;
};
constexpr std::array table_names = std::to_array<TableName>({
    {0x00, 0x00, "the PAT"},
    {0x01, 0x01, "the CAT"},
    {0x02, 0x02, "the PMT"},
    {0x40, 0x40, "the NIT of this network"},
    {0x41, 0x41, "the NIT of another network"},
    {0x42, 0x42, "the SDT of this stream"},
    {0x46, 0x46, "the SDT of another stream"},
    {0x4A, 0x4A, "the BAT"},
    {0x4E, 0x4E, "the EIT present/following of this stream"},
    {0x4F, 0x4F, "the EIT present/following of another stream"},
    {0x50, 0x5F, "the EIT schedule of this stream"},
    {0x60, 0x6F, "the EIT schedule of another stream"},
    {0x70, 0x70, "the TDT"},
    {0x71, 0x71, "the RST"},
    {0x72, 0x72, "the ST"},
    {0x73, 0x73, "the TOT"},
});

} // namespace

std::string_view word(Profile profile) {
    return at(words("dvb", "strict", "segment", "tr101290"), profile);
}
std::string_view word(Shape shape) {
    return at(words("point", "interval"), shape);
}
std::string_view word(State state) {
    return at(words("event", "raise", "clear"), state);
}
std::string_view word(Sure sure) {
    return at(words("exact", "modulo_16", "guess"), sure);
}
std::string_view word(Verdict verdict) {
    return at(words("healthy", "failed", "insufficient"), verdict);
}
std::string_view word(Judged judged) {
    return at(words("yes", "no", "not_applicable"), judged);
}
std::string_view word(ClockSummary::Source source) {
    return at(words("none", "pcr", "arrival", "bitrate"), source);
}
std::string_view word(TableChange::Op op) {
    return at(words("added", "removed", "moved", "changed"), op);
}
std::string_view word(TableChange::What what) {
    return at(words("program", "stream", "pcr_pid", "pmt_pid", "service", "network", "descriptor",
                    "name", "language", "codec", "scrambling", "table", "bitrate", "rate"),
              what);
}

std::string table_name(int table_id) {
    std::array<char, 24> number;
    std::snprintf(number.data(), number.size(), "0x%02X", static_cast<unsigned>(table_id));
    for (const TableName& row : table_names)
        if (table_id >= row.first && table_id <= row.last)
            return std::string(row.name) + " (" + number.data() + ")";
    return std::string("table ") + number.data();
}

std::string id_list(const std::vector<Rule>& rules) {
    std::string text;
    for (const Rule rule : rules)
        text += (text.empty() ? "" : ", ") + std::string(info(rule).id);
    return text;
}

std::string why_text(const Summary& summary) {
    return summary.program_missing ? "no such program" : id_list(summary.why);
}

bool made_failed(const Summary& summary, Rule rule) {
    return summary.verdict == Verdict::failed &&
           std::find(summary.why.begin(), summary.why.end(), rule) != summary.why.end();
}

std::string utc_text(std::int64_t utc_us) {
    constexpr std::int64_t second = 1'000'000;
    const std::int64_t part = ((utc_us % second) + second) % second;
    const auto seconds = static_cast<std::time_t>((utc_us - part) / second);
    std::tm calendar = {};
    std::array<char, 48> text = {};
    if (!gmtime_r(&seconds, &calendar))
        return {};
    const std::size_t length =
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &calendar);
    std::snprintf(text.data() + length, text.size() - length, ".%06dZ", static_cast<int>(part));
    return text.data();
}

} // namespace quarn
