// tsa_options.cpp - the command line of quarn: the table of its options, applied in two passes, and
// the usage text. Called by main; owns nothing, the settings are g_cfg's.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <getopt.h>
#include <strings.h>
#include <syslog.h>

#include "appcfg.h"
#include "log.h"
#include "meta.h"
#include "tsa.h"

LOG_MODULE(0);

namespace {

// Kept byte for byte; the size catches a slip of the hand.
constexpr std::string_view USAGE_BLOCK =
    " PARAMETERS:\n"
    "       -S tag      = source tag\n"
    " OPTIONS:\n"
    "       -C config   = load settings from zbn config file\n"
    "       -v          = increase verbosity\n"
    "       -a on|off   = send (if on) alerts to STDOUT\n"
    "       -H          = do NOT write alerts to application log\n"
    "       -A o=s      = specify analyzer option/setting\n"
    "       -s num      = max # packets to skip\n"
    "       -Y facility = syslog(3) alerts using {facility}\n"
    "       -r num      = start at record # num (1-based) [1]\n"
    "       -m num      = process max=N records [0 = all]\n"
    "       -k {o1}:..  = specify tracking option(s) []\n"
    "       -?          = show help and exit\n"
    "       -V          = output application's version\n\n";
static_assert(USAGE_BLOCK.size() == 665);

// Copies as much of `src` as fits, terminating NUL included.
template <std::size_t N>
void copy_text(char (&dst)[N], const char* src) {
    const std::size_t len = strnlen(src, N - 1);
    std::memcpy(dst, src, len);
    dst[len] = '\0';
}

long to_long(const char* text) {
    return std::strtol(text, nullptr, 10);
}

// ---- what each option does ---------------------------------------------------------------------

int opt_config(const char* arg) {
    return load_config(arg, &g_cfg.tsa) == 0 ? 0 : -1;
}

int opt_verbose(const char*) {
    ++g_cfg.verbosity;
    return 0;
}

int opt_version(const char*) {
    std::fprintf(stderr, "%s\n", app_info());
    std::exit(EXIT_FAILURE);
}

int opt_srctag(const char* arg) {
    copy_text(g_cfg.tsa.source, arg);
    return 0;
}

int opt_maxskip(const char* arg) {
    const auto num = static_cast<unsigned long>(to_long(arg)); // negative: too big
    if (num < 1 || num > MAX_SANE_VAL) {
        // intended: the message has always named -S.
        std::fputs("-S value is too small/big\n", stderr);
        return ERANGE;
    }
    g_cfg.tsa.max_skip_pkts = num;
    return 0;
}

int opt_from(const char* arg) {
    const long num = to_long(arg);
    if (num <= 0) {
        std::fprintf(stderr, "Bad -r value (%ld)\n", num);
        return ERANGE;
    }
    g_cfg.start_rec = num;
    return 0;
}

int opt_maxnum(const char* arg) {
    g_cfg.max_records = static_cast<std::size_t>(to_long(arg));
    return 0;
}

int opt_alerts(const char* arg) {
    g_cfg.tsa.access_log_alerts = strcasecmp(arg, "on") == 0;
    return 0;
}

int opt_hushlog(const char*) {
    g_cfg.tsa.no_rlog = true;
    return 0;
}

int opt_analyze(const char* arg) {
    return tsan_cli_opt(arg, &g_cfg.tsa) == 0 ? 0 : EINVAL;
}

int opt_track(const char* arg) {
    if (tsan_xtrack_opt(arg, &g_cfg.tsa) == 0)
        return 0;
    std::fprintf(stderr, "Invalid tracking option: %s\n", arg);
    return EINVAL;
}

int opt_syslog(const char* arg) {
    const int facility = str2fac(arg);
    if (facility < 1) {
        std::fprintf(stderr, "Invalid/un-supported syslog facility: %s\n", arg);
        return EINVAL;
    }
    config_syslog(&g_access_log, g_app_name, LOG_CONS | LOG_ODELAY, facility);
    return 0;
}

// ---- the table -------------------------------------------------------------------------------

struct option_row {
    int letter;
    const char* name;
    int has_arg;
    int pass;                      // the pass over the command line that applies it
    int (*apply)(const char* arg); // 0, or the result of parse_options
};

// -? has no row to apply: the scanner reports an unknown option in the same way.
constexpr option_row OPTIONS[] = {
    {'C', "config", required_argument, 1, opt_config},
    {'v', "verbose", no_argument, 1, opt_verbose},
    {'V', "version", no_argument, 1, opt_version},
    {'?', "options", no_argument, 1, nullptr},
    {'S', "srctag", required_argument, 2, opt_srctag},
    {'s', "maxskip", required_argument, 2, opt_maxskip},
    {'r', "from", required_argument, 2, opt_from},
    {'m', "maxnum", required_argument, 2, opt_maxnum},
    {'a', "alerts", required_argument, 2, opt_alerts},
    {'H', "hushlog", no_argument, 2, opt_hushlog},
    {'A', "analyze", required_argument, 2, opt_analyze},
    {'k', "track", required_argument, 2, opt_track},
    {'Y', "syslog", required_argument, 2, opt_syslog},
};

// -Z and -t are accepted for old scripts and do nothing.
constexpr char SHORT_OPTIONS[] = "ZtvV?S:s:a:Hr:m:C:Y:k:A:";

consteval auto make_long_options() {
    std::array<option, std::size(OPTIONS) + 1> list{}; // a zeroed row ends it
    for (std::size_t i = 0; i < std::size(OPTIONS); ++i)
        list[i] = {OPTIONS[i].name, OPTIONS[i].has_arg, nullptr, OPTIONS[i].letter};
    return list;
}

constexpr auto LONG_OPTIONS = make_long_options();

// Applies the options of one pass in the order in which they stand.
[[nodiscard]] int scan_options(int argc, char* argv[], int pass) {
    int letter = 0;
    while ((letter = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS.data(), nullptr)) != -1) {
        if (letter == '?')
            usage(argv[0], EXIT_FAILURE);
        for (const option_row& row : OPTIONS) {
            if (row.letter != letter || row.pass != pass)
                continue;
            const int rc = row.apply(optarg);
            if (rc != 0)
                return rc;
        }
    }
    return 0;
}

} // namespace

