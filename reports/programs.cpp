#include "programs.h"

#include <string_view>

namespace quarn {
namespace {

void stream(Json& json, const StreamSummary& s) {
    json.open('{');
    json.member("pid", s.pid).member("kind", word(s.kind)).member("codec", word(s.codec));
    json.word_or_null("language", s.language);
    json.member("packets", s.packets).member("bitrate_bps", s.bitrate);
    json.member("lost", s.lost).member("scrambled", s.scrambled);
    json.close('}');
}

void program(Json& json, const ProgramSummary& p) {
    json.open('{');
    json.member("number", p.number).member("name", p.name).member("provider", p.provider);
    json.member("pmt_pid", p.pmt_pid).member("pcr_pid", p.pcr_pid);
    json.key("streams").open('[');
    for (const StreamSummary& s : p.streams)
        stream(json, s);
    json.close(']').close('}');
}

} // namespace

void write_programs(Json& json, const std::vector<ProgramSummary>& programs) {
    json.open('[');
    for (const ProgramSummary& p : programs)
        program(json, p);
    json.close(']');
}

} // namespace quarn
