// What a person reads about one input: verdict, programs, findings, what could not be judged.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "groups.h"
#include "measure/measure.h"

namespace quarn {

/// Sequences around words that stand out; all empty where there are no colours.
struct Colours {
    std::string_view good, bad, doubtful, heading, off;

    static Colours none() { return {}; }
    static Colours terminal();
};

/// What is known of an input besides what was measured on it.
struct InputFacts {
    std::string name;
    int packet_size = 188;
    std::string flow; // "239.1.1.1:5000, RTP"; empty for other inputs than captures of a network
};

/// "188-byte packets, 3247 packets, 7.8 s, ...; clock from the PCR of pid 256, variable rate"
std::string facts_text(const InputFacts& input, const Options& options, const Summary& summary);
/// Sentences on the verdict as a whole that users need to know before they read on.
std::vector<std::string> remarks(const Options& options, const Summary& summary);

/// The report on one input, lines of at most 80 columns where names allow it, ends in an empty
/// line.
void people_report(std::string& out, const InputFacts& input, const Options& options,
                   const Summary& summary, const Groups& groups, const Colours& colours);

/// One line: verdict, name, the rules that made the verdict, those with warnings besides.
void quiet_line(std::string& out, const InputFacts& input, const Summary& summary,
                const Groups& groups, const Colours& colours);
/// The same for an input that cannot be read.
void quiet_error(std::string& out, std::string_view name, std::string_view text,
                 const Colours& colours);

} // namespace quarn