void usage(const char* app, int exit_code) {
    std::fprintf(stderr, "%s\n", app_info());
    // intended: the tag is -S; the line has always said -s.
    std::fprintf(stderr, "Usage: %s -s source OPTIONS fpath\n", app);
    std::fwrite(USAGE_BLOCK.data(), 1, USAGE_BLOCK.size(), stderr);
    dump_build_info(stderr);
    std::exit(exit_code);
}

int parse_options(int argc, char* argv[]) {
    int rc = scan_options(argc, argv, 1);
    if (rc != 0)
        return rc;
    optind = 0; // GNU: scan again from the beginning
    rc = scan_options(argc, argv, 2);
    if (rc != 0)
        return rc;
    if (optind >= argc) {
        std::fputs("Expecting argument after the options.\n", stderr);
        usage(argv[0], 2);
    }

    copy_text(g_cfg.fpath, argv[optind]);
    if (g_cfg.tsa.source[0] == '\0')
        copy_text(g_cfg.tsa.source, g_cfg.fpath);
    // The driver and the analyzer log as one module, so this is the level of both. Messages about
    // options came before it.
    g_mod_ll[g_llctx.mod] = std::min<int>(g_cfg.verbosity, DEBUG_level);

    LOG(&g_log, INFO_level, "fpath=[%s], verbosity=%d, start-rec=%ld, max-recs: %zu\n", g_cfg.fpath,
        g_cfg.verbosity, static_cast<long>(g_cfg.start_rec), g_cfg.max_records);
    if (g_cfg.verbosity > 0 || std::getenv("SHOW_ZBN_CFG"))
        tsan_dump_config(stderr, "analyzer", &g_cfg.tsa);
    return 0;
}
