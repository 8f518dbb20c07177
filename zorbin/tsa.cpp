// tsa.cpp - the program quarn: analyses one file of transport packets and says how it went. The
// read loop hands every record to one analyzer context, and the closing steps report. It owns the
// settings, the read buffer, the input file and the context; nothing else calls it.
#include "tsa.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

#include "log.h"
#include "meta.h"
#include "syswrap.h"

LOG_MODULE(0);

constinit config g_cfg{};

static constinit std::uint8_t g_buf[NUM_RECORDS * TS_RECORD_LEN]{};
static constinit volatile std::sig_atomic_t g_quit = 0;
static constexpr char app_tag[8] = "FSCN"; // group of application log lines

const char* app_info() {
    return get_custom_app_info(g_app_name, g_app_descr, nullptr);
}

namespace {

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
    if (!sought) {
        const int err = errno;
        LOG(&g_log, ERR_level, "fseek(, %ld, SEEK_SET) ERROR(%d): %s\n",
            static_cast<long>(std::min<off_t>(offset, LONG_MAX)), err, std::strerror(err));
        return false;
    }
    LOG(&g_log, INFO_level, "Moved to record %ld\n", static_cast<long>(g_cfg.start_rec));
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

// Asks the read loop to hand no more packets to the analyzer; for SIGINT and SIGTERM.
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
    LOG(&g_log, NORM_level, "%s STARTING. PID=%ld\n", app_info(), static_cast<long>(getpid()));
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

// ---- start-up ----------------------------------------------------------------------------------

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

// Every setting at its start value.
void init_config() {
    g_cfg = {};
    g_cfg.tsa = TSAN_DEFAULTS;
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
    LOG(&g_log, NORM_level, "%s EXIT(%d). PID=%ld\n", app_info(), rc, static_cast<long>(getpid()));
    log_close(&g_log);
    return rc;
}
