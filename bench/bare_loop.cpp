// bare_loop.cpp - the least that a program can do to read a capture: the same calls that quarn
// makes to read its file, and one byte of each packet looked at. What quarn takes on top is the
// analysis.
//
//     bare_loop [-b] [-w] FILE
//
// -b  leaves the stream buffer in place that quarn does without: the plainest loop of all
// -w  also makes, at every tenth packet, the two writes of an alert: a line of usual length to
//     standard error and one to standard output
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <unistd.h>

static constexpr std::size_t RECORD_LEN = 188;
static constexpr std::size_t RECORDS = 100;
static constexpr std::uint64_t ALERT_EVERY = 10; // packets

static std::uint8_t g_buf[RECORDS * RECORD_LEN];

static constexpr char HUMAN[] =
    "2024-01-01 00:00:00.000000 UTC (WRN)  FSCN  ALERT CC-BRK [capture] dgram:0 last/current=5/7 "
    "pid=257 at 0:0[1000000]:(pcr=100000000)+100\n";
static constexpr char MACHINE[] = "2024-01-01 00:00:00.000000 UTC 100000  ALERT CC-BRK capture 257 "
                                  "0 5 7 0:0[1000000]:(pcr=100000000)+100\n";

static bool write_alert() {
    return write(STDERR_FILENO, HUMAN, sizeof HUMAN - 1) > 0 &&
           write(STDOUT_FILENO, MACHINE, sizeof MACHINE - 1) > 0;
}

int main(int argc, char* argv[]) {
    bool buffered = false;
    bool with_alerts = false;
    int letter = 0;
    while ((letter = getopt(argc, argv, "bw")) != -1) {
        buffered |= letter == 'b';
        with_alerts |= letter == 'w';
    }
    if (optind + 1 != argc) {
        std::fputs("usage: bare_loop [-b] [-w] FILE\n", stderr);
        return 2;
    }
    FILE* in = std::fopen(argv[optind], "r");
    if (!in) {
        std::perror(argv[optind]);
        return 1;
    }
    if (!buffered)
        std::setvbuf(in, nullptr, _IONBF, 0);
    std::uint64_t sum = 0;
    std::uint64_t packets = 0;
    for (std::size_t n = 0; (n = std::fread(g_buf, RECORD_LEN, RECORDS, in)) > 0;) {
        for (std::size_t i = 0; i < n; i++) {
            sum += g_buf[i * RECORD_LEN + 1];
            if (with_alerts && ++packets % ALERT_EVERY == 0 && !write_alert())
                return 1;
        }
    }
    std::fclose(in);
    std::printf("%llu\n", static_cast<unsigned long long>(sum));
    return 0;
}
