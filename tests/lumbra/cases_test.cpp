// Everything that makes a short text or number of a few values, driven by the rows of cases.txt.
#include "lumbra_test.h"

#include <fcntl.h>
#include <map>
#include <sys/stat.h>

#include "appcfg.h"
#include "strops.h"

static std::ostream& operator<<(std::ostream& out, const timespec& tms) {
    return out << tms.tv_sec << '+' << tms.tv_nsec;
}

namespace {

struct number { // of the type that is asked for
    long long value;
    template <class T>
    operator T() const {
        return static_cast<T>(value);
    }
};

struct cases_test : lumbra_test {
    // Fields of the row.
    const char* arg(std::size_t i) const { return row.at(i).c_str(); }
    number num(std::size_t i) const { return {std::stoll(row.at(i), nullptr, 0)}; }
    timespec time(std::size_t i) const { return {num(i), num(i + 1)}; }

    template <class Shown, class T>
    string parsed(int (*parse)(const char*, T*)) const {
        T value = 7;
        EXPECT_EQ(parse(arg(1), nullptr), parse(arg(1), &value));
        return string() << parse(arg(1), nullptr) << to_string(static_cast<Shown>(value));
    }
    // A text that `fill` writes into the room that field i gives.
    template <class Fill, class... T>
    string filled(std::size_t i, Fill fill, T... values) const {
        const std::size_t room = num(i);
        std::vector<char> buf(room);
        const auto n = fill(values..., buf.data(), room);
        return string() << n << (n < 0 ? "" : buf.data());
    }
    string distance() const {
        const timespec a = time(1), b = time(3);
        timespec delta = a, span;
        tspec_diff(&delta, &b, &delta); // the result may replace an operand
        calc_timespan(&a, &b, &span);
        return string() << delta << diff_ms(&a, &b) << span;
    }
    string timeout() {
        const timespec tmout = {2, 400'000'000}, now = time(1);
        const timespec other = {now.tv_nsec == 1 ? 0 : 99, 0}; // of the clock not to be asked
        clock.set_real(other);
        clock.set_monotonic(now);
        const bool out = timed_out(&START, &tmout);
        clock.set_real(now);
        clock.set_monotonic(other);
        return string() << timed_out_ext(&START, &tmout, &now) << out
                        << timed_out_real(&START, &tmout);
    }
    string line() const {
        log_ctx one = {};
        use_zone(arg(1));
        log_timefmt(&one, num(2));
        log_set_pid(&one, num(3));
        strcpy(one.group.sym8, arg(5));
        return logbuf_prepare(&one, num(4), "%s", "hello") == 5 ? g_outbuf : "";
    }
    string stamp() const {
        const timespec tms = time(2);
        use_zone(arg(1));
        return filled(5, mk_timestr, &tms, num(4));
    }

    string name() const { // field 1; "x128" stands for a name of that length
        const bool is_short = row[1].find_first_of("0123456789") != 1;
        return is_short ? row[1] : string(std::stoul(row[1].substr(1)), row[1][0]);
    }
    string write() const {
        const timespec mtimes[2] = {{1000, 0}, {1000, 0}};
        std::ofstream(name()) << arg(2);
        return utimensat(AT_FDCWD, name().c_str(), mtimes, 0) == 0 ? "ok" : "failed";
    }
    string put() { // a line for each letter, at times that follow each other
        time_t now = num(2);
        for (const char letter : row[1]) {
            clock.set_real({now++, 0});
            log_machine(target, "%c\n", letter);
        }
        return "ok";
    }
    string renew() { // a closed file and an empty directory
        if (target == &g_log)
            std::swap(file, g_log);
        log_close(&file);
        file = {};
        log_timefmt(target = &file, TMF_NONE);
        return renew_directory(), "ok";
    }

