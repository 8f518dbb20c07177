// live_host - feeds the analyzer as a host of live streams does.
//
// Transport packets come on standard input in datagrams of seven. Alerts and STAT lines go to
// standard output, human lines to standard error. A datagram that loses the sync byte is reported,
// and the host looks for the next place at which packets start again.
//
//     socat -u UDP4-RECV:1234 - | live_host NAME [SECONDS]
//
// NAME is quoted in every alert; SECONDS is the period of the STAT lines (default 10).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <quarn/log.h>
#include <quarn/tsanalyze.h>

static constexpr std::size_t PACKET = 188;
static constexpr std::size_t DATAGRAM = 7 * PACKET;
static constexpr int SYNC = 0x47;

// Fills the buffer up to a datagram. Returns the bytes in it, fewer at the end of the input.
static std::size_t fill(unsigned char* buf, std::size_t have) {
    return have + std::fread(buf + have, 1, DATAGRAM - have, stdin);
}

// First place behind `from` where packets may start: a sync byte that another one follows a packet
// later, as far as the buffer tells. `len` if there is none.
static std::size_t find_sync(const unsigned char* buf, std::size_t from, std::size_t len) {
    for (std::size_t i = from + 1; i < len; i++)
        if (buf[i] == SYNC && (i + PACKET >= len || buf[i + PACKET] == SYNC))
            return i;
    return len;
}

// Hands the datagram's packets to the analyzer. Returns how many bytes were used up, 0 to give up.
static std::size_t process(tsan_t t, const unsigned char* buf, std::size_t len) {
    std::size_t pos = 0;
    for (; pos + PACKET <= len; pos += PACKET) {
        if (tsan_process(t, buf + pos) == -1)
            return tsan_alert_lostsync(t) == 0 ? find_sync(buf, pos, len) : 0;
    }
    return pos;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s NAME [SECONDS]\n", argv[0]);
        return 2;
    }
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    tsan_config cfg = TSAN_DEFAULTS;
    cfg.max_pdts_delta = 500;
    cfg.max_pcr_delta = 1000;
    cfg.pcr_freq_ms = 100;
    cfg.max_ndat_pcount = 10000;
    cfg.cc_max_ms0_ms = 1000;
    cfg.access_log_alerts = true;
    cfg.no_rlog = true;
    cfg.dump_stats_period = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10;
    tsan_t t = tsan_init(argv[1], &cfg, nullptr);
    if (!t)
        return 1;

    unsigned char buf[DATAGRAM];
    std::size_t have = 0;
    std::size_t used = 1;
    while (used != 0 && (have = fill(buf, have)) >= PACKET) {
        used = process(t, buf, have);
        have -= used;
        std::memmove(buf, buf + used, have);
        tsan_next_seg(t);
        tsan_check_dump_stats(stderr, t); // without a stream the period would not begin anew
    }
    tsan_check_ndat(t);
    tsan_alog_stats(t);
    tsan_free(t);
    return used == 0 ? 1 : 0;
}
