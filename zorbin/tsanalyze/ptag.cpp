// ptag.cpp - the packet tag that lines quote: which packet, of what, how far behind the last PCR.
// Nothing of a quiet packet's tag is ever made: it is made when something quotes it, and at the
// latest before a PCR or the host changes what it says. Called by whoever writes a line; the text
// lies in the context.
#include <algorithm>
#include <charconv>
#include <string_view>

#include "context.h"

static char* put(char* to, std::string_view text) {
    return std::copy(text.begin(), text.end(), to);
}

static char* put(char* to, u64 number) {
    return std::to_chars(to, to + 20, number).ptr;
}

// Writes the whole text and returns its end; `to` has room for five numbers.
static char* put_tag(char* to, const tsan_ctx* tc) {
    const dgram_info& dat = tc->dat;
    if (dat.program)
        to = put(put(to, static_cast<u64>(dat.ipg)), ":");
    if (dat.stream)
        to = put(to, static_cast<u64>(dat.istm));
    else
        to = put(to, dat.is_pat ? "PAT" : dat.is_pmt ? "M" : "pkt");
    to = put(put(put(to, "["), tc->last_pkt_idx), "]");
    if (dat.program && dat.program->got_pcr) {
        to = put(put(to, ":(pcr="), dat.program->last_pcr);
        to = put(put(to, ")+"), tc->last_pkt_idx - dat.program->pcr_pktnum);
    }
    return to;
}

const char* ptag(tsan_ctx* tc) {
    if (tc->ptag[0] != '\0' || tc->ptotal == 0) // made before, or no packet yet
        return tc->ptag;
    char text[128];
    char* const end = put_tag(text, tc);
    // intended: cut at 62 characters, one less than there is room for.
    *std::copy(text, std::min(end, text + PKTIDX_LEN - 2), tc->ptag) = '\0';
    return tc->ptag;
}