    static constexpr timespec START = {10, 600'000'000};
    std::vector<string> row;
    log_ctx file = {};
    log_ctx* target = &file; // g_log while it is the log file itself
    int level;
};

TEST_F(cases_test, rows) {
    const std::map<string, std::function<string()>> topics = {
        // clang-format off
        {"number", [&] { return parsed<std::int64_t>(a2int64) << parsed<ssize_t>(a2size)
                                                              << parsed<double>(a2double); }},
        {"chomp", [&] { string text = row[1];
                        std::replace(text.begin(), text.end(), 'N', '\n');
                        std::replace(text.begin(), text.end(), 'R', '\r');
                        chomp(text.data());
                        return string() << strlen(text.c_str()); }},
        {"facility", [&] { return string() << str2fac(arg(1)) << fac2str(str2fac(arg(1))); }},
        {"timefmt", [&] { return string() << str_to_timefmt(arg(1)); }},
        {"timefmt_str", [&] { return string(timefmt_str(num(1))); }},
        {"level", [&] { return level = 9, string() << match_log_level(arg(1), &level) << level; }},
        {"level_name", [&] { return string(log_level_str(num(1))); }},
        {"level_env", [&] { setenv("L", arg(1), 1); return string() << read_level_env("L", 17); }},
        {"line", [&] { return line(); }},
        {"passes", [&] { g_mod_ll[7] = num(1), g_sec_ll[3] = num(3);
                         return string() << log_level_passes({7, num(2), -1, {}}, num(4)); }},
        {"ms", [&] { const timespec tms = time(1); return string() << tms2ms(&tms); }},
        {"since", [&] { const timespec tms = time(1);
                        return string() << diff_ms(nullptr, &tms) << diff_ms(&tms, nullptr); }},
        {"distance", [&] { return distance(); }},
        {"timeout", [&] { return timeout(); }},
        {"tspan", [&] { const timespec tms = time(2);
                        tspan span{TSPAN_TICKS, {}}; // one that has passed
                        return string() << set_tspan(&span, num(1), &tms, 5)
                                        << tspan_timed_out(&span, &START, -2U, num(4)); }},
        {"stamp", [&] { return stamp(); }},
        {"busy", [&] { g_tmlock = 1; const string text = stamp(); g_tmlock = 0; return text; }},
        {"scan", [&] { timespec tms = {7, 8};
                       use_zone(arg(1));
                       return string() << scan_log_time(arg(3), &tms, num(2)) << tms; }},
        {"date", [&] { return filled(2, mk_gmt_date, num(1)); }},
        {"span", [&] { return filled(2, mk_timespan, num(1)); }},
        // a log file
        {"new", [&] { return renew(); }},
        {"write", [&] { return write(); }},
        {"mkdir", [&] { return std::filesystem::create_directories(arg(1)), "ok"; }},
        {"unlink", [&] { return string() << unlink(arg(1)); }},
        {"open", [&] { return string() << log_open_ex(target, name().c_str(), num(2)); }},
        {"stdout", [&] { return file.fp = stdout, strcpy(file.name, arg(1)); }},
        {"own", [&] { log_set_modules(target, DEBUG_level);
                      return std::swap(file, g_log), target = &g_log, "ok"; }},
        {"rota", [&] { log_set_rota(target, num(1), num(2), num(3));
                       return string() << log_rota_maxfiles(target) << log_rota_eod(target); }},
        {"zone", [&] { return use_zone(arg(1)), "ok"; }},
        {"eod", [&] { return string() << log_rota_eod(target); }},
        {"set_eod", [&] { return log_set_eod(target, num(1)), "ok"; }},
        {"put", [&] { return put(); }},
        {"rotate", [&] { return string() << log_rotate(target); }},
        {"lose", [&] { return string() << close(fileno(file.fp)); }},
        {"close", [&] { return log_close(&file), file.fp = nullptr, "ok"; }},
        {"files", [&] { return files(); }},
        {"end_of_day", [&] { use_zone(arg(1)); return string() << get_endofday_utime(num(2)); }},
    }; // clang-format on
    std::ifstream in(LUMBRA_CASES);
    int count = 0;
    for (string text; std::getline(in, text);) {
        if (text.empty() || text[0] == '#')
            continue;
        std::istringstream fields(text);
        row.clear();
        for (string field; std::getline(fields, field, '|');)
            row.push_back(field);
        clock.set_real({1711846799, 123456789}); // the last second before summer time
        clock.set_monotonic({13, 0});
        string result = outcome(topics.at(row[0])) << log.human();
        if (target == &file) // else it would be given its old stream again
            log.clear();
        std::replace(result.begin(), result.end(), '\n', '~');
        EXPECT_EQ(result, row.back()) << text;
        ++count;
    }
    EXPECT_GT(count, 150);
}

} // namespace
