// The summary of a stream: verdict, programs, and for every rule whether it was judged.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "finding.h"

namespace quarn {

enum class Verdict : std::uint8_t { healthy, failed, insufficient };
enum class Judged : std::uint8_t { yes, no, not_applicable };

/// What an elementary stream carries.
enum class StreamKind : std::uint8_t { video, audio, subtitles, teletext, scte35, data, unknown };
enum class Codec : std::uint8_t {
    unknown,
    mpeg1video,
    mpeg2video,
    mpeg4video,
    h264,
    hevc,
    vvc,
    avs,
    avs2,
    avs3,
    dirac,
    vc1,
    jpeg2000,
    mp1,
    mp2,
    aac,
    aac_latm,
    ac3,
    eac3,
    ac4,
    dts,
    opus,
    lpcm,
    mpegh,
    dvb_subtitle,
    dvb_teletext,
    scte35,
    id3,
    dsmcc,
    private_data,
};
std::string_view word(StreamKind kind);
std::string_view word(Codec codec);

struct StreamSummary {
    std::uint16_t pid = 0;
    StreamKind kind = StreamKind::unknown;
    Codec codec = Codec::unknown;
    std::string language; // ISO 639-2, empty: not said
    std::uint64_t packets = 0;
    std::optional<std::uint64_t> bitrate; // bits a second, where there is a clock
    std::uint64_t lost = 0;               // packets, as far as known
    std::uint64_t scrambled = 0;          // packets
};

struct ProgramSummary {
    std::uint16_t number = 0;
    std::optional<std::string> name; // from the SDT, UTF-8
    std::optional<std::string> provider;
    std::uint16_t pmt_pid = 0;
    std::optional<std::uint16_t> pcr_pid; // not set: no PMT came, or none in it
    std::vector<StreamSummary> streams;
};

struct ClockSummary {
    enum class Source : std::uint8_t { none, pcr, arrival, bitrate };
    Source source = Source::none;
    std::optional<std::uint16_t> pid; // the last one, for pcr
    bool announced = false;           // a PMT names that pid as PCR_PID
    bool constant_rate = false;
};

struct RuleSummary {
    Rule rule = Rule::ts_sync_loss;
    Judged judged = Judged::not_applicable;
    std::string why; // reason for `no` and `not_applicable`, a fixed phrase; empty for `yes`
    std::vector<std::uint16_t> pids; // the pids that could not be judged
    std::uint64_t count = 0;         // events
    std::uint64_t consequences = 0;  // events that followed from others and are no findings
    std::optional<Place> first;
    std::optional<Place> last;
    std::optional<double> worst; // in the unit of the rule's own key of Detail
};

struct Summary {
    Verdict verdict = Verdict::insufficient;
    std::vector<Rule> why;        // the rules that made it so
    bool program_missing = false; // Options::program is not there: insufficient
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::optional<Ticks> duration;
    std::optional<std::uint64_t> bitrate; // bits a second
    ClockSummary clock;
    bool segment_hint = false; // exactly one PAT, at the start: profile segment may fit better
    std::vector<ProgramSummary> programs;
    std::vector<RuleSummary> rules; // all, in the order of Rule
};

} // namespace quarn
