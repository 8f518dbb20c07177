// ptag.cpp - the packet tag that lines quote: which packet, of what, how far behind the last PCR.
// A quiet packet's tag is never made: the first line that quotes it makes it, and so does what is
// about to change what it says, a PCR (new_pcr) or the host (tsan_set_pidx). Once made it stays
// until the next packet drops it. Called by whoever writes a line; the text lies in the context.
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

static void mk_ptag(tsan_ctx* tc) {
    char text[128];
    char* const end = put_tag(text, tc);
    // intended: cut at 62 characters, one less than there is room for.
    *std::copy(text, std::min(end, text + PKTIDX_LEN - 2), tc->ptag) = '\0';
}

const char* ptag(tsan_ctx* tc) {
    const bool is_made = tc->ptag[0] != '\0';
    if (!is_made && tc->ptotal != 0)
        mk_ptag(tc);
    return tc->ptag;
}
