// tsa.cpp - the program quarn: analyses one file of transport packets and says how it went.
//
// Start-up reads the command line in two passes (configuration files, then everything else), the
// read loop hands every record to one analyzer context, and the closing steps report. It owns the
// process-wide settings, the read buffer, the input file and the context; nothing else calls it.
#include "tsa.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <getopt.h>
#include <libconfig.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include "appcfg.h"
#include "log.h"
#include "meta.h"
#include "syswrap.h"

LOG_MODULE(0);

static constinit config g_cfg{};
static constinit config_t g_libcfg{};
static constinit std::uint8_t g_buf[NUM_RECORDS * TS_RECORD_LEN]{};
static constinit volatile std::sig_atomic_t g_quit = 0;
static constexpr char app_tag[8] = "FSCN"; // group of application log lines

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

struct file_closer {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

const char* app_info() {
    return get_custom_app_info(g_app_name, g_app_descr, nullptr);
}

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

// ---- options -----------------------------------------------------------------------------------

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

// ---- the run -----------------------------------------------------------------------------------

struct run_totals {
    std::size_t bytes; // read
    std::size_t nrecs; // handed to the analyzer and counted
};

// Moves to the start record. Returns whether that worked.
[[nodiscard]] bool seek_to_start(FILE* in) {
    if (g_cfg.start_rec < 2)
        return true;
    off_t offset = 0;
    bool sought = false;
    if (__builtin_mul_overflow(g_cfg.start_rec - 1, TS_RECORD_LEN, &offset)) {
        offset = std::numeric_limits<off_t>::max();
        errno = EOVERFLOW;
    } else {
        sought = fseeko(in, offset, SEEK_SET) == 0;
    }
    const int err = errno;
    if (!sought) {
        const long shown = static_cast<long>(std::min<off_t>(offset, LONG_MAX));
        LOG(&g_log, ERR_level, "fseek(, %ld, SEEK_SET) ERROR(%d): %s\n", shown, err,
            std::strerror(err));
        return false;
    }
    const long record = static_cast<long>(g_cfg.start_rec);
    LOG(&g_log, INFO_level, "Moved to record %ld\n", record);
    return true;
}

// Hands the file's records to the analyzer. Returns the analyzer's last result: 0 unless it
// stopped the run.
[[nodiscard]] int read_records(FILE* in, tsan_t t, run_totals* sum) {
    int rc = 0;
    while (rc == 0) {
        const std::size_t n = std::fread(g_buf, TS_RECORD_LEN, NUM_RECORDS, in);
        if (n < 1)
            break;
        sum->bytes += n * TS_RECORD_LEN;
        // intended: after a signal the rest of the file is still read, so that the byte count
        // tells its size; only the analyzer is spared.
        for (std::size_t i = 0; i < n && !g_quit; ++i) {
            rc = tsan_process(t, g_buf + i * TS_RECORD_LEN);
            if (rc != 0)
                break;
            // intended: the limit is looked at after the packet, so N records mean N + 1 packets.
            if (g_cfg.max_records != 0 && sum->nrecs >= g_cfg.max_records)
                return 0;
            ++sum->nrecs;
        }
    }
    return rc;
}

// Analyses the input file with `t` and reports. Returns 0 or the negative result that ended it.
[[nodiscard]] int analyse_file(tsan_t t) {
    assert(g_cfg.fpath[0] != '\0');
    const file_ptr in(std::fopen(g_cfg.fpath, "r"));
    if (!in) {
        // intended: a channel that was not captured is no failure of the analyzer, status 0.
        std::fprintf(stderr, "Cannot open [%s]: %s\n", g_cfg.fpath, std::strerror(errno));
        return 0;
    }
    // Blocks are read whole: a buffer in between would only copy them and double the calls.
    std::setvbuf(in.get(), nullptr, _IONBF, 0);
    if (!seek_to_start(in.get()))
        return -1;

    std::signal(SIGINT, handle_quit);
    std::signal(SIGTERM, handle_quit);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // alerts are delivered at once
    const long pid = getpid();
    LOG(&g_log, NORM_level, "%s STARTING. PID=%ld\n", app_info(), pid);
    LOG(&g_log, INFO_level, "reading [%s]\n", g_cfg.fpath);

    run_totals sum = {};
    const int rc = read_records(in.get(), t, &sum);

    tsan_check_ndat(t);
    LOG(&g_log, INFO_level, "%zu/%zu bytes/records read from [%s]\n", sum.bytes, sum.nrecs,
        g_cfg.fpath);
    tsan_dump_stats(stderr, t);
    std::fputs("\n", stdout);
    return rc;
}

// Opens what the caller has closed of the standard streams: the input file or a syslog connection
// would get the stream's number, and with it what is written to the stream.
void hold_std_streams() {
    int fd = -1;
    do {
        fd = W_open(__func__, "/dev/null", O_RDWR, 0);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        W_close(__func__, fd);
}

void init_logs() {
    std::uint64_t group = 0;
    static_assert(sizeof group == sizeof app_tag);
    std::memcpy(&group, app_tag, sizeof group);
    log_default(&g_log, stderr);
    log_set_group(&g_log, group);
    log_default(&g_access_log, stdout);
    log_set_pid(&g_access_log, getpid());
}

} // namespace

void init_config() {
    g_cfg = {};
    g_cfg.tsa.is_enabled = true;
    g_cfg.tsa.max_skip_pkts = 5000;
    g_cfg.tsa.cc_track = true;
    g_cfg.tsa.cc_max_ms0_ms = 30;
}

void usage(const char* app, int exit_code) {
    std::fprintf(stderr, "%s\n", app_info());
    // intended: the tag is -S; the line has always said -s.
    std::fprintf(stderr, "Usage: %s -s source OPTIONS fpath\n", app);
    std::fwrite(USAGE_BLOCK.data(), 1, USAGE_BLOCK.size(), stderr);
    dump_build_info(stderr);
    std::exit(exit_code);
}

int load_config(const char* fpath, tsan_config* cfg) {
    config_init(&g_libcfg);
    file_ptr in(std::fopen(fpath, "r"));
    // A directory can be opened, and libconfig ends the process when its first read fails: so the
    // first byte is tried here.
    if (in)
        std::ungetc(std::getc(in.get()), in.get());
    if (!in || std::ferror(in.get())) {
        std::fprintf(stderr, "Failed to load [%s]\n", fpath);
        config_destroy(&g_libcfg);
        return -1;
    }

    int rc = -1;
    if (config_read(&g_libcfg, in.get()) != CONFIG_TRUE) {
        LOG(&g_log, ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", fpath,
            config_error_line(&g_libcfg), config_error_text(&g_libcfg));
    } else {
        static constexpr char SECTION[] = "zbn.stream_analyzer";
        config_setting_t* const section = config_lookup(&g_libcfg, SECTION);
        if (section)
            rc = tsan_load_config(section, cfg);
        else
            LOG(&g_log, ERR_level, "%s: missing %s section\n", __func__, SECTION);
    }
    in.reset();
    config_destroy(&g_libcfg);
    if (rc != 0)
        LOG(&g_log, ERR_level, "%s: [%s] FAILED (%d)\n", __func__, fpath, rc);
    return rc;
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
    g_mod_ll[g_llctx.mod] = std::min<int>(g_cfg.verbosity, DEBUG_level);

    const long start_rec = static_cast<long>(g_cfg.start_rec);
    LOG(&g_log, INFO_level, "fpath=[%s], verbosity=%d, start-rec=%ld, max-recs: %zu\n", g_cfg.fpath,
        g_cfg.verbosity, start_rec, g_cfg.max_records);
    if (g_cfg.verbosity > 0 || std::getenv("SHOW_ZBN_CFG"))
        tsan_dump_config(stderr, "analyzer", &g_cfg.tsa);
    return 0;
}

void handle_quit(int signo) {
    const int saved = errno;
    // Only calls that a signal handler may make: no stdio.
    char text[32] = "\nSIG(";
    char* end = std::to_chars(text + 5, text + sizeof text - 2, signo).ptr;
    *end++ = ')';
    *end++ = '\n';
    [[maybe_unused]] const ssize_t written =
        write(STDOUT_FILENO, text, static_cast<std::size_t>(end - text));
    g_quit = 1;
    errno = saved;
}

int main(int argc, char* argv[]) {
    hold_std_streams();
    if (argc < 2)
        usage(argc > 0 ? argv[0] : g_app_name, EXIT_FAILURE);
    init_logs();
    init_config();

    tsan_t t = nullptr;
    int rc = parse_options(argc, argv);
    if (rc == 0)
        t = tsan_init(nullptr, &g_cfg.tsa, &rc);
    if (t) {
        rc = analyse_file(t);
        tsan_free(t);
    }
    if (rc < 0)
        rc = 2;
    const long pid = getpid();
    LOG(&g_log, NORM_level, "%s EXIT(%d). PID=%ld\n", app_info(), rc, pid);
    log_close(&g_log);
    return rc;
}
