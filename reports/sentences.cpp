#include "sentences.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "text.h"
#include "words.h"

namespace quarn {

namespace {

/// What is said of a kind of fault. `text` holds figures as {name}; [a|b] is a, or b (empty where
/// there is no |) when a figure in a is not known.
struct Words {
    Rule rule;
    Kind kind; // none: of all kinds of the rule that have no row of their own
    std::string_view text;
    std::string_view meaning;
};

using enum Rule;

constexpr std::string_view si_meaning =
    "Receivers build their lists of services and programmes from these tables; what comes too "
    "seldom is shown late or not at all.";
constexpr std::string_view too_fast_meaning =
    "Two sections of one table follow each other faster than receivers must be able to take them.";
constexpr std::string_view foreign_meaning =
    "A table stands on a pid that is kept for another one: mostly a multiplexer that is set up "
    "wrongly.";
constexpr std::string_view unmeasured = "The buffer model is not measured.";

constexpr std::array all_words = std::to_array<Words>({
    {ts_sync_loss, Kind::missing,
     "Packets are out of step[; {bytes} missing, counted modulo the packet size][, {extra} of "
     "time by the clock].",
     "A piece is missing, not in whole packets: a file that was cut or written with gaps, a link "
     "that dropped bytes. What was in the damaged packets is lost."},
    {ts_sync_loss, Kind::inserted, "Between two packets stand [{bytes}|bytes] that belong to none.",
     "Something was written into the stream: a header of another protocol, text, files joined "
     "inside a packet."},
    {ts_sync_loss, Kind::garbled, "Sync bytes are wrong although packets keep their step.",
     "The bytes themselves are damaged, as by a bad receiver, tape or disk. What these packets "
     "carry cannot be trusted."},
    {sync_byte_error, Kind::none, "The sync byte of a packet is wrong.",
     "A single packet begins wrongly and those around it are in step: a bit error."},

    {pat_error_2, Kind::gap, "No PAT [for {interval}|for too long][ (limit {limit})].",
     "The PAT is where every receiver begins; who tunes in meanwhile waits so long."},
    {pat_error_2, Kind::absent, "There is no PAT[ in {interval}].",
     "Without a PAT no receiver finds any program: the stream cannot be shown."},
    {pat_error_2, Kind::table_id, "On pid 0 stands {table}; only the PAT (0x00) may.",
     foreign_meaning},
    {pat_error_2, Kind::scrambled, "Packets of the PAT (pid 0) are marked as scrambled.",
     "Tables of programs must be in the clear: receivers cannot read this one."},

    {continuity_count_error, Kind::loss,
     "[Pid {pid}: |][{lost} lost|packets lost][, counter {got} instead of {expected}].",
     "Packets are missing: picture or sound breaks up there. Several pids at one place point to "
     "the network, a single one to its encoder or the multiplexer."},
    {continuity_count_error, Kind::duplicate,
     "[Pid {pid}: |][{packets}|packets] repeated more often than allowed[, counter {got}].",
     "The same packets come again: a network or sender that repeats datagrams, two paths that "
     "are joined wrongly, a recording with an overlap. Decoders may stumble."},
    {continuity_count_error, Kind::frozen,
     "Pid {pid}: the continuity counter stands still[ at {got}] while packets go on.",
     "The sender does not count. Receivers may drop every packet as a copy, and losses on this "
     "pid cannot be seen."},
    {continuity_count_error, Kind::order,
     "[Pid {pid}: |][{packets}|packets] not in the order in which they were sent.",
     "A network has overtaken itself (several paths, load balancing) and the receiver has not put "
     "datagrams back in order; decoders see damage."},
    {continuity_count_error, Kind::reset,
     "Pid {pid}: the counter begins anew[ at {got}][ ({expected} was due)]; no packet is missing.",
     "The sender was restarted, switched or spliced without the flag that announces it. Decoders "
     "may drop packets there."},

    {pmt_error_2, Kind::gap,
     "Pid {pid}: no PMT[ of {programs}] [for {interval}|for too long][ (limit {limit})].",
     "Who tunes in to the program waits so long before picture and sound are found."},
    {pmt_error_2, Kind::absent,
     "The PAT names pid {pid} for the PMT[ of {programs}]; no packet of it ever comes.",
     "The program is announced and cannot be shown: it is gone, or was left out of the capture."},
    {pmt_error_2, Kind::table_id, "Pid {pid}: where the PMT belongs stands {table}.",
     foreign_meaning},
    {pmt_error_2, Kind::scrambled, "Pid {pid}: packets of the PMT are marked as scrambled.",
     "Tables of programs must be in the clear: receivers cannot read this one."},

    {pid_error, Kind::never,
     "Pid {pid} is announced[ for {programs}] and carries no packet[ for {interval}].",
     "A picture, sound or clock that the PMT promises never comes: a dead encoder, or a PMT that "
     "was not brought up to date."},
    {pid_error, Kind::stopped,
     "Pid {pid}[ of {programs}] carries nothing [for {interval}|for too long].",
     "The stream has stopped: picture freezes or sound is silent. Look at the encoder or the "
     "input of the multiplexer at that time."},
    {pid_error, Kind::no_pcr, "Pid {pid} is the PCR pid[ of {programs}] and carries no PCR.",
     "Receivers have no clock for the program; picture and sound stutter or stay away."},

    {transport_error, Kind::none, "[Pid {pid}: |]{count} with transport_error_indicator set.",
     "A demodulator or decoder of the link has marked packets as damaged: bad reception ahead of "
     "the place of capture."},
    {crc_error, Kind::none, "[Pid {pid}: |]wrong CRC in a section of [{table}|a table].",
     "The table is damaged and was not used: damage on the way if other faults stand beside it, a "
     "fault of its generator if it comes regularly."},
    {pcr_repetition_error, Kind::none,
     "Pid {pid}: no PCR [for {interval}|for too long][ (limit {limit})].",
     "Receivers keep their clock by the PCR; when it comes too seldom cheap ones drift, and what "
     "measures PCRs complains."},
    {pcr_discontinuity_indicator_error, Kind::back,
     "Pid {pid}: the PCR jumps back[ by {size}] without a flag.",
     "The clock of the program was set without saying so: a restart, a loop or a splice. "
     "Receivers stall or flush their buffers."},
    {pcr_discontinuity_indicator_error, Kind::none,
     "Pid {pid}: the PCR jumps ahead[ by {size}] without a flag.",
     "The clock of the program was set without saying so: a restart or a splice. Receivers stall "
     "or flush their buffers."},
    {pcr_accuracy_error, Kind::none, "Pid {pid}: a PCR is [{error}|far] off the constant rate.",
     "PCRs were not corrected for the packets moved around them (a remultiplexer or a network "
     "with jitter). Receivers with a narrow loop lose colour or sound lock."},
    {pts_error, Kind::none, "Pid {pid}: no PTS [for {interval}|for too long][ (limit {limit})].",
     "Decoders have no stamp to go by: the stream pauses, or its encoder stamps too seldom."},
    {cat_error, Kind::table_id, "On pid 1 stands {table}; only the CAT (0x01) may.",
     foreign_meaning},
    {cat_error, Kind::none,
     "Packets[ of {programs}] are scrambled[ on pid {pid}] and there is no CAT.",
     "Receivers do not learn who holds the rights and cannot descramble."},

    {eit_pf_error, Kind::none,
     "[Pid {pid}: |]only one of the sections present and following of [{table}|the EIT] comes[ for "
     "{interval}].",
     "Receivers show what is on now or what comes next, not both."},
    {unreferenced_pid, Kind::none, "Pid {pid} carries packets and no table names it.",
     "Something is sent that no receiver will find: bandwidth for nothing, or a PMT that lacks a "
     "stream."},
    {buffer_error, Kind::none, unmeasured, unmeasured},
    {empty_buffer_error, Kind::none, unmeasured, unmeasured},
    {data_delay_error, Kind::none, unmeasured, unmeasured},

    {late_stamp, Kind::none,
     "Pid {pid}: the time of decoding has passed[ by {late}] when the data comes.",
     "A receiver must drop or repeat frames there: the multiplexer is behind, or stamps and PCR "
     "come from different clocks."},
    {stamp_jump, Kind::drift,
     "Pid {pid}: stamps run away from the frames that are sent[, {signed} so far][, {drift}].",
     "Sound goes slowly out of step with the picture: two clocks that are not locked."},
    {stamp_jump, Kind::frames_missing,
     "Pid {pid}: DTS steps[ by {signed}] where a frame stands each time; frames seem to be missing.",
     "The encoder has left out frames, or they were cut away cleanly: the picture jerks there."},
    {stamp_jump, Kind::none,
     "Pid {pid}: the PTS steps[ by {signed}] beyond what the frames account for.",
     "Sound leaps against the picture: a splice, or an encoder that lost its input and set its "
     "clock anew."},
    {stamp_order, Kind::none, "Pid {pid}: stamps do not go up in order[; the step is {signed}].",
     "Stamps go back or leap far ahead: a loop, a splice or a broken encoder. Players stop or seek."},
    {table_changed, Kind::none, "[Pid {pid}: |]{changes}.",
     "What is on offer has changed; nothing is wrong if that was intended."},
    {unexpected, Kind::none, "{unexpected}.",
     "The file of what is expected says otherwise. If it may be so, loosen its entry there."},
    {version_unchanged, Kind::none,
     "[Pid {pid}: |]the content of [{table}|a table] has changed under the same version.",
     "Receivers that go by the version miss the change; the generator of the table is at fault."},
    {scrambling_changed, Kind::none, "Pid {pid} changes between scrambled and clear.",
     "Access to the stream changes; nothing is wrong if that was intended."},
    {clock_jump, Kind::moved, "Time is taken from [pid {pid}|another pid] from here on.",
     "The tables name another clock, as where two captures are joined. Times before and after "
     "belong to different clocks."},
    {clock_jump, Kind::none, "[Pid {pid}: |]the clock jumps[ by {signed}], and a flag says so.",
     "A lawful splice or restart: receivers are told."},
    {datagram_error, Kind::loss, "[{datagrams}|Datagrams] lost[ ({packets})].",
     "The network has lost whole datagrams; the losses of packets are counted under 1.4."},
    {datagram_error, Kind::order, "[{datagrams}|Datagrams] out of order[ ({packets})].",
     "The network delivers out of order; it was put right here."},
    {datagram_error, Kind::none, "[{datagrams}|Datagrams] came twice[ ({packets})].",
     "The network or the sender repeats datagrams; copies were dropped here."},
    {off_air, Kind::none, "Nothing but null packets[ for {away}].",
     "The multiplexer runs and has no content: the programs are off air."},
    {truncated, Kind::none, "The input ends inside a packet[, of which {bytes} are there].",
     "The recording was cut or the copy is not complete."},
    {analyzer_ended, Kind::none, "The analyzer beside this input has ended and was started again.",
     "A table of this input breaks an invariant of the analyzer; measuring goes on."},
    {suppressed, Kind::none, "Findings come too fast; not all are written.",
     "Counters are exact all the same."},

    // All that is left are tables of SI.
    {nit_actual_error, Kind::gap,
     "[Pid {pid}: |]no section of [{table}|the table] [for {interval}|for too long][ (limit {limit})].",
     si_meaning},
    {nit_actual_error, Kind::too_fast,
     "[Pid {pid}: |]a section of [{table}|the table] follows[ after {interval}][; {limit} must lie "
     "between].",
     too_fast_meaning},
    {nit_actual_error, Kind::table_id, "Pid {pid}: {table} does not belong here.", foreign_meaning},
    {nit_actual_error, Kind::none, "Pid {pid}: [{table}|a table] is not as it should be.",
     si_meaning},
});

const Words& words_of(Rule rule, Kind kind) {
    const auto find = [](auto fits) {
        return std::find_if(all_words.begin(), all_words.end(), fits);
    };
    const bool has_own = find([&](const Words& w) { return w.rule == rule; }) != all_words.end();
    const Rule own = has_own ? rule : nit_actual_error; // one table of SI is like the other
    for (const Kind k : {kind, Kind::none})
        if (const auto row = find([&](const Words& w) { return w.rule == own && w.kind == k; });
            row != all_words.end())
            return *row;
    return *find([&](const Words& w) { return w.rule == own; });
}

std::string signed_duration(double ms) {
    return (ms < 0 ? "" : "+") + duration_text(ms);
}

/// "stream 260 (audio deu) added", "pid of program 2 moved from 256 to 512".
std::string change_text(const TableChange& change) {
    std::string text(word(change.what));
    std::replace(text.begin(), text.end(), '_', ' ');
    if (change.what == TableChange::What::stream && change.pid)
        text += " on pid " + std::to_string(*change.pid);
    else if (change.number)
        text +=
            (change.what == TableChange::What::pcr_pid || change.what == TableChange::What::pmt_pid
                 ? " of program "
                 : " ") +
            std::to_string(*change.number);
    text += " " + std::string(word(change.op));
    if (change.before && change.after)
        return text + " from " + *change.before + " to " + *change.after;
    if (change.before || change.after)
        text += " (" + (change.after ? *change.after : *change.before) + ")";
    return text;
}

std::string change_texts(const std::vector<TableChange>& changes) {
    std::string text;
    for (const TableChange& change : changes)
        text += (text.empty() ? "" : "; ") + change_text(change);
    return text;
}

// ---- what is not as expected (q.11)

/// "service 8804 "News"", "program 1 "News"".
std::string service_text(std::string_view noun, const TableChange& c) {
    std::string text(noun);
    if (c.number)
        text += " " + std::to_string(*c.number);
    return c.name && !c.name->empty() ? text + " \"" + *c.name + "\"" : text;
}

std::string pid_text(const TableChange& c) {
    return c.pid ? "pid " + std::to_string(*c.pid) : std::string("a stream");
}

/// "was audio deu, now fra": what both begin with is said once.
std::string was_now(const std::string& was, const std::string& now) {
    std::size_t same = 0;
    for (std::size_t i = 0; i < std::min(was.size(), now.size()) && was[i] == now[i]; ++i)
        if (was[i] == ' ')
            same = i + 1;
    return " was " + was + ", now " + now.substr(same);
}

/// "2.00 Mbit/s", of "2000000 bit/s" behind that many words.
std::string rate_of(std::string_view text, std::size_t behind) {
    std::uint64_t bits = 0;
    text.remove_prefix(std::min(behind, text.size()));
    const auto [rest, wrong] = std::from_chars(text.data(), text.data() + text.size(), bits);
    return wrong == std::errc{} && rest != text.data() ? rate_text(bits) : std::string(text);
}

std::string bitrate_text(const TableChange& c, const Finding& f) {
    constexpr std::string_view least = "at least ", most = "at most ";
    const std::string before = c.before.value_or("?");
    const bool below = before.starts_with(least);
    std::string text = "bit rate of ";
    if (c.pid)
        text += pid_text(c) + " (" + service_text("program", c) + ")";
    else
        text += c.number ? service_text("program", c) : std::string("the whole stream");
    text += (below ? " below " : " above ") + rate_of(before, below ? least.size() : most.size());
    if (f.detail.interval_ms)
        text += " for " + duration_text(*f.detail.interval_ms);
    return c.after ? text + (below ? ", down to " : ", up to ") + rate_of(*c.after, 0) : text;
}

/// 2000, of "after 2000 ms".
std::optional<double> milliseconds_of(std::string_view text) {
    const std::size_t digit = std::min(text.find_first_of("0123456789"), text.size());
    text.remove_prefix(digit);
    double ms = 0;
    const auto [rest, wrong] = std::from_chars(text.data(), text.data() + text.size(), ms);
    return wrong == std::errc{} ? std::optional(ms) : std::nullopt;
}

std::string table_text(const TableChange& c, const Finding& f) {
    const std::string table = c.number ? table_name(*c.number) : std::string("a table");
    const std::string of = c.name && !c.name->empty() ? " of \"" + *c.name + "\"" : "";
    const std::string on = c.pid ? " on pid " + std::to_string(*c.pid) : std::string();
    if (c.op == TableChange::Op::removed)
        return table + on + " is missing";
    const auto gap = c.after ? milliseconds_of(*c.after) : f.detail.interval_ms;
    std::string text = table + of + on + " does not come";
    if (gap)
        text += " for " + duration_text(*gap);
    return f.detail.limit_ms ? text + "; expected within " + duration_text(*f.detail.limit_ms)
                             : text;
}

std::string unexpected_service(const TableChange& c) {
    const std::string service = service_text("service", c);
    switch (c.op) {
    case TableChange::Op::removed:
        return service + " is missing";
    case TableChange::Op::added:
        return service + " is there, which is not expected";
    default:
        return service + " has changed";
    }
}

std::string unexpected_stream(const TableChange& c) {
    const std::string of = " of " + service_text("service", c);
    const std::string before = c.before.value_or("stream");
    switch (c.op) {
    case TableChange::Op::removed:
        return pid_text(c) + " (" + before + ")" + of + " is missing";
    case TableChange::Op::added:
        return pid_text(c) + " (" + c.after.value_or("stream") + ")" + of +
               " is there, which is not expected";
    case TableChange::Op::moved:
        return before + "," + of + " is now on " + pid_text(c);
    case TableChange::Op::changed:
        break;
    }
    return pid_text(c) + was_now(before, c.after.value_or("?")) + " (" +
           service_text("service", c) + ")";
}

std::string unexpected_text(const Finding& f) {
    using What = TableChange::What;
    if (f.detail.changes.empty())
        return "something is not as expected";
    const TableChange& c = f.detail.changes.front();
    const std::string before = c.before.value_or("?");
    const std::string after = c.after.value_or("?");
    switch (c.what) {
    case What::service:
        return unexpected_service(c);
    case What::name:
        return "service " + std::to_string(c.number.value_or(0)) + " is called " +
               (c.after ? "\"" + after + "\"" : "nothing") + ", not \"" + before + "\"";
    case What::pmt_pid:
        return "the PMT of " + service_text("service", c) + was_now("on " + before, "on " + after);
    case What::pcr_pid:
        return "the PCR of " + service_text("service", c) + was_now("on " + before, "on " + after);
    case What::stream:
    case What::language:
    case What::codec:
    case What::scrambling:
        return unexpected_stream(c);
    case What::table:
        return table_text(c, f);
    case What::bitrate:
        return bitrate_text(c, f);
    case What::rate:
        return "the rate of the stream was " + before + ", now " + after;
    case What::program:
    case What::network:
    case What::descriptor:
        break;
    }
    return change_text(c);
}

std::string lost_text(const Finding& f) {
    std::string packets = count_text(static_cast<std::uint64_t>(*f.detail.lost), "packet");
    switch (f.sure) {
    case Sure::exact:
        return packets;
    case Sure::modulo_16:
        return packets + " (or 16, 32, ... more)";
    case Sure::guess:
        return "probably " + packets;
    }
    return packets;
}

std::string nouns(const std::optional<std::int64_t>& count, std::string_view noun) {
    return count ? count_text(static_cast<std::uint64_t>(*count), noun) : std::string();
}

std::string time_text(const std::optional<double>& ms) {
    return ms ? duration_text(*ms) : std::string();
}

struct Figure {
    std::string_view name;
    std::string (*text)(const Finding&); // empty: not known
};
constexpr std::array figures = std::to_array<Figure>({
    {"pid", [](const Finding& f) { return f.pid ? std::to_string(*f.pid) : std::string(); }},
    {"interval",
     [](const Finding& f) {
         return f.detail.interval_ms ? duration_text(*f.detail.interval_ms, f.detail.limit_ms) : "";
     }},
    {"limit", [](const Finding& f) { return time_text(f.detail.limit_ms); }},
    {"expected",
     [](const Finding& f) {
         return f.detail.expected ? std::to_string(*f.detail.expected) : std::string();
     }},
    {"got",
     [](const Finding& f) { return f.detail.got ? std::to_string(*f.detail.got) : std::string(); }},
    {"lost", [](const Finding& f) { return f.detail.lost ? lost_text(f) : std::string(); }},
    {"bytes", // none: a recording of datagrams that ends inside one
     [](const Finding& f) {
         return f.detail.bytes == 0 ? std::string() : nouns(f.detail.bytes, "byte");
     }},
    {"extra",
     [](const Finding& f) {
         return f.detail.extra_ms ? duration_text(static_cast<double>(*f.detail.extra_ms))
                                  : std::string();
     }},
    {"table",
     [](const Finding& f) {
         return f.detail.table_id ? table_name(*f.detail.table_id) : std::string();
     }},
    {"size",
     [](const Finding& f) {
         return f.detail.step_ms ? duration_text(std::abs(*f.detail.step_ms)) : std::string();
     }},
    {"signed",
     [](const Finding& f) {
         return f.detail.step_ms ? signed_duration(*f.detail.step_ms) : std::string();
     }},
    {"drift",
     [](const Finding& f) {
         return f.detail.drift_ms_per_s ? signed_duration(*f.detail.drift_ms_per_s) + " a second"
                                        : std::string();
     }},
    {"error",
     [](const Finding& f) {
         return f.detail.error_ns ? duration_text(std::abs(*f.detail.error_ns) / 1e6)
                                  : std::string();
     }},
    {"late", [](const Finding& f) { return time_text(f.detail.late_ms); }},
    {"changes", [](const Finding& f) { return change_texts(f.detail.changes); }},
    {"unexpected", [](const Finding& f) { return unexpected_text(f); }},
    {"datagrams", [](const Finding& f) { return nouns(f.detail.datagrams, "datagram"); }},
    {"packets", [](const Finding& f) { return nouns(f.detail.packets, "packet"); }},
    {"away", [](const Finding& f) { return time_text(f.detail.away_ms); }},
    {"count", [](const Finding& f) { return count_text(f.count, "packet"); }},
});

/// " 20 times in quick succession, at worst 3 packets."
std::string repetition(const Finding& finding) {
    std::string text = " " + std::to_string(finding.count) + " times in quick succession";
    if (finding.detail.worst)
        if (const std::string worst =
                figure_text(finding.rule, *finding.detail.worst, finding.detail.limit_ms);
            !worst.empty())
            text += ", at worst " + worst;
    return text + ".";
}

/// A finding that is put into words.
struct Telling {
    const Finding& finding;
    const ProgramNames& names;
    bool programs_apart; // the words have a place of their own for programs
};

/// Empty: not known. Whose pid it is stands behind it.
std::string figure_of(std::string_view name, const Telling& telling) {
    std::string programs = programs_text(telling.finding, telling.names);
    if (name == "programs")
        return programs;
    const auto row = std::find_if(figures.begin(), figures.end(),
                                  [&](const Figure& f) { return f.name == name; });
    std::string text = row == figures.end() ? std::string() : row->text(telling.finding);
    if (name == "pid" && !text.empty() && !programs.empty() && !telling.programs_apart)
        text += " (" + programs + ")";
    return text;
}

/// Appends `text` with its figures; false where one was not known.
bool fill(std::string& out, std::string_view text, const Telling& telling) {
    bool known = true;
    while (!text.empty()) {
        const std::size_t open = std::min(text.find('{'), text.size());
        out += text.substr(0, open);
        text.remove_prefix(open);
        if (text.empty())
            break;
        const std::size_t close = text.find('}');
        const std::string figure = figure_of(text.substr(1, close - 1), telling);
        known = known && !figure.empty();
        out += figure.empty() ? "?" : figure;
        text.remove_prefix(close + 1);
    }
    return known;
}

/// Appends the first of the alternatives a|b whose figures are known, else nothing.
void fill_choice(std::string& out, std::string_view alternatives, const Telling& telling) {
    const std::size_t before = out.size();
    while (!alternatives.empty()) {
        const std::string_view one = alternatives.substr(0, alternatives.find('|'));
        if (fill(out, one, telling))
            return;
        out.resize(before);
        alternatives.remove_prefix(std::min(alternatives.size(), one.size() + 1));
    }
}

} // namespace

ProgramNames program_names(const Summary& summary) {
    ProgramNames names;
    for (const ProgramSummary& program : summary.programs)
        if (program.name)
            names[program.number] = *program.name;
    return names;
}

std::string programs_text(const Finding& finding, const ProgramNames& names) {
    constexpr std::size_t most_listed = 4;
    constexpr std::size_t longest_name = 24;
    if (finding.programs.empty())
        return {};
    if (finding.programs.size() > most_listed)
        return count_text(finding.programs.size(), "program");
    std::string list;
    for (const std::uint16_t number : finding.programs) {
        list += (list.empty() ? "" : ", ") + std::to_string(number);
        const auto name = names.find(number);
        if (name != names.end() && !name->second.empty() && columns(name->second) <= longest_name)
            list += " \"" + name->second + "\"";
    }
    return (finding.programs.size() == 1 ? "program " : "programs ") + list;
}

/// What is off air sends null packets, or nothing at all.
static bool silent(const Finding& finding) {
    return finding.rule == off_air && finding.end.packet <= finding.begin.packet + 1;
}

std::string sentence(const Finding& finding, const ProgramNames& names) {
    std::string out;
    std::string_view text =
        silent(finding) ? "No packet[ for {away}]." : words_of(finding.rule, finding.kind).text;
    const Telling telling{finding, names, text.find("{programs}") != std::string_view::npos};
    while (!text.empty()) {
        const std::size_t open = std::min(text.find('['), text.size());
        fill(out, text.substr(0, open), telling);
        if (open == text.size())
            break;
        const std::size_t close = text.find(']');
        fill_choice(out, text.substr(open + 1, close - open - 1), telling);
        text.remove_prefix(close + 1);
    }
    if (!out.empty() && out.front() >= 'a' && out.front() <= 'z')
        out.front() = static_cast<char>(out.front() - 'a' + 'A');
    // Of transport errors the count is the sentence.
    if (finding.rule != transport_error && finding.count > 1)
        out += repetition(finding);
    if (finding.state == State::raise)
        out += " Still so.";
    else if (finding.open)
        out += finding.state == State::clear
                   ? " It had not ended when nothing more was known of it."
                   : " It lasts to the end.";
    return out;
}

std::string_view meaning(Rule rule, Kind kind, Severity severity) {
    if (rule == pid_error && severity == Severity::info)
        return "Streams of this kind (subtitles, data, ...) may lawfully say nothing for long.";
    return words_of(rule, kind).meaning;
}

std::optional<double> figure(const Finding& finding) {
    const Detail& d = finding.detail;
    if (d.worst)
        return d.worst;
    const auto number = [](const std::optional<std::int64_t>& v) -> std::optional<double> {
        return v ? std::optional(static_cast<double>(*v)) : std::nullopt;
    };
    for (const std::optional<double>& own :
         {number(d.lost), number(d.datagrams), number(d.bytes), d.interval_ms, d.step_ms,
          d.error_ns, d.late_ms, d.away_ms, number(d.packets)})
        if (own)
            return own;
    return std::nullopt;
}

std::string figure_text(Rule rule, double figure, const std::optional<double>& limit_ms) {
    switch (rule) {
    case continuity_count_error:
        return count_text(static_cast<std::uint64_t>(figure), "packet");
    case datagram_error:
        return count_text(static_cast<std::uint64_t>(figure), "datagram");
    case ts_sync_loss:
    case truncated:
        return count_text(static_cast<std::uint64_t>(figure), "byte");
    case pcr_accuracy_error:
        return duration_text(figure / 1e6);
    case pcr_discontinuity_indicator_error:
    case stamp_jump:
    case stamp_order:
    case clock_jump:
        return signed_duration(figure);
    default:
        return duration_text(figure, limit_ms);
    }
}

} // namespace quarn
